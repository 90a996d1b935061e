#include "operators/flow.h"

#include <algorithm>
#include <array>

#include "model/flowData.h"
#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/placeStrands.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

void layStrand(std::span<const Vec3f> points, Vec3f normal, Vec3f way, float lift,
               std::span<Vec3f> out) {
    if (points.empty()) return;
    const float numbers[LayJob::kNumbers] = {normal.x, normal.y, normal.z, lift,
                                             way.x,    way.y,    way.z,    0.0f};
    std::copy(points.begin(), points.end(), out.begin());
    placeAcross(LayJob{}, numbers, &out[0].x, points.size());
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
        LaneNumbers<LayJob::kNumbers> numbers;
        const LaneDraws rolls(in, strands, rollBase, rollRandom);
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const float roll = rolls.centered(k);
            const float degrees = lifts[k] > 0.0f ? std::min(lifts[k], 90.0f) : 0.0f;
            const StrandRoot& root = in.roots()[s];
            setNormal(numbers, k, 0, scalp.get(), root, degrees * kRadians);
            if (flow && !points.empty()) {
                const Vec3f normal = rootNormal(scalp.get(), root, firstDirection(points));
                numbers.set(k, 1, flow->at(points[0], normal), roll * kRadians);
            } else {
                numbers.set(k, 1, {}, roll * kRadians);
            }
        }
        placeStrands(laneKernels().lay, LayJob{lanePoints(in, strands, out.points), numbers.data()},
                     in, strands, out.points);
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
