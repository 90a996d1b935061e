#pragma once

#include <cstdint>

#include "model/scalpMesh.h"
#include "operators/scatterCandidates.h"

namespace corvelle {

/// A grid over the unit square of a mesh's texture coordinates.
struct ScatterGridSettings {
    std::uint32_t rows = 100;     ///< along V
    std::uint32_t columns = 100;  ///< along U
    float random = 0.0f;          ///< 0 to 1: each root moves by up to this share of its cell, per axis
    std::uint64_t seed = 0;
};

/// One root per cell whose point lies on a face of the UV layout. Where faces overlap the first in
/// triangle order takes the cell; faces turned over in UV space (no area above 0) take none.
/// `thinning`, where it is mapped, keeps a root with its value at the root as the odds.
/// In cell order, rows along V outside. Roots' ids follow from seed and cell alone.
/// Throws: std::invalid_argument for a mesh without UVs.
/// Cost:   parallel over bands of rows; the same bits for any thread count.
ScatterPoints scatterGrid(const ScalpMesh& mesh, const ScatterGridSettings& settings,
                          const ScatterDensity& thinning);

}  // namespace corvelle
