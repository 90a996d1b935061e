#include "operators/comb.h"

#include <algorithm>
#include <array>

#include "operators/nodeFactories.h"
#include "operators/rootFrame.h"
#include "operators/segmentTurn.h"
#include "operators/strandOperator.h"

namespace corvelle {

Vec3f laidOnSurface(Vec3f direction, Vec3f normal) {
    const Vec3f unit = normalized(direction);
    const Vec3f laid = unit - normal * dot(unit, normal);
    // Rounding alone leaves about 1e-7 of a direction along the normal: no way to comb to.
    return length(laid) > 1e-5f ? normalized(laid) : Vec3f{};
}

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

class CombWork final : public StrandWork {
public:
    std::shared_ptr<const VectorField> direction;
    FieldPtr strength;
    Ramp profile;
    LaneRamp keys;     ///< the profile again
    ScalpPtr surface;  ///< to lay the direction on; null: as it is

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
        const bool flat = profile.isConstant(1.0f);
        std::size_t most = 0;
        if (!flat)
            for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> scratch(most);
        Toward toward;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            strengths[k] = clampShare(strengths[k]);
            directions[k] =
                laidOnSurface(directions[k], scalpNormal(surface.get(), in.roots()[strands[k]]));
            toward.set(k, directions[k], strengths[k]);
        }
        turnStrands(
            in, strands, toward, flat ? nullptr : &keys, false, out.points, [&](std::size_t k) {
                const std::size_t s = strands[k];
                const auto points = in.pointsOf(s);
                const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
                if (flat)
                    return turnSegments(points, directions[k], std::span(&strengths[k], 1), to);
                const std::span<float> shares = std::span(scratch).first(points.size());
                segmentShares(points, profile, strengths[k], shares);
                turnSegments(points, directions[k], shares, to);
            });
    }
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
        auto work = std::make_unique<CombWork>();
        work->direction = vectorFromParam(*this, "direction", context, strands);
        work->strength = fieldFromParam(*this, "strength", context, strands);
        work->profile = ramp("profile");
        work->keys = LaneRamp(work->profile);
        if (work->strength->constant().value_or(1.0f) <= 0.0f || work->profile.isConstant(0.0f) ||
            work->direction->constant() == Vec3f{})
            return nullptr;
        if (boolean("alongSurface")) work->surface = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makeComb() { return std::make_unique<Comb>(); }

}  // namespace corvelle
