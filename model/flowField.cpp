#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/flowData.h"
#include "model/hash.h"
#include "model/pointIndex.h"

namespace corvelle {
namespace {

constexpr std::size_t kPins = 6;       ///< pins that share a place
constexpr float kLeastFar = 1e-12f;    ///< cm^2
constexpr float kSoft = 0.25f;         ///< of the farthest pin's squared distance
constexpr float kLeastBeside = 1e-6f;  ///< of a pin's direction, beside the normal
constexpr float kLeastSum = 1e-12f;
constexpr float kFull = 0.35f;       ///< of a sink's radius: its whole weight up to there
constexpr float kDiagonal = 1.415f;  ///< of a square: as far along the normal as beside it
constexpr float kCenter = 1e-6f;     ///< of a sink's radius: no direction nearer than that

/// `v` made unit, zero when it is no longer than `least`.
Vec3f unitOr0(Vec3f v, float least) {
    const float l = length(v);
    return l > least ? v / l : Vec3f{};
}

class ScalpFlow final : public FlowField {
public:
    ScalpFlow(const FlowData& data, const ScalpPtr& scalp) {
        hash_ = hashCombine(hashOf("flow"), scalp ? scalp->contentHash() : 0);
        const auto place = [&](const StrandRoot& at, Vec3f& position) {
            hash_ = hashCombine(hashCombine(hashCombine(hash_, at.triangle), at.u), at.v);
            if (!scalp || !scalp->validRoot(at)) return false;
            position = scalp->surfacePoint(at);
            return isFinite(position);
        };
        std::vector<Vec3f> pinPlaces, sinkPlaces;
        Vec3f position;
        for (const FlowPin& pin : data.pins) {
            const bool lies = place(pin.at, position);
            hash_ = hashCombine(hashCombine(hash_, pin.d0), pin.d1);
            const Vec3f direction = lies ? flowPinDirection(*scalp, pin) : Vec3f{};
            if (direction == Vec3f{}) continue;
            pinPlaces.push_back(position);
            directions_.push_back(direction);
        }
        hash_ = hashCombine(hash_, std::uint64_t(data.pins.size()));
        for (const FlowSink& sink : data.sinks) {
            const bool lies = place(sink.at, position);
            hash_ = hashCombine(hashCombine(hash_, sink.angle), sink.radius);
            if (!lies || !(sink.radius > 0.0f)) continue;
            const float angle = sink.angle * (std::numbers::pi_v<float> / 180.0f);
            sinkPlaces.push_back(position);
            sinks_.push_back({position, sink.radius, math::cos(angle), math::sin(angle)});
            reach_ = std::max(reach_, sink.radius);
        }
        pinIndex_ = PointIndex(pinPlaces);
        sinkIndex_ = PointIndex(sinkPlaces);
    }

    bool empty() const override { return directions_.empty() && sinks_.empty(); }
    std::uint64_t hash() const override { return hash_; }

    Vec3f at(Vec3f position, Vec3f normal) const override {
        Vec3f turned;
        float weights = 0.0f;
        if (!sinks_.empty())
            sinkIndex_.forEachWithin(position, kDiagonal * reach_, [&](std::uint32_t s, float) {
                addSink(sinks_[s], position, normal, turned, weights);
            });
        const float rest = 1.0f - std::min(weights, 1.0f);
        const Vec3f sum = rest > 0.0f ? turned + ofPins(position, normal) * rest : turned;
        return unitOr0(sum, kLeastSum);
    }

private:
    struct Sink {
        Vec3f center;
        float radius, cosine, sine;
    };

    Vec3f ofPins(Vec3f position, Vec3f normal) const {
        std::array<Neighbor, kPins> near;
        const std::size_t found = pinIndex_.nearest(position, near);
        if (found == 0) return {};
        const float far = std::max(near[found - 1].distanceSquared, kLeastFar);
        Vec3f sum;
        for (std::size_t i = 0; i < found; ++i) {
            const Vec3f direction = directions_[near[i].index];
            const Vec3f beside = unitOr0(direction - normal * dot(direction, normal), kLeastBeside);
            const float weight = far / (kSoft * far + near[i].distanceSquared);
            sum += beside * (weight * weight);
        }
        return unitOr0(sum, kLeastSum);
    }

    static void addSink(const Sink& sink, Vec3f position, Vec3f normal, Vec3f& sum,
                        float& weights) {
        const Vec3f d = position - sink.center;
        const float above = dot(d, normal);
        if (!(std::abs(above) < sink.radius)) return;  // the other side of a head
        const Vec3f beside = d - normal * above;
        const float r = length(beside);
        if (!(r < sink.radius) || r < sink.radius * kCenter) return;
        const float t = r / sink.radius;
        const float s = t < kFull ? 1.0f : 1.0f - (t - kFull) / (1.0f - kFull);
        const float weight = (3.0f - 2.0f * s) * s * s;
        const Vec3f away = beside / r;
        sum += (away * sink.cosine + cross(normal, away) * sink.sine) * weight;
        weights += weight;
    }

    std::vector<Vec3f> directions_;  ///< of the pins, unit
    std::vector<Sink> sinks_;
    PointIndex pinIndex_, sinkIndex_;
    float reach_ = 0.0f;  ///< the largest radius
    std::uint64_t hash_ = 0;
};

}  // namespace

std::shared_ptr<const FlowField> flowFieldOn(const FlowData& data, const ScalpPtr& scalp) {
    return std::make_shared<const ScalpFlow>(data, scalp);
}

}  // namespace corvelle
