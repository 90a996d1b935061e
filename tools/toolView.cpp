#include "tools/toolView.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "model/elementary.h"

namespace corvelle {
namespace {

using Matrix = std::array<double, 16>;
using Vec4 = std::array<double, 4>;

constexpr double kNearestW = 1e-9;     // of what lies before the camera
constexpr double kLeastPivot = 1e-18;  // of rows whose largest number is 1

Vec4 times(const Matrix& m, const Vec4& v) {
    Vec4 out{};
    for (std::size_t r = 0; r < 4; ++r)
        for (std::size_t c = 0; c < 4; ++c) out[r] += m[4 * r + c] * v[c];
    return out;
}

Vec4 toClip(const ToolView& view, Vec3f p) {
    return times(view.matrix, {double(p.x), double(p.y), double(p.z), 1.0});
}

/// By Gauss and Jordan, with the largest pivot of a column. False: no inverse within what doubles
/// tell.
bool invert(Matrix m, Matrix& out) {
    out = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    double largest = 0.0;
    for (const double value : m) {
        if (!std::isfinite(value)) return false;
        largest = std::max(largest, std::abs(value));
    }
    // Rows of one scale: a camera far off mixes numbers of very different size.
    for (std::size_t r = 0; r < 4; ++r) {
        double scale = 0.0;
        for (std::size_t k = 0; k < 4; ++k) scale = std::max(scale, std::abs(m[4 * r + k]));
        if (!(scale > largest * std::numeric_limits<double>::min())) return false;
        for (std::size_t k = 0; k < 4; ++k) {
            m[4 * r + k] /= scale;
            out[4 * r + k] /= scale;
        }
    }
    for (std::size_t c = 0; c < 4; ++c) {
        std::size_t pivot = c;
        for (std::size_t r = c + 1; r < 4; ++r)
            if (std::abs(m[4 * r + c]) > std::abs(m[4 * pivot + c])) pivot = r;
        const double value = m[4 * pivot + c];
        if (!(std::abs(value) > kLeastPivot)) return false;
        for (std::size_t k = 0; k < 4; ++k) {
            std::swap(m[4 * c + k], m[4 * pivot + k]);
            std::swap(out[4 * c + k], out[4 * pivot + k]);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            m[4 * c + k] /= value;
            out[4 * c + k] /= value;
        }
        for (std::size_t r = 0; r < 4; ++r) {
            const double share = m[4 * r + c];
            if (r == c || share == 0.0) continue;
            for (std::size_t k = 0; k < 4; ++k) {
                m[4 * r + k] -= share * m[4 * c + k];
                out[4 * r + k] -= share * out[4 * c + k];
            }
        }
    }
    return std::all_of(out.begin(), out.end(), [](double v) { return std::isfinite(v); });
}

struct Ray {
    Vec4 origin, direction;  // [3]: 1 and 0
};

/// From z = -1 to z = 1 in clip space. A far plane at infinity gives its direction.
Ray rayThrough(const ToolView& view, double x, double y) {
    const double nx = 2.0 * x / view.width - 1.0, ny = 2.0 * y / view.height - 1.0;
    Vec4 near = times(view.inverse, {nx, ny, -1.0, 1.0});
    const Vec4 far = times(view.inverse, {nx, ny, 1.0, 1.0});
    for (std::size_t k = 0; k < 3; ++k) near[k] /= near[3];
    Vec4 direction{};
    const double reach = std::abs(far[0]) + std::abs(far[1]) + std::abs(far[2]);
    const bool isFar = std::abs(far[3]) < 1e-12 * reach;
    for (std::size_t k = 0; k < 3; ++k) direction[k] = isFar ? far[k] : far[k] / far[3] - near[k];
    near[3] = 1.0;
    return {near, direction};
}

Vec4 atDepth(const ToolView& view, double x, double y, Vec3f anchor) {
    const Ray ray = rayThrough(view, x, y);
    // A plane that faces the camera has one clip w, under an orthographic camera one clip z.
    const std::size_t row = view.isOrthographic ? 2 : 3;
    const double at = times(view.matrix, ray.origin)[row];
    const double rate = times(view.matrix, ray.direction)[row];
    const double t = rate != 0.0 ? (toClip(view, anchor)[row] - at) / rate : 0.0;
    Vec4 out = ray.origin;
    for (std::size_t k = 0; k < 3; ++k) out[k] += t * ray.direction[k];
    return out;
}

Vec3f narrow(const Vec4& v) { return {float(v[0]), float(v[1]), float(v[2])}; }

}  // namespace

bool ToolView::project(Vec3f position, double& x, double& y) const {
    const double a = double(position.x), b = double(position.y), c = double(position.z);
    const Matrix& m = matrix;
    const double w = m[12] * a + m[13] * b + m[14] * c + m[15];
    if (!(w > kNearestW)) return false;
    x = ((m[0] * a + m[1] * b + m[2] * c + m[3]) / w * 0.5 + 0.5) * width;
    y = ((m[4] * a + m[5] * b + m[6] * c + m[7]) / w * 0.5 + 0.5) * height;
    return true;
}

PickRay ToolView::pickRay(double x, double y) const {
    const Ray ray = rayThrough(*this, x, y);
    return {narrow(ray.origin), narrow(ray.direction)};
}

Vec3f ToolView::placeAtDepth(double x, double y, Vec3f anchor) const {
    return narrow(atDepth(*this, x, y, anchor));
}

float ToolView::pixelSize(Vec3f anchor) const {
    // Straight along the plane, so a long way gives the size of a pixel without cancellation.
    const Vec4 left = atDepth(*this, 0.0, 0.5 * height, anchor);
    const Vec4 right = atDepth(*this, width, 0.5 * height, anchor);
    return float(math::hypot(right[0] - left[0], right[1] - left[1], right[2] - left[2]) / width);
}

Vec3f ToolView::towardsEye(Vec3f position) const {
    return isOrthographic ? -pickDirection : normalized(cameraPosition - position);
}

std::optional<ToolView> makeToolView(const Matrix& groomToClip, double width, double height) {
    ToolView view;
    view.matrix = groomToClip;
    view.width = width;
    view.height = height;
    if (!(width > 0.0) || !(height > 0.0) || !invert(groomToClip, view.inverse)) return {};
    const auto isZero = [](double v) { return v == 0.0; };
    // Without perspective clip w is the same everywhere: no place of the groom is the eye's.
    const Vec4 eye = times(view.inverse, {0.0, 0.0, 1.0, 0.0});
    view.isOrthographic =
        eye[3] == 0.0 || std::all_of(groomToClip.begin() + 12, groomToClip.begin() + 15, isZero);
    if (!view.isOrthographic) {
        view.cameraPosition = narrow({eye[0] / eye[3], eye[1] / eye[3], eye[2] / eye[3], 1.0});
        if (!isFinite(view.cameraPosition)) return {};
    }
    view.pickDirection = normalized(view.pickRay(0.5 * width, 0.5 * height).direction);
    if (!isFinite(view.pickDirection) || view.pickDirection == Vec3f{}) return {};
    return view;
}

std::function<bool(Vec3f, float&, float&)> pixelProjector(const ToolView& view) {
    return [matrix = view.matrix, width = view.width, height = view.height](Vec3f p, float& x,
                                                                            float& y) {
        const Vec4 clip = times(matrix, {double(p.x), double(p.y), double(p.z), 1.0});
        const double w = clip[3];
        if (!(w > kNearestW) || !(std::abs(clip[0]) <= w) || !(std::abs(clip[1]) <= w) ||
            !(std::abs(clip[2]) <= w))
            return false;
        x = float(std::trunc((clip[0] / w * 0.5 + 0.5) * width));
        y = float(std::trunc((clip[1] / w * 0.5 + 0.5) * height));
        return true;
    };
}

Matrix multiplyMatrices(const Matrix& a, const Matrix& b) {
    Matrix out{};
    for (std::size_t r = 0; r < 4; ++r)
        for (std::size_t c = 0; c < 4; ++c)
            for (std::size_t k = 0; k < 4; ++k) out[4 * r + c] += a[4 * r + k] * b[4 * k + c];
    return out;
}

}  // namespace corvelle
