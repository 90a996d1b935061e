#include <algorithm>
#include <array>

#include "model/polyline.h"
#include "operators/laneRuns.h"
#include "operators/nodeFactories.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "along",
     .defaultValue = std::string("normal"),
     .description = "normal: along the scalp's normal at the root; direction: along `direction`",
     .choices = {"normal", "direction"}},
    {.name = "direction",
     .defaultValue = Vec3f{0.0f, 1.0f, 0.0f},
     .description = "The way strands move (world space; unrooted strands too; or an expression "
                    "giving a vector per strand)",
     .worldDirection = true,
     .vectorExpression = true},
    {.name = "distance",
     .defaultValue = 0.2,
     .description = "How far each point moves, scene units (mappable, per point; negative: the "
                    "other way)",
     .unit = "length",
     .softMin = -2.0,
     .softMax = 2.0},
    // From 0 at the root, which stays: a flat profile would tear the strand off it.
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 0.0f}, {0.3f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Distance along the length, root to tip"},
};

class DisplaceWork final : public StrandWork {
public:
    std::shared_ptr<const VectorField> direction;
    FieldPtr distance;
    Ramp profile;
    LaneRamp keys;   ///< the profile again
    ScalpPtr scalp;  ///< whose normals rooted strands move along; null: all along the direction

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return distance->readsWholeSet() || direction->readsWholeSet();
    }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<Vec3f, StrandPick::kBatch> directions;
        std::array<float, StrandPick::kBatch> perStrand;
        std::array<std::size_t, StrandPick::kBatch> starts;
        const std::size_t total = batchOffsets(in, strands, starts);
        const bool perPoint = distance->perPoint();
        std::size_t most = 0;
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> distances(perPoint ? total : 0), scratch(most);
        direction->sampleStrands(in, strands, std::span(directions).first(strands.size()));
        if (perPoint)
            distance->samplePoints(in, strands, distances);
        else
            distance->sampleStrands(in, strands, std::span(perStrand).first(strands.size()));
        const auto wayOf = [&](std::size_t k) {
            const Vec3f normal = scalpNormal(scalp.get(), in.roots()[strands[k]]);
            return normal == Vec3f{} ? normalized(directions[k]) : normal;
        };
        const auto single = [&](std::size_t k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::size_t n = points.size();
            if (n == 0) return;
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], n);
            const std::span<float> amounts = std::span(scratch).first(n);
            const Vec3f way = wayOf(k);
            polylineShares(points, amounts);
            profile.sample(amounts, amounts);
            to[0] = points[0];
            if (perPoint) {
                const float* own = distances.data() + starts[k];
                for (std::size_t i = 1; i < n; ++i) to[i] = points[i] + way * (amounts[i] * own[i]);
            } else {
                const Vec3f step = way * perStrand[k];
                for (std::size_t i = 1; i < n; ++i) to[i] = points[i] + step * amounts[i];
            }
        };
        if (perPoint || !keys.fits()) {
            for (std::size_t k = 0; k < strands.size(); ++k) single(k);
            return;
        }
        std::array<float, 4 * StrandPick::kBatch> steps;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const Vec3f step = wayOf(k) * perStrand[k];
            std::ranges::copy(std::array{step.x, step.y, step.z, 0.0f}, &steps[4 * k]);
        }
        const StepJob job{lanePoints(in, strands, out.points), steps.data(), keys.keys()};
        deformStrands(laneKernels().step, job, in, strands, single);
    }
};

class Displace final : public StrandOperator {
public:
    std::string type() const override { return "Displace"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Moves strands along the scalp's normal (or a direction): volume off the scalp.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<DisplaceWork>();
        if (choice("along") == "normal") work->scalp = context.scalp();
        work->direction = vectorFromParam(*this, "direction", context, strands);
        work->distance = fieldFromParam(*this, "distance", context, strands);
        work->profile = ramp("profile");
        work->keys = LaneRamp(work->profile);
        if (work->distance->constant() == 0.0f || work->profile.isConstant(0.0f)) return nullptr;
        if (!work->scalp && work->direction->constant() == Vec3f{}) return nullptr;
        return work;
    }
};

}  // namespace

OperatorPtr makeDisplace() { return std::make_unique<Displace>(); }

}  // namespace corvelle
