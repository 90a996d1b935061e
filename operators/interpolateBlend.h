#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/ramp.h"
#include "model/strandSet.h"
#include "operators/clearance.h"
#include "operators/guideShapes.h"
#include "operators/interpolateWeights.h"

namespace corvelle {

/// How strands follow the guides they are weighted to.
struct BlendSettings {
    bool preserveLength = true;  ///< scale to the guides' mean length, at most to twice the blend's
    bool takeLength = false;     ///< keep the own shape, take the guides' length alone
    float limitDistance = 0.0f;  ///< cm; 0: every strand follows its guides whole
    Ramp falloff;                ///< influence over distance / limitDistance
};

/// What a blend reads. The spans and pointers must outlive it.
struct BlendSource {
    const WeightTable* weights = nullptr;
    std::span<const GuideShapesPtr> shapes;  ///< ascending by point count, one for each that occurs
    std::span<const Vec3f> strandNormals;    ///< [strands], unit
    const ClearanceGoals* clearance = nullptr;  ///< null: strands may sink in
};

/// How much a strand follows its guides, 0 to 1.
float guideInfluence(const WeightTable& weights, std::size_t strand, const BlendSettings& settings);

/// Writes the points of the listed strands: their guides' points relative to the guides' roots,
/// turned by the shortest arc from the guide's surface normal to the strand's, weighted and added
/// to the strand's own root, which never moves. Strands without weights are copied.
/// Shapes: out [in.pointCount()]. Pure per strand; batches may run in parallel, in any order.
void blendStrands(const StrandSet& in, std::span<const std::uint32_t> strands,
                  const BlendSource& source, const BlendSettings& settings, std::span<Vec3f> out);

}  // namespace corvelle
