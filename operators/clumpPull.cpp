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
        while (points_.data()[at_ + 1].arc <= arc) ++at_;  // stops behind the last
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

StrandPuller::StrandPuller(const ClumpAxes& axes, const PullSettings& settings,
                           std::size_t mostPoints)
    : axes_(axes),
      settings_(settings),
      shares_(mostPoints),
      strengths_(mostPoints),
      volumes_(mostPoints) {}

void StrandPuller::pull(const ClumpMember& member, std::size_t axis, std::span<Vec3f> out) {
    const std::span<const Vec3f> points = member.points;
    const std::size_t n = points.size();
    const std::span<float> shares = std::span(shares_).first(n);
    const std::span<float> pulls = std::span(strengths_).first(n);
    const float length = polylineShares(points, shares);
    const float axisLength = axes_.lengthOf(axis);
    const float perShare = length > axisLength ? length : axisLength;

    settings_.profile.sample(shares, pulls);
    for (std::size_t i = 0; i < n; ++i) {
        const float strength = member.strengths.empty() ? member.strength : member.strengths[i];
        const float pull = strength * pulls[i] * member.clumpStrength;
        pulls[i] = pull > -1.0f ? std::min(pull, 1.0f) : pull <= -1.0f ? -1.0f : 0.0f;
    }
    AxisWalk walk(axes_.pointsOf(axis));
    out[0] = points[0];
    const std::span<float> volumes = std::span(volumes_).first(n);
    settings_.volumizeProfile.sample(shares, volumes);
    const std::span<const ClumpAxes::Frame> frames = axes_.framesOf(axis);
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
            if (settings_.lock)
                target = walk.direction(frames, [&](const ClumpAxes::Frame& f) {
                    return f.x * member.lockX + f.z * member.lockZ;
                });
            offset += (target - offset) * pull;
            if (settings_.flatness > 0.0f) {
                const Vec3f across =
                    walk.direction(frames, [](const ClumpAxes::Frame& f) { return f.across; });
                const float size = lengthSquared(across);
                if (size > 1e-8f)
                    offset -= across * (settings_.flatness * pull * dot(offset, across) / size);
            }
        } else {
            const float d = std::sqrt(lengthSquared(offset));
            const bool pushed = d > kNoDirection && d < settings_.repelRadius;
            if (!pushed && volume == 0.0f) {
                out[i] = points[i];
                continue;
            }
            if (pushed) offset *= 1.0f - pull * (settings_.repelRadius / d - 1.0f);
        }
        out[i] = center + offset * (1.0f + volume);
    }
}

PlainPull::PlainPull(const ClumpAxes& axes, const PullSettings& settings)
    : axes_(axes), profile_(settings.profile) {
    const std::vector<Ramp::Key>& keys = settings.profile.keys();
    const bool pulls =
        std::ranges::all_of(keys, [](const Ramp::Key& key) { return key.second >= 0.0f; });
    // Between two keys the smooth ramp is straight too.
    straight_ = keys.size() == 2 && keys[0].first == 0.0f && keys[1].first == 1.0f;
    fits_ = pulls && profile_.fits() && !settings.lock && !(settings.flatness > 0.0f);
}

void PlainPull::pull(const StrandSet& in, std::span<const std::uint32_t> strands,
                     std::span<const std::uint32_t> axisOf, std::span<const float> strengths,
                     std::span<Vec3f> out, SplineLanes lanes) const {
    const PullJob job{.points = lanePoints(in, strands, out),
                      .axes = axes_.flat(),
                      .axisOffsets = axes_.offsets().data(),
                      .mostAxisPoints = axes_.mostPoints(),
                      .axisOf = axisOf.data(),
                      .strengths = strengths.data(),
                      .profile = profile_.keys(),
                      .straight = straight_};
    LaneScratch scratch;
    for (std::size_t k = 0, end = 0; k < strands.size(); k = end) {
        const std::size_t n = in.pointCountOf(strands[k]);
        while (end < strands.size() && in.pointCountOf(strands[end]) == n) ++end;
        laneKernels(lanes).pull(job, k, end - k, n, scratch.of(pullScratchPoints(job, n)));
    }
}

}  // namespace corvelle
