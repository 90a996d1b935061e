#include "operators/direction.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"
#include "operators/transform.h"

namespace corvelle {

Vec3f leanDirection(Vec3f normal, Vec3f rollZero, float inclination, float roll) {
    const Vec3f side = rollZero * math::cos(roll) + cross(normal, rollZero) * math::sin(roll);
    return normalized(normal * math::cos(inclination) + side * math::sin(inclination));
}

Rotation shareOfTurn(Vec3f first, Vec3f target, float share) {
    if (share == 1.0f) return Rotation::shortest(first, target);  // without any trigonometry
    const ShortestArc arc = shortestArc(first, target);
    return Rotation::about(arc.axis, arc.angle * share);
}

namespace {

constexpr float kRadians = std::numbers::pi_v<float> / 180.0f;

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
    Vec3f direction;
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
        Placements placements;
        std::array<bool, StrandPick::kBatch> stays;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const Vec3f first = firstDirection(points);
            const float share = std::clamp(strengths[k], 0.0f, 1.0f);
            stays[k] = first == Vec3f{} || share == 0.0f;
            if (stays[k]) {
                placements.set(k, {}, {});  // of no use, yet a number
                continue;
            }
            const std::uint64_t id = in.ids()[s];
            const float lean = std::clamp(inclinations[k], 0.0f, 90.0f) +
                               inclinationRandom * drawSigned(inclinationBase, id);
            const float around =
                std::clamp(rolls[k], -180.0f, 180.0f) + rollRandom * drawSigned(rollBase, id);
            const Vec3f normal = rootNormal(scalp.get(), in.roots()[s], first);
            const Vec3f target =
                leanDirection(normal, rollZero(in.roots()[s], normal, first),
                              std::clamp(lean, 0.0f, 90.0f) * kRadians, around * kRadians);
            placements.set(k, shareOfTurn(first, target, share), points[0]);
        }
        placements.apply(in, strands, out.points);
        for (std::size_t k = 0; k < strands.size(); ++k)
            if (stays[k])
                std::ranges::copy(in.pointsOf(strands[k]),
                                  out.points.begin() + std::ptrdiff_t(in.offsets()[strands[k]]));
    }

private:
    /// Where roll 0 points: the root frame's own x where the direction says nothing.
    Vec3f rollZero(const StrandRoot& root, Vec3f normal, Vec3f first) const {
        if (alongTangent)
            if (const Vec3f tangent = rootTangent(scalp.get(), root); !(tangent == Vec3f{}))
                return tangent;
        const Vec3f laid = laidOnto(direction, normal);
        return laid == Vec3f{} ? rootFrame(scalp.get(), root, first).x : laid;
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
        work->direction = vec3("direction");
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
