#include "operators/clumpPull.h"

#include <algorithm>
#include <cmath>

#include "model/polyline.h"

namespace corvelle {

namespace {

constexpr float kNoDirection = 1e-6f;  ///< cm: nearer to the axis there is no way out

/// Follows an axis outward; arcs asked for ascend.
class AxisWalk {
public:
    explicit AxisWalk(std::span<const ClumpAxes::Point> points) : points_(points) {}
    void to(float arc) {
        while (at_ + 1 < points_.size() && points_[at_ + 1].arc <= arc) ++at_;
        arc_ = arc;
    }
    Vec3f place() const { return points_[at_].at(arc_); }
    /// A direction that goes with the points.
    template <class Pick>
    Vec3f direction(std::span<const ClumpAxes::Frame> frames, Pick&& pick) const {
        const Vec3f here = pick(frames[at_]);
        if (at_ + 1 == points_.size()) return here;
        return mix(here, pick(frames[at_ + 1]), (arc_ - points_[at_].arc) * points_[at_].perArc);
    }

private:
    std::span<const ClumpAxes::Point> points_;
    std::size_t at_ = 0;
    float arc_ = 0.0f;
};

}  // namespace

void PullScratch::reserve(std::size_t points) {
    if (shares.size() >= points) return;
    shares.resize(points);
    pulls.resize(points);
    volumes.resize(points);
}

void pullStrand(const ClumpMember& member, const ClumpAxes& axes, std::size_t axis,
                const PullSettings& settings, PullScratch& scratch, std::span<Vec3f> out) {
    const std::span<const Vec3f> points = member.points;
    const std::size_t n = points.size();
    const std::span<float> shares = std::span(scratch.shares).first(n);
    const std::span<float> pulls = std::span(scratch.pulls).first(n);
    const float length = polylineShares(points, shares);
    const float axisLength = axes.lengthOf(axis);
    const float perShare = length > axisLength ? length : axisLength;

    settings.profile.sample(shares, pulls);
    bool pushes = false;
    for (std::size_t i = 0; i < n; ++i) {
        const float strength = member.strengths.empty() ? member.strength : member.strengths[i];
        const float pull = strength * pulls[i] * member.clumpStrength;
        pulls[i] = pull > -1.0f ? std::min(pull, 1.0f) : pull <= -1.0f ? -1.0f : 0.0f;
        pushes = pushes || pulls[i] < 0.0f;
    }
    AxisWalk walk(axes.pointsOf(axis));
    out[0] = points[0];
    if (!pushes && !settings.lock && settings.flatness == 0.0f && member.volumize == 0.0f) {
        for (std::size_t i = 1; i < n; ++i) {
            walk.to(shares[i] * perShare);
            out[i] = points[i] + (walk.place() - points[i]) * pulls[i];
        }
        return;
    }

    const std::span<float> volumes = std::span(scratch.volumes).first(n);
    settings.volumizeProfile.sample(shares, volumes);
    const std::span<const ClumpAxes::Frame> frames = axes.framesOf(axis);
    for (std::size_t i = 1; i < n; ++i) {
        walk.to(shares[i] * perShare);
        const float pull = pulls[i], volume = member.volumize * volumes[i];
        if (pull == 0.0f && volume == 0.0f) {
            out[i] = points[i];
            continue;
        }
        const Vec3f center = walk.place();
        Vec3f offset = points[i] - center;
        if (pull >= 0.0f) {
            Vec3f target;
            if (settings.lock)
                target = walk.direction(frames, [&](const ClumpAxes::Frame& f) {
                    return f.x * member.lockX + f.z * member.lockZ;
                });
            offset += (target - offset) * pull;
            if (settings.flatness > 0.0f) {
                const Vec3f across =
                    walk.direction(frames, [](const ClumpAxes::Frame& f) { return f.across; });
                const float size = lengthSquared(across);
                if (size > 1e-8f)
                    offset -= across * (settings.flatness * pull * dot(offset, across) / size);
            }
        } else {
            const float d = std::sqrt(lengthSquared(offset));
            const bool pushed = d > kNoDirection && d < settings.repelRadius;
            if (!pushed && volume == 0.0f) {
                out[i] = points[i];
                continue;
            }
            if (pushed) offset *= 1.0f - pull * (settings.repelRadius / d - 1.0f);
        }
        out[i] = center + offset * (1.0f + volume);
    }
}

}  // namespace corvelle
