#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

/// Curves as a file holds them at one time, one behind the other.
/// Shapes: counts [curves], 0 and up, adding up to the number of points; widths [points] or empty;
///         uvs [curves] or empty; ids [curves] or empty, any values.
struct CurveSet {
    std::vector<Vec3f> points;
    std::vector<std::int32_t> counts;
    std::vector<float> widths;
    std::vector<Vec2f> uvs;  ///< at the roots
    std::vector<std::uint64_t> ids;

    friend bool operator==(const CurveSet&, const CurveSet&) = default;
};
using CurveSetPtr = std::shared_ptr<const CurveSet>;

}  // namespace corvelle
