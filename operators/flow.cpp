#include "operators/flow.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/flowData.h"
#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr float kRadians = std::numbers::pi_v<float> / 180.0f;

/// Unit, from root to tip; zero for a strand of no length.
Vec3f chordDirection(std::span<const Vec3f> points) {
    const Vec3f chord = normalized(points.back() - points.front());
    return chord == Vec3f{} ? firstDirection(points) : chord;
}

}  // namespace

void layStrand(std::span<const Vec3f> points, Vec3f normal, Vec3f way, float lift,
               std::span<Vec3f> out) {
    if (points.empty()) return;
    const Vec3f chord = chordDirection(points);
    if (chord == Vec3f{}) {
        std::copy(points.begin(), points.end(), out.begin());
        return;
    }
    // Two frames of the chord, the upright direction beside it and what is square to both. A chord
    // along the normal has no heading: it is tipped the straight way.
    const float sine = std::clamp(dot(chord, normal), -1.0f, 1.0f);
    Vec3f heading = laidOnto(chord, normal);
    if (heading == Vec3f{}) heading = way;
    const Vec3f up = normalized(normal * std::sqrt(1.0f - sine * sine) - heading * sine);
    const Vec3f across = cross(chord, up);
    const Vec3f toChord = way * std::cos(lift) + normal * std::sin(lift);
    const Vec3f toUp = normal * std::cos(lift) - way * std::sin(lift);
    const Vec3f toAcross = cross(toChord, toUp);
    const Vec3f root = points[0];
    out[0] = root;
    for (std::size_t i = 1; i < points.size(); ++i) {
        const Vec3f v = points[i] - root;
        out[i] = root + toChord * dot(chord, v) + toUp * dot(up, v) + toAcross * dot(across, v);
    }
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
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            if (points.empty()) continue;
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
            const Vec3f normal = rootNormal(scalp.get(), in.roots()[s], firstDirection(points));
            Vec3f way = flow ? flow->at(points[0], normal) : Vec3f{};
            if (way == Vec3f{}) way = laidOnto(chordDirection(points), normal);
            if (way == Vec3f{}) {  // it stands upright, and nothing says where to
                std::copy(points.begin(), points.end(), to.begin());
                continue;
            }
            if (rollRandom > 0.0f) {
                const float roll = rollRandom * kRadians * drawSigned(rollBase, in.ids()[s]);
                way = normalized(way * std::cos(roll) + cross(normal, way) * std::sin(roll));
            }
            const float degrees = lifts[k] > 0.0f ? std::min(lifts[k], 90.0f) : 0.0f;
            layStrand(points, normal, way, degrees * kRadians, to);
        }
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
