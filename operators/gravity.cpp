#include <algorithm>
#include <array>

#include "operators/nodeFactories.h"
#include "operators/segmentTurn.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "direction",
     .defaultValue = Vec3f{0.0f, -1.0f, 0.0f},
     .description =
         "Gravity's direction (world space; or an expression giving a vector per strand)",
     .worldDirection = true,
     .vectorExpression = true},
    {.name = "stiffness",
     .defaultValue = 1.0,
     .description = "Bend stiffness: how much strands resist bending, 0-1, times stiffnessProfile "
                    "(1 there: not at all)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "stiffnessProfile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 0.0f}}),
     .description = "Stiffness along the length, root to tip (1 at the root: strands leave the "
                    "scalp in their own direction)"},
    {.name = "strength",
     .defaultValue = 0.5,
     .description = "How far strands bend under their weight (mappable): 0 none, 1 hanging, more "
                    "heavier",
     .softMin = 0.0,
     .softMax = 2.0,
     .min = 0.0},
};

/// What is left of the weight where the strand is as stiff as its profile says.
Ramp givingProfile(const Ramp& stiffness, float scale) {
    std::vector<Ramp::Key> keys = stiffness.keys();
    if (keys.empty()) keys = {{0.0f, 1.0f}};
    for (Ramp::Key& key : keys) key.second = 1.0f - scale * key.second;
    return Ramp(std::move(keys), stiffness.linear());
}

class GravityWork final : public StrandWork {
public:
    std::shared_ptr<const VectorField> direction;
    FieldPtr strength;
    Ramp giving;    ///< 1 - stiffness * profile: a cubic of mirrored keys is the mirrored cubic
    LaneRamp keys;  ///< the same again

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return strength->readsWholeSet() || direction->readsWholeSet();
    }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        std::array<Vec3f, StrandPick::kBatch> directions;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        direction->sampleStrands(in, strands, std::span(directions).first(strands.size()));
        std::size_t most = 0;
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> scratch(most);
        Toward toward;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            strengths[k] = std::max(strengths[k], 0.0f);
            toward.set(k, directions[k], strengths[k]);
        }
        turnStrands(in, strands, toward, &keys, false, out.points, [&](std::size_t k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::span<float> shares = std::span(scratch).first(points.size());
            segmentShares(points, giving, strengths[k], shares);
            turnSegments(points, directions[k], shares,
                         out.points.subspan(in.offsets()[s], points.size()));
        });
    }
};

class Gravity final : public StrandOperator {
public:
    std::string type() const override { return "Gravity"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Bends strands from the root under their weight; stiff at the root (a Collide after "
               "it keeps them off the scalp).";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<GravityWork>();
        work->direction = vectorFromParam(*this, "direction", context, strands);
        work->strength = fieldFromParam(*this, "strength", context, strands);
        work->giving = givingProfile(ramp("stiffnessProfile"), float(number("stiffness")));
        work->keys = LaneRamp(work->giving);
        if (work->strength->constant().value_or(1.0f) <= 0.0f || work->giving.isConstant(0.0f) ||
            work->direction->constant() == Vec3f{})
            return nullptr;
        return work;
    }
};

}  // namespace

OperatorPtr makeGravity() { return std::make_unique<Gravity>(); }

}  // namespace corvelle
