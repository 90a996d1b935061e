#include "operators/flow.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/flowData.h"
#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"
#include "operators/transform.h"

namespace corvelle {

namespace {

constexpr float kRadians = std::numbers::pi_v<float> / 180.0f;

/// Unit, from root to tip; zero for a strand of no length.
Vec3f chordDirection(std::span<const Vec3f> points) {
    const Vec3f chord = normalized(points.back() - points.front());
    return chord == Vec3f{} ? firstDirection(points) : chord;
}

/// The turn that lays a unit chord: see layStrand. `heading` is the chord laid onto the surface.
inline Rotation turnToLay(Vec3f chord, Vec3f heading, Vec3f normal, Vec3f way, float lift) {
    // Two frames of the chord, the upright direction beside it and what is square to both. A chord
    // along the normal has no heading: it is tipped the straight way.
    const float sine = std::clamp(dot(chord, normal), -1.0f, 1.0f);
    if (heading == Vec3f{}) heading = way;
    const Vec3f up = normalized(normal * std::sqrt(1.0f - sine * sine) - heading * sine);
    const Vec3f across = cross(chord, up);
    const float cosine = math::cos(lift), rise = math::sin(lift);
    const Vec3f toChord = way * cosine + normal * rise;
    const Vec3f toUp = normal * cosine - way * rise;
    const Vec3f toAcross = cross(toChord, toUp);
    return {chord * toChord.x + up * toUp.x + across * toAcross.x,
            chord * toChord.y + up * toUp.y + across * toAcross.y,
            chord * toChord.z + up * toUp.z + across * toAcross.z};
}

}  // namespace

void layStrand(std::span<const Vec3f> points, Vec3f normal, Vec3f way, float lift,
               std::span<Vec3f> out) {
    if (points.empty()) return;
    const Vec3f chord = chordDirection(points);
    if (chord == Vec3f{})
        std::copy(points.begin(), points.end(), out.begin());
    else
        placeStrand(points, 1.0f, turnToLay(chord, laidOnto(chord, normal), normal, way, lift),
                    points[0], out);
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "lift",
     .defaultValue = 12.0,
     .description = "Angle off the skin at the root, degrees (mappable)",
     .unit = "angle",
     .softMin = 0.0,
     .softMax = 90.0,
     .min = 0.0,
     .max = 90.0},
    {.name = "rollRandom",
     .defaultValue = 6.0,
     .description = "Up to this many degrees of random turn of each strand around the scalp's "
                    "normal, off the flow",
     .unit = "angle",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 45.0,
     .min = 0.0,
     .max = 45.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

class FlowWork final : public StrandWork {
public:
    FieldPtr lift;
    float rollRandom = 0.0f;  // degrees
    std::uint64_t rollBase = 0;
    std::shared_ptr<const FlowField> flow;  ///< null: none
    ScalpPtr scalp;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return lift->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> lifts;
        lift->sampleStrands(in, strands, std::span(lifts).first(strands.size()));
        Placements placements;
        std::array<bool, StrandPick::kBatch> stays;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const Vec3f chord = points.empty() ? Vec3f{} : chordDirection(points);
            placements.set(k, {}, {});
            stays[k] = chord == Vec3f{};
            if (stays[k]) continue;
            const Vec3f normal = rootNormal(scalp.get(), in.roots()[s], firstDirection(points));
            Vec3f way = flow ? flow->at(points[0], normal) : Vec3f{};
            const Vec3f heading = laidOnto(chord, normal);
            if (way == Vec3f{}) way = heading;
            if (way == Vec3f{}) {  // it stands upright, and nothing says where to
                stays[k] = true;
                continue;
            }
            if (rollRandom > 0.0f) {
                const float roll = rollRandom * kRadians * drawSigned(rollBase, in.ids()[s]);
                way = normalized(way * math::cos(roll) + cross(normal, way) * math::sin(roll));
            }
            const float degrees = lifts[k] > 0.0f ? std::min(lifts[k], 90.0f) : 0.0f;
            placements.set(k, turnToLay(chord, heading, normal, way, degrees * kRadians),
                           points[0]);
        }
        placements.apply(in, strands, out.points);
        for (std::size_t k = 0; k < strands.size(); ++k)
            if (stays[k])
                std::ranges::copy(in.pointsOf(strands[k]),
                                  out.points.begin() + std::ptrdiff_t(in.offsets()[strands[k]]));
    }
};

class Flow final : public StrandOperator {
public:
    std::string type() const override { return "Flow"; }
    std::string category() const override { return "grow"; }
    std::string description() const override {
        return "Lays short hair along the flow arrows painted on the scalp.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp | reads::kFlow; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<FlowWork>();
        work->lift = fieldFromParam(*this, "lift", context, strands);
        work->rollRandom = float(number("rollRandom"));
        work->rollBase = drawBase(seed(), "Flow.roll");
        if (context.flow() && !context.flow()->empty())
            work->flow = context.flow();
        else
            warn(
                "no flow arrows: draw some with the Flow tool; strands lie along their own "
                "direction");
        work->scalp = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makeFlow() { return std::make_unique<Flow>(); }

}  // namespace corvelle
