#include "operators/nodeFactories.h"
#include "operators/towardWork.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "direction",
     .defaultValue = Vec3f{0.0f, -1.0f, 0.0f},
     .description = "Comb direction (world space; or an expression giving a vector per strand)",
     .worldDirection = true,
     .vectorExpression = true},
    {.name = "alongSurface",
     .defaultValue = true,
     .description = "Lay the direction onto the scalp's tangent plane at the root"},
    {.name = "strength",
     .defaultValue = 0.9,
     .description = "How far each segment turns toward the direction, 0-1 (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Strength along the length, root to tip"},
};

class Comb final : public StrandOperator {
public:
    std::string type() const override { return "Comb"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Bends strands toward a direction, keeping their length.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        return towardWork(*this, context, strands,
                          {.direction = "direction",
                           .strength = "strength",
                           .profile = ramp("profile"),
                           .surface = boolean("alongSurface") ? context.scalp() : nullptr});
    }
};

}  // namespace

OperatorPtr makeComb() { return std::make_unique<Comb>(); }

}  // namespace corvelle
