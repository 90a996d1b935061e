#include <limits>

#include "operators/nodeFactories.h"
#include "operators/towardWork.h"

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

/// What is left of the weight where the strand is as stiff as its profile says: a cubic of mirrored
/// keys is the mirrored cubic.
Ramp givingProfile(const Ramp& stiffness, float scale) {
    std::vector<Ramp::Key> keys = stiffness.keys();
    if (keys.empty()) keys = {{0.0f, 1.0f}};
    for (Ramp::Key& key : keys) key.second = 1.0f - scale * key.second;
    return Ramp(std::move(keys), stiffness.linear());
}

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
        return towardWork(
            *this, context, strands,
            {.direction = "direction",
             .strength = "strength",
             .most = std::numeric_limits<float>::infinity(),
             .profile = givingProfile(ramp("stiffnessProfile"), float(number("stiffness")))});
    }
};

}  // namespace

OperatorPtr makeGravity() { return std::make_unique<Gravity>(); }

}  // namespace corvelle
