#include "model/vec3f.h"

#include <cmath>

#include "model/elementary.h"

namespace corvelle {

Vec3f anyPerpendicular(Vec3f a) {
    const float ax = std::abs(a.x), ay = std::abs(a.y), az = std::abs(a.z);
    const float largest = std::max({ax, ay, az});
    if (!isFinite(a) || largest == 0.0f) return {1.0f, 0.0f, 0.0f};
    Vec3f axis{1.0f, 0.0f, 0.0f};
    if (ay < ax && ay <= az)
        axis = {0.0f, 1.0f, 0.0f};
    else if (az < ax && az < ay)
        axis = {0.0f, 0.0f, 1.0f};
    return normalized(cross(a / largest, axis));  // scaled: the squares of tiny lengths underflow
}

Rotation Rotation::after(const Rotation& first) const {
    // By components: vectors handed about are stored in parts and loaded whole, which waits.
    const Vec3f &a = first.row0, &b = first.row1, &c = first.row2;
    const auto row = [&](const Vec3f& r) {
        return Vec3f{r.x * a.x + r.y * b.x + r.z * c.x, r.x * a.y + r.y * b.y + r.z * c.y,
                     r.x * a.z + r.y * b.z + r.z * c.z};
    };
    return {row(row0), row(row1), row(row2)};
}

Rotation Rotation::inverse() const {
    return {{row0.x, row1.x, row2.x}, {row0.y, row1.y, row2.y}, {row0.z, row1.z, row2.z}};
}

Rotation Rotation::about(Vec3f axis, float angleRadians) {
    const float c = math::cos(angleRadians), s = math::sin(angleRadians), k = 1.0f - c;
    const auto [x, y, z] = axis;
    return {{c + x * x * k, x * y * k - z * s, x * z * k + y * s},
            {y * x * k + z * s, c + y * y * k, y * z * k - x * s},
            {z * x * k - y * s, z * y * k + x * s, c + z * z * k}};
}

Rotation Rotation::shortest(Vec3f from, Vec3f to) {
    // In double: float rounding spoils the division by 1 + cos near the half turn.
    const auto norm = [](Vec3f a) {
        return std::sqrt(double(a.x) * a.x + double(a.y) * a.y + double(a.z) * a.z);
    };
    const double lf = norm(from), lt = norm(to);
    if (!(lf > 0.0) || !(lt > 0.0)) return {};
    const double fx = from.x / lf, fy = from.y / lf, fz = from.z / lf;
    const double tx = to.x / lt, ty = to.y / lt, tz = to.z / lt;
    const double c = fx * tx + fy * ty + fz * tz;
    const double x = fy * tz - fz * ty, y = fz * tx - fx * tz, z = fx * ty - fy * tx;
    const double sine2 = x * x + y * y + z * z;
    if (c < 0.0 && sine2 < 1e-24) {
        const Vec3f a = anyPerpendicular(from);  // R = 2 a a^T - I
        return {{2 * a.x * a.x - 1, 2 * a.x * a.y, 2 * a.x * a.z},
                {2 * a.y * a.x, 2 * a.y * a.y - 1, 2 * a.y * a.z},
                {2 * a.z * a.x, 2 * a.z * a.y, 2 * a.z * a.z - 1}};
    }
    const double k = c < 0.0 ? (1.0 - c) / sine2 : 1.0 / (1.0 + c);  // equal; the exacter one
    return {{float(c + x * x * k), float(x * y * k - z), float(x * z * k + y)},
            {float(y * x * k + z), float(c + y * y * k), float(y * z * k - x)},
            {float(z * x * k - y), float(z * y * k + x), float(c + z * z * k)}};
}

}  // namespace corvelle
