#include "operators/bend.h"

#include <algorithm>
#include <array>

#include "model/hash.h"
#include "model/polyline.h"
#include "operators/deformLanes.h"
#include "operators/laneRuns.h"
#include "operators/nodeFactories.h"
#include "operators/placeStrands.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

Vec3f bendDirection(std::span<const Vec3f> points, std::span<const float> shares, float start) {
    Vec3f direction;
    for (std::size_t i = 1; i < points.size(); ++i) {
        const Vec3f segment = normalized(points[i] - points[i - 1]);
        if (segment == Vec3f{}) continue;
        direction = segment;
        if (shares[i] > start + kSharpestBend) break;
    }
    return direction;
}

float limitedToScalp(float angle, float toNormal) { return limitAcross(angle, toNormal); }

Bending bendToward(Vec3f heading, Vec3f toward, float angle, bool limited) {
    Lanes3<float> axis;
    const float turn = bendTurn(lanes3(heading), lanes3(toward), angle, limited, axis);
    return {vec3(axis), turn};
}

float sharesToTurn(BendSpan span) { return 1.0f / std::max(span.end - span.start, kSharpestBend); }

void bendStrand(std::span<const Vec3f> points, std::span<const float> shares, BendSpan span,
                Vec3f axis, float angle, std::span<Vec3f> out) {
    const float perShare = sharesToTurn(span);
    const float about[3] = {axis.x, axis.y, axis.z};
    bool moved = false;
    out[0] = points[0];
    for (std::size_t i = 1; i < points.size(); ++i) {
        const float turn = angle * std::clamp((shares[i] - span.start) * perShare, 0.0f, 1.0f);
        moved = moved || turn != 0.0f;
        const Vec3f segment = points[i] - points[i - 1];
        float v[3] = {segment.x, segment.y, segment.z};
        bendAcross(v, about, turn);
        out[i] = moved ? out[i - 1] + Vec3f{v[0], v[1], v[2]} : points[i];
    }
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "angle",
     .defaultValue = 30.0,
     .description = "Degrees the strands bend between start and end (mappable); positive toward "
                    "the direction (with "
                    "the normal: away from the scalp), negative away from it (down onto the scalp)",
     .unit = "angle",
     .softMin = -180.0,
     .softMax = 180.0,
     .min = -180.0,
     .max = 180.0},
    {.name = "start",
     .defaultValue = 0.0,
     .description = "Where the bend starts along the length, 0 root to 1 tip",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "end",
     .defaultValue = 1.0,
     .description =
         "Where it ends: the strand turns evenly between start and end and holds its shape past it",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "along",
     .defaultValue = std::string("normal"),
     .description = "normal: the scalp's normal at the root (never past it, nor below the scalp's "
                    "tangent plane); "
                    "tangent: the scalp's U direction (its UVs; without them the direction below); "
                    "direction: the "
                    "direction below",
     .choices = {"normal", "tangent", "direction"}},
    {.name = "direction",
     .defaultValue = Vec3f{1.0f, 0.0f, 0.0f},
     .description = "The way strands bend (world space)",
     .worldDirection = true,
     .showWhen = {{.param = "along", .values = {"tangent", "direction"}}}},
    {.name = "randomness",
     .defaultValue = 0.0,
     .description = "Each strand's angle scaled down by up to this share, at random",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

enum class Along { Normal, Tangent, Direction };

class BendWork final : public StrandWork {
public:
    FieldPtr angle;
    BendSpan span;
    Along along = Along::Normal;
    Vec3f direction;
    float randomness = 0.0f;
    std::uint64_t base = 0;
    ScalpPtr scalp;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return angle->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> angles;
        angle->sampleStrands(in, strands, std::span(angles).first(strands.size()));
        LaneNumbers<4> bends;
        const LaneDraws less(in, strands, base, randomness);
        const bool limited = along == Along::Normal;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const float degrees = std::clamp(angles[k], -180.0f, 180.0f) * (1.0f - less[k]);
            setTarget(bends, k, in.roots()[strands[k]], degrees * kRadians);
        }
        std::vector<float> scratch;
        deformStrands(laneKernels().bend,
                      BendJob{lanePoints(in, strands, out.points), bends.data(), span.start,
                              sharesToTurn(span), limited},
                      in, strands, [&](std::size_t k) {
                          const std::size_t s = strands[k];
                          const auto points = in.pointsOf(s);
                          if (points.empty()) return;
                          scratch.resize(points.size());
                          polylineShares(points, scratch);
                          const float* const b = bends.at(k);
                          Vec3f toward{b[0], b[1], b[2]};
                          if (limited && toward == Vec3f{})
                              toward = rootNormal(nullptr, {}, firstDirection(points));
                          const Bending bend = bendToward(
                              bendDirection(points, scratch, span.start), toward, b[3], limited);
                          bendStrand(points, scratch, span, bend.axis, bend.angle,
                                     out.points.subspan(in.offsets()[s], points.size()));
                      });
    }

private:
    /// Toward where: unit, or zero for a normal that is the strand's own direction.
    void setTarget(LaneNumbers<4>& bends, std::size_t k, const StrandRoot& root, float turn) const {
        if (along == Along::Normal) return setNormal(bends, k, 0, scalp.get(), root, turn);
        if (along == Along::Tangent && scalp)
            if (const Vec3f tangent = rootTangent(scalp.get(), root); !(tangent == Vec3f{}))
                return bends.set(k, 0, tangent, turn);
        bends.set(k, 0, direction, turn);
    }
};

class Bend final : public StrandOperator {
public:
    std::string type() const override { return "Bend"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Bends strands toward or away from the scalp (or a direction) between a start and "
               "an end; start and "
               "end 0 stand them up at the root.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<BendWork>();
        const std::string& word = choice("along");
        work->along = word == "normal"    ? Along::Normal
                      : word == "tangent" ? Along::Tangent
                                          : Along::Direction;
        work->angle = fieldFromParam(*this, "angle", context, strands);
        if (work->angle->constant() == 0.0f) return nullptr;
        work->direction = normalized(vec3("direction"));
        if (work->along == Along::Direction && work->direction == Vec3f{}) return nullptr;
        work->span = {.start = float(number("start")), .end = float(number("end"))};
        work->randomness = float(number("randomness"));
        work->base = drawBase(seed(), "Bend.randomness");
        work->scalp = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makeBend() { return std::make_unique<Bend>(); }

}  // namespace corvelle
