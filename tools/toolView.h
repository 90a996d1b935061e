#pragma once

#include <array>
#include <optional>

#include "model/vec3f.h"

namespace corvelle {

/// The camera of a stroke, groom space. Pixels are the region's, their origin at the bottom left.
/// Clip z runs over -w..w.
struct ToolView {
    /// Groom space to clip space, row after row, applied to the column (x, y, z, 1).
    std::array<double, 16> matrix{};
    std::array<double, 16> inverse{};  ///< of `matrix`
    double width = 0.0, height = 0.0;  ///< of the viewport, pixels
    Vec3f cameraPosition{};            ///< of a perspective view
    Vec3f pickDirection{};             ///< unit, into the picture: along the view's middle ray
    bool isOrthographic = false;
    std::optional<Vec3f> target;  ///< what the view turns about; the depth of a drag off the groom
};

}  // namespace corvelle
