#pragma once

#include <array>
#include <functional>
#include <optional>

#include "model/vec3f.h"

namespace corvelle {

/// A ray into the picture, groom space; `direction` is not unit.
struct PickRay {
    Vec3f origin, direction;
};

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

    /// The pixel a place is seen at, not cut to the viewport. False behind the camera (w <= 1e-9).
    bool project(Vec3f position, double& x, double& y) const;
    /// From the near plane to the far plane through a pixel.
    PickRay pickRay(double x, double y) const;
    /// The place under a pixel at the depth of `anchor`: on the plane through it that faces the
    /// camera.
    Vec3f placeAtDepth(double x, double y, Vec3f anchor) const;
    /// Centimetres that one pixel spans at the depth of `anchor`.
    float pixelSize(Vec3f anchor) const;
    /// Unit, from a place towards the eye.
    Vec3f towardsEye(Vec3f position) const;
};

/// Fills in what follows from the matrix: the inverse, the camera's place and direction. Empty for
/// a matrix that cannot be inverted or holds what is no number.
std::optional<ToolView> makeToolView(const std::array<double, 16>& groomToClip, double width,
                                     double height);

/// Gives the pixel of a place, cut down to whole pixels, as an image row and column; false outside
/// the clip box or where w <= 1e-9. Copies what it needs of the view; may be called concurrently.
std::function<bool(Vec3f position, float& x, float& y)> pixelProjector(const ToolView& view);

/// The product `a` b of 4 x 4 matrices, row after row.
std::array<double, 16> multiplyMatrices(const std::array<double, 16>& a,
                                        const std::array<double, 16>& b);

}  // namespace corvelle
