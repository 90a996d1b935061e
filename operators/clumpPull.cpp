#include "operators/clumpPull.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "model/polyline.h"
#include "model/simd4.h"
#include "operators/splineLanes.h"

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

/// A place on the axis and how it goes on, of four strands: x, y, z and the arc, then the step's x,
/// y, z and 1 / length, each side by side.
void axisLanes(const ClumpAxes::Point* const* at, Float4* place, Float4* step) {
    static_assert(sizeof(ClumpAxes::Point) == 8 * sizeof(float));
    const float* first[4];
    const float* second[4];
    for (int l = 0; l < 4; ++l) {
        first[l] = &at[l]->place.x;
        second[l] = &at[l]->step.x;
    }
    loadAcross(first, place);
    loadAcross(second, step);
}

}  // namespace

StrandPuller::StrandPuller(const ClumpAxes& axes, const PullSettings& settings,
                           std::size_t mostPoints)
    : axes_(axes),
      settings_(settings),
      shares_(mostPoints),
      strengths_(mostPoints),
      volumes_(mostPoints),
      lanes_(kLanes * 5 * mostPoints + kLanes) {
    const std::vector<Ramp::Key>& keys = settings.profile.keys();
    pulls_ = std::ranges::all_of(keys, [](const Ramp::Key& key) { return key.second >= 0.0f; });
    // Between two keys the smooth ramp is straight too.
    line_ = keys.size() == 2 && keys[0].first == 0.0f && keys[1].first == 1.0f;
    if (line_) {
        from_ = keys[0].second;
        by_ = keys[1].second - from_;
    }
}

void StrandPuller::pull(const ClumpMember& member, std::size_t axis, std::span<Vec3f> out) {
    const float strength = member.strength * member.clumpStrength;
    if (!pulls_ || !member.strengths.empty() || !(strength >= 0.0f) || settings_.lock ||
        settings_.flatness > 0.0f || member.volumize != 0.0f)
        return pullOne(member, axis, out);
    if (count_ > 0 && points_ != member.points.size()) pullWaiting();
    points_ = member.points.size();
    waiting_[count_++] = {&member.points[0].x, &out[0].x, strength, axis};
    if (count_ == kLanes) pullWaiting();
}

void StrandPuller::finish() {
    if (count_ > 0) pullWaiting();
}

void StrandPuller::pullWaiting() {
    for (std::size_t l = count_; l < kLanes; ++l) waiting_[l] = waiting_[0];  // fills the lanes up
    count_ = 0;
    const std::size_t n = points_;
    void* aligned = lanes_.data();
    std::size_t room = lanes_.size() * sizeof(float);
    std::align(alignof(Float4), room - kLanes * sizeof(float), aligned, room);
    Float4* const points = static_cast<Float4*>(aligned);
    Float4* const arcs = points + 3 * n;
    Float4* const pulls = arcs + n;

    const float* from[kLanes];
    float* to[kLanes];
    const ClumpAxes::Point* at[kLanes];
    alignas(16) float strength[kLanes], axisLength[kLanes], asked[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        from[l] = waiting_[l].points;
        to[l] = waiting_[l].out;
        at[l] = axes_.pointsOf(waiting_[l].axis).data();
        strength[l] = waiting_[l].strength;
        axisLength[l] = axes_.lengthOf(waiting_[l].axis);
    }
    gatherLanes(from, 3 * n, points);

    const Float4 zero(0.0f), one(1.0f);
    Float4 total = zero;
    arcs[0] = zero;
    for (std::size_t i = 1; i < n; ++i) {
        const Float4 *a = points + 3 * (i - 1), *b = points + 3 * i;
        const Float4 x = b[0] - a[0], y = b[1] - a[1], z = b[2] - a[2];
        total = total + squareRoot(x * x + y * y + z * z);
        arcs[i] = total;
    }
    // A strand of no length, or of none that is a number, goes by its points' numbers.
    const auto measured = (total > zero) & (total < Float4(3e38f));
    const Float4 whole = select(measured, total, Float4(float(n > 1 ? n - 1 : 1)));
    for (std::size_t i = 0; i < n; ++i)
        arcs[i] = select(measured, arcs[i], Float4(float(i))) / whole;
    if (line_) {
        for (std::size_t i = 0; i < n; ++i) pulls[i] = Float4(from_) + Float4(by_) * arcs[i];
    } else {
        float* const flat = reinterpret_cast<float*>(arcs);
        settings_.profile.sample({flat, kLanes * n}, {reinterpret_cast<float*>(pulls), kLanes * n});
    }
    const Float4 strengths = Float4::load(strength), length = Float4::load(axisLength);
    const Float4 perShare = upper(select(measured, total, zero), length);
    for (std::size_t i = 1; i < n; ++i) {
        const Float4 arc = arcs[i] * perShare;
        arc.store(asked);
        for (std::size_t l = 0; l < kLanes; ++l) {
            // Mostly none or two steps, by chance, where strands go on as their axis does.
            const ClumpAxes::Point* point = at[l];
            point += point[1].arc <= asked[l];
            point += point[1].arc <= asked[l];
            while (point[1].arc <= asked[l]) ++point;
            at[l] = point;
        }
        Float4 place[4], step[4];
        axisLanes(at, place, step);
        const Float4 pull = lower(strengths * pulls[i], one), gone = arc - place[3];
        for (int x = 0; x < 3; ++x) {
            const Float4 p = points[3 * i + std::size_t(x)];
            points[3 * i + std::size_t(x)] = p + (place[x] + step[x] * gone - p) * pull;
        }
    }
    scatterLanes(points, 3 * n, to);
}

void StrandPuller::pullOne(const ClumpMember& member, std::size_t axis, std::span<Vec3f> out) {
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

}  // namespace corvelle
