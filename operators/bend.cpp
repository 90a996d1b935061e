#include "operators/bend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/hash.h"
#include "model/polyline.h"
#include "operators/nodeFactories.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr float kRadians = std::numbers::pi_v<float> / 180.0f;
constexpr float kSharpest =
    1e-5f;  ///< share of the length that a kink takes: above the shares' rounding

/// `v` turned by `angle` (-pi to pi) about a unit axis: Rodrigues' formula, with the sine and
/// cosine of half the angle by their series, to within a float's rounding. A library's would be
/// most of the node's time, a point at a time.
Vec3f turned(Vec3f v, Vec3f axis, float angle) {
    const float h = 0.5f * angle, q = h * h;
    const float sine =
        h * (1.0f +
             q * (-1.0f / 6 +
                  q * (1.0f / 120 + q * (-1.0f / 5040 + q * (1.0f / 362880 - q / 39916800.0f)))));
    const float cosine =
        1.0f +
        q * (-0.5f +
             q * (1.0f / 24 + q * (-1.0f / 720 +
                                   q * (1.0f / 40320 + q * (-1.0f / 3628800 + q / 479001600.0f)))));
    const Vec3f once = cross(axis, v);
    return v + once * (2.0f * sine * cosine) + cross(axis, once) * (2.0f * sine * sine);
}

}  // namespace

Vec3f bendDirection(std::span<const Vec3f> points, std::span<const float> shares, float start) {
    Vec3f direction;
    for (std::size_t i = 1; i < points.size(); ++i) {
        const Vec3f segment = normalized(points[i] - points[i - 1]);
        if (segment == Vec3f{}) continue;
        direction = segment;
        if (shares[i] > start + kSharpest) break;
    }
    return direction;
}

float limitedToScalp(float angle, float toNormal) {
    const float toPlane = std::max(0.5f * std::numbers::pi_v<float> - toNormal, 0.0f);
    return std::clamp(angle, -toPlane, toNormal);
}

void bendStrand(std::span<const Vec3f> points, std::span<const float> shares, BendSpan span,
                Vec3f axis, float angle, std::span<Vec3f> out) {
    const float perShare = 1.0f / std::max(span.end - span.start, kSharpest);
    bool moved = false;
    out[0] = points[0];
    for (std::size_t i = 1; i < points.size(); ++i) {
        const float turn = angle * std::clamp((shares[i] - span.start) * perShare, 0.0f, 1.0f);
        moved = moved || turn != 0.0f;
        out[i] = moved ? out[i - 1] + turned(points[i] - points[i - 1], axis, turn) : points[i];
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
        std::size_t most = 0;
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> scratch(most);
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
            const float degrees = std::clamp(angles[k], -180.0f, 180.0f) *
                                  (1.0f - randomness * draw(base, in.ids()[s]));
            if (degrees == 0.0f || points.size() < 2 ||
                !bend(in.roots()[s], points, degrees * kRadians, scratch, to))
                std::copy(points.begin(), points.end(), to.begin());
        }
    }

private:
    /// False when the strand, or what it should bend toward, has no direction.
    bool bend(const StrandRoot& root, std::span<const Vec3f> points, float turn,
              std::span<float> scratch, std::span<Vec3f> to) const {
        const std::span<float> shares = scratch.first(points.size());
        polylineShares(points, shares);
        const Vec3f from = bendDirection(points, shares, span.start);
        const Vec3f toward = target(root, points);
        if (from == Vec3f{} || toward == Vec3f{}) return false;
        const ShortestArc arc = shortestArc(from, toward);
        bendStrand(points, shares, span, arc.axis,
                   along == Along::Normal ? limitedToScalp(turn, arc.angle) : turn, to);
        return true;
    }
    Vec3f target(const StrandRoot& root, std::span<const Vec3f> points) const {
        if (along == Along::Normal) return rootNormal(scalp.get(), root, firstDirection(points));
        if (along == Along::Tangent)
            if (const Vec3f tangent = rootTangent(scalp.get(), root); !(tangent == Vec3f{}))
                return tangent;
        return direction;
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
