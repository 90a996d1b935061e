#include "operators/segmentTurn.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "model/polyline.h"
#include "operators/deformLanes.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr std::size_t kBlock = 32;

/// From the unit `a` to the unit `b`, which are not opposite.
Vec3f turned(Vec3f a, Vec3f b, float share) {
    const float angle = arcCosine(dot(a, b));
    const float keep = 1.0f - share;
    return normalized(a * (keep * sineRatio(keep * angle)) +
                      b * (share * sineRatio(share * angle)));
}

/// The same for directions that are opposite, or nearly: by way of a direction square to `a`.
Vec3f turnedAround(Vec3f a, Vec3f b, float share) {
    const Vec3f across = b - a * dot(a, b);
    const Vec3f over = length(across) > 1e-4f ? normalized(across) : anyPerpendicular(a);
    return share < 0.5f ? turned(a, over, 2.0f * share) : turned(over, b, 2.0f * share - 1.0f);
}

/// A block of segments, an array a component, as the lanes want them.
struct Segments {
    std::array<float, kBlock> x, y, z, share, cosine;
};

constexpr std::size_t kLanes = 4;

/// Turns them all, `count` a multiple of kLanes; true when none is opposite to `b` and every share
/// is above 0.
bool turnBlock(Segments& s, std::size_t count, Vec3f b) {
    std::int32_t odd = 0;
    const float toward[3] = {b.x, b.y, b.z};
    for (std::size_t i = 0; i < count; ++i) {
        float v[3] = {s.x[i], s.y[i], s.z[i]};
        const float size = lengthAcross(v);
        shortenAcross(v, size);
        s.cosine[i] = turnAcross(v, toward, s.share[i]);
        lengthenAcross(v, size);
        s.x[i] = v[0];
        s.y[i] = v[1];
        s.z[i] = v[2];
        odd += std::int32_t(s.cosine[i] < kOpposite) + std::int32_t(!(s.share[i] > 0.0f));
    }
    return odd == 0;
}

}  // namespace

Vec3f laidOnSurface(Vec3f direction, Vec3f normal) {
    return vec3(laidOnAcross(unitOf(lanes3(direction)), lanes3(normal)));
}

void segmentShares(std::span<const Vec3f> points, const Ramp& profile, float strength,
                   std::span<float> out) {
    polylineShares(points, out);
    for (std::size_t i = points.size(); i-- > 1;) out[i] = 0.5f * (out[i] + out[i - 1]);
    profile.sample(out, out);
    for (float& share : out) share = clampShare(share * strength);
}

void turnSegments(std::span<const Vec3f> points, Vec3f toward, std::span<const float> shares,
                  std::span<Vec3f> out) {
    const std::size_t n = points.size();
    const Vec3f b = normalized(toward);
    if (n == 0) return;
    if (b == Vec3f{} || (shares.size() == 1 && shares[0] <= 0.0f)) {
        std::copy(points.begin(), points.end(), out.begin());
        return;
    }
    out[0] = points[0];
    bool anyTurned = false;
    Segments s;
    for (std::size_t begin = 1; begin < n; begin += kBlock) {
        const std::size_t count = std::min(kBlock, n - begin);
        for (std::size_t i = 0; i < count; ++i) {
            const Vec3f segment = points[begin + i] - points[begin + i - 1];
            s.x[i] = segment.x;
            s.y[i] = segment.y;
            s.z[i] = segment.z;
        }
        if (shares.size() > 1)
            std::copy_n(shares.begin() + std::ptrdiff_t(begin), count, s.share.begin());
        else
            std::fill_n(s.share.begin(), count, shares[0]);
        // Whole lanes: those past the end hold segments of no length.
        const std::size_t lanes = (count + kLanes - 1) / kLanes * kLanes;
        for (std::size_t i = count; i < lanes; ++i) {
            s.x[i] = s.y[i] = s.z[i] = 0.0f;
            s.share[i] = 1.0f;
        }
        if (turnBlock(s, lanes, b)) {
            anyTurned = true;
            Vec3f last = out[begin - 1];
            for (std::size_t i = 0; i < count; ++i)
                out[begin + i] = last += Vec3f{s.x[i], s.y[i], s.z[i]};
            continue;
        }
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t at = begin + i;
            const bool turns = s.share[i] > 0.0f;
            anyTurned = anyTurned || turns;
            if (!anyTurned) {
                out[at] = points[at];
            } else if (!turns || s.cosine[i] < kOpposite) {
                const Vec3f segment = points[at] - points[at - 1];
                const float size = length(segment);
                out[at] = out[at - 1] +
                          (turns ? turnedAround(segment / size, b, s.share[i]) * size : segment);
            } else {
                out[at] = out[at - 1] + Vec3f{s.x[i], s.y[i], s.z[i]};
            }
        }
    }
}

}  // namespace corvelle
