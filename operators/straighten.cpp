#include "operators/straighten.h"

#include <algorithm>
#include <array>

#include "model/polyline.h"
#include "operators/deformLanes.h"
#include "operators/nodeFactories.h"
#include "operators/segmentTurn.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

Vec3f overallDirection(std::span<const Vec3f> points) {
    const Vec3f chord = points.back() - points.front();
    if (length(chord) > kClosed * polylineLength(points)) return chord;
    for (std::size_t i = 1; i < points.size(); ++i)
        if (const Vec3f segment = points[i] - points[i - 1]; length(segment) > 0.0f) return segment;
    return {};
}

}  // namespace

void straightenStrand(std::span<const Vec3f> points, float strength, std::span<Vec3f> out) {
    if (points.empty()) return;
    turnSegments(points, overallDirection(points), std::span(&strength, 1), out);
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "strength",
     .defaultValue = 1.0,
     .description = "How far toward a straight strand, 0-1, its length kept (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
};

class StraightenWork final : public StrandWork {
public:
    FieldPtr strength;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return strength->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        LaneNumbers<4> toward;
        for (std::size_t k = 0; k < strands.size(); ++k)
            toward.set(k, 0, {}, clampShare(strengths[k]));
        turnStrands(in, strands, toward, nullptr, true, nullptr, out.points, [&](std::size_t k) {
            const std::size_t s = strands[k];
            straightenStrand(in.pointsOf(s), clampShare(strengths[k]),
                             out.points.subspan(in.offsets()[s], in.pointCountOf(s)));
        });
    }
};

class Straighten final : public StrandOperator {
public:
    std::string type() const override { return "Straighten"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Straightens strands toward a line from the root, keeping their length.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<StraightenWork>();
        work->strength = fieldFromParam(*this, "strength", context, strands);
        if (work->strength->constant().value_or(1.0f) <= 0.0f) return nullptr;
        return work;
    }
};

}  // namespace

OperatorPtr makeStraighten() { return std::make_unique<Straighten>(); }

}  // namespace corvelle
