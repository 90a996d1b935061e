#include "model/polyline.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <string>

#include "model/simd4.h"

namespace corvelle {

namespace {

void requireSize(const char* what, std::size_t given, std::size_t wanted) {
    if (given == wanted) return;
    throw std::invalid_argument(std::string(what) + ": out has " + std::to_string(given) +
                                " elements, give " + std::to_string(wanted));
}

Vec3f atIndex(std::span<const Vec3f> points, double position) {
    const std::size_t last = points.size() - 1;
    const std::size_t i = std::min(std::size_t(position), last);
    return i == last ? points[last] : mix(points[i], points[i + 1], float(position - double(i)));
}

}  // namespace

float polylineLength(std::span<const Vec3f> points) {
    float sum = 0.0f;
    for (std::size_t i = 1; i < points.size(); ++i) sum += distance(points[i - 1], points[i]);
    return sum;
}

void polylineLengths(std::span<const Vec3f> points, std::span<float> out) {
    requireSize("polylineLengths", out.size(), points.size());
    if (points.empty()) return;
    // The roots side by side first, then the sums, which wait for one another.
    std::size_t next = 1;
    for (; next + 4 <= points.size(); next += 4) {
        const float* const from = &points[next - 1].x;
        Float4 squares[3], x, y, z;
        for (int k = 0; k < 3; ++k) {
            const Float4 along =
                Float4::loadUnaligned(from + 4 * k) - Float4::loadUnaligned(from + 4 * k + 3);
            squares[k] = along * along;
        }
        splitTriples(squares, x, y, z);
        squareRoot(x + y + z).storeUnaligned(&out[next]);
    }
    for (; next < points.size(); ++next) out[next] = distance(points[next - 1], points[next]);
    out[0] = 0.0f;
    float sum = 0.0f;
    for (float& length : out) length = sum += length;
}

float polylineShares(std::span<const Vec3f> points, std::span<float> out) {
    polylineLengths(points, out);
    if (points.empty()) return 0.0f;
    const float total = out.back();
    const std::size_t last = points.size() - 1;
    if (total > 0.0f && std::isfinite(total)) {
        for (float& share : out) share /= total;
    } else {
        for (std::size_t i = 1; i <= last; ++i) out[i] = float(i) / float(last);
        out[0] = 0.0f;
    }
    return total;
}

void resamplePolyline(std::span<const Vec3f> points, std::span<Vec3f> out, float fraction) {
    if (out.empty()) return;
    if (points.empty())
        throw std::invalid_argument("resamplePolyline: points is empty, give at least one");
    const double share = fraction > 0.0f ? std::min(double(fraction), 1.0) : 0.0;
    const std::size_t last = points.size() - 1, steps = out.size() - 1;
    constexpr std::size_t kKnown = 64;  // lengths that are not worked out twice
    std::array<float, kKnown> lengths;
    double total = 0.0;
    for (std::size_t i = 1; i <= last; ++i) {
        const float length = distance(points[i - 1], points[i]);
        if (i < kKnown) lengths[i] = length;
        total += length;
    }
    const auto lengthOf = [&](std::size_t i) {
        return i < kKnown ? lengths[i] : distance(points[i - 1], points[i]);
    };

    out[0] = points[0];
    if (!(total > 0.0) || !std::isfinite(total)) {
        for (std::size_t j = 1; j <= steps; ++j)
            out[j] = atIndex(points, share * double(last) * (double(j) / double(steps)));
    } else {
        std::size_t i = 1;  // the segment from i - 1 to i
        double before = 0.0, segment = lengthOf(1);
        for (std::size_t j = 1; j <= steps; ++j) {
            const double target = total * share * (double(j) / double(steps));
            while (i < last && before + segment < target) {
                before += segment;
                ++i;
                segment = lengthOf(i);
            }
            const double t =
                segment > 0.0 ? std::clamp((target - before) / segment, 0.0, 1.0) : 1.0;
            out[j] = mix(points[i - 1], points[i], float(t));
        }
    }
    if (steps > 0 && share == 1.0) out[steps] = points[last];
}

void catmullRom(std::span<const Vec3f> points, int samplesPerSpan, std::span<Vec3f> out) {
    if (samplesPerSpan < 1)
        throw std::invalid_argument("catmullRom: samplesPerSpan is " +
                                    std::to_string(samplesPerSpan) + ", give 1 or more");
    const std::size_t n = points.size(), samples = std::size_t(samplesPerSpan);
    requireSize("catmullRom", out.size(), n == 0 ? 0 : (n - 1) * samples + 1);
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const Vec3f p1 = points[i], p2 = points[i + 1];
        Vec3f* const span = out.data() + i * samples;
        span[0] = p1;
        const float d12 = std::sqrt(distance(p1, p2));  // knots: the root of the chord
        if (n < 3 || !(d12 > 0.0f)) {
            for (std::size_t k = 1; k < samples; ++k)
                span[k] = mix(p1, p2, float(k) / float(samples));
            continue;
        }
        const Vec3f p0 = i > 0 ? points[i - 1] : p1 + (p1 - p2);
        const Vec3f p3 = i + 2 < n ? points[i + 2] : p2 + (p2 - p1);
        float d01 = std::sqrt(distance(p0, p1)), d23 = std::sqrt(distance(p2, p3));
        if (!(d01 > 0.0f)) d01 = d12;  // a doubled point
        if (!(d23 > 0.0f)) d23 = d12;
        const Vec3f m1 = ((p1 - p0) / d01 - (p2 - p0) / (d01 + d12) + (p2 - p1) / d12) * d12;
        const Vec3f m2 = ((p2 - p1) / d12 - (p3 - p1) / (d12 + d23) + (p3 - p2) / d23) * d12;
        for (std::size_t k = 1; k < samples; ++k) {
            const float t = float(k) / float(samples), t2 = t * t, t3 = t2 * t;
            span[k] = p1 * (2 * t3 - 3 * t2 + 1) + m1 * (t3 - 2 * t2 + t) + p2 * (3 * t2 - 2 * t3) +
                      m2 * (t3 - t2);
        }
    }
    if (n > 0) out[out.size() - 1] = points[n - 1];
}

}  // namespace corvelle
