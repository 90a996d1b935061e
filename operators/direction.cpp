#include <algorithm>
#include <array>

#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/placeStrands.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "inclination",
     .defaultValue = 45.0,
     .description = "Degrees from the scalp's normal at the root: 0 straight out, 90 flat along "
                    "the scalp (mappable)",
     .unit = "angle",
     .softMin = 0.0,
     .softMax = 90.0,
     .min = 0.0,
     .max = 90.0},
    {.name = "roll",
     .defaultValue = 0.0,
     .description = "Degrees around the normal from where roll 0 points (along) (mappable)",
     .unit = "angle",
     .softMin = -180.0,
     .softMax = 180.0,
     .min = -180.0,
     .max = 180.0},
    {.name = "strength",
     .defaultValue = 1.0,
     .description =
         "How far each strand turns to its direction, 0-1: that share of the turn (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "along",
     .defaultValue = std::string("tangent"),
     .description = "Where roll 0 points: tangent: the scalp's U direction (its UVs; without them "
                    "the direction "
                    "below); direction: the direction below, laid onto the scalp",
     .choices = {"tangent", "direction"}},
    {.name = "direction",
     .defaultValue = Vec3f{0.0f, -1.0f, 0.0f},
     .description = "Where roll 0 points (world space), laid onto the scalp at each root",
     .worldDirection = true},
    {.name = "inclinationRandom",
     .defaultValue = 0.0,
     .description = "Up to this many degrees more or less inclination per strand",
     .unit = "angle",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 45.0,
     .min = 0.0,
     .max = 45.0},
    {.name = "rollRandom",
     .defaultValue = 0.0,
     .description = "Up to this many degrees more or less roll per strand",
     .unit = "angle",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 180.0,
     .min = 0.0,
     .max = 180.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

class DirectionWork final : public StrandWork {
public:
    FieldPtr inclination, roll, strength;
    bool alongTangent = true;
    Vec3f direction;                                    // unit or zero
    float inclinationRandom = 0.0f, rollRandom = 0.0f;  // degrees
    std::uint64_t inclinationBase = 0, rollBase = 0;
    ScalpPtr scalp;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return inclination->readsWholeSet() || roll->readsWholeSet() || strength->readsWholeSet();
    }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> inclinations, rolls, strengths;
        inclination->sampleStrands(in, strands, std::span(inclinations).first(strands.size()));
        roll->sampleStrands(in, strands, std::span(rolls).first(strands.size()));
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        LaneNumbers<LeanJob::kNumbers> numbers;
        const LaneDraws leanDraws(in, strands, inclinationBase, inclinationRandom);
        const LaneDraws rollDraws(in, strands, rollBase, rollRandom);
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const float lean = std::clamp(inclinations[k], 0.0f, 90.0f) + leanDraws.centered(k);
            const float around = std::clamp(rolls[k], -180.0f, 180.0f) + rollDraws.centered(k);
            const StrandRoot& root = in.roots()[s];
            setNormal(numbers, k, 0, scalp.get(), root, std::clamp(lean, 0.0f, 90.0f) * kRadians);
            setTangent(numbers, k, 1, readsTangent(numbers.at(k)) ? scalp.get() : nullptr, root,
                       turnRadians(around));
            numbers.set(k, 2, {clampShare(strengths[k]), 0.0f, 0.0f}, 0.0f);
        }
        placeStrands(laneKernels().lean,
                     LeanJob{lanePoints(in, strands, out.points),
                             numbers.data(),
                             {direction.x, direction.y, direction.z},
                             alongTangent},
                     in, strands, out.points);
    }

private:
    /// First of all, or where the direction says nothing along the surface.
    bool readsTangent(const float* normal) const {
        if (alongTangent) return true;
        return lengthSquared(cross({normal[0], normal[1], normal[2]}, direction)) < 1e-6f;
    }
};

class Direction final : public StrandOperator {
public:
    std::string type() const override { return "Direction"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Points strands by inclination from the scalp and roll around its normal, at the "
               "root.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<DirectionWork>();
        work->alongTangent = choice("along") == "tangent";
        work->strength = fieldFromParam(*this, "strength", context, strands);
        if (work->strength->constant() == 0.0f) return nullptr;
        work->inclination = fieldFromParam(*this, "inclination", context, strands);
        work->roll = fieldFromParam(*this, "roll", context, strands);
        work->direction = normalized(vec3("direction"));
        work->inclinationRandom = float(number("inclinationRandom"));
        work->rollRandom = float(number("rollRandom"));
        work->inclinationBase = drawBase(seed(), "Direction.inclination");
        work->rollBase = drawBase(seed(), "Direction.roll");
        work->scalp = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makeDirection() { return std::make_unique<Direction>(); }

}  // namespace corvelle
