#include "operators/flyaway.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/hash.h"
#include "model/polyline.h"
#include "operators/nodeFactories.h"
#include "operators/rootFrame.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr float kPi = std::numbers::pi_v<float>;

Vec3f placeAt(std::span<const Vec3f> points, std::span<const float> shares, float share) {
    std::size_t i = 1;
    while (i + 1 < points.size() && shares[i] < share) ++i;
    const float span = shares[i] - shares[i - 1];
    const float along = span > 0.0f ? (share - shares[i - 1]) / span : 0.0f;
    return mix(points[i - 1], points[i], std::clamp(along, 0.0f, 1.0f));
}

}  // namespace

void strayStrand(std::span<const Vec3f> points, std::span<const float> shares, float length,
                 const StraySettings& settings, std::span<Vec3f> out) {
    std::copy(points.begin(), points.end(), out.begin());
    const Vec3f first = firstDirection(points);
    if (first == Vec3f{}) return;
    const float rest = 1.0f - settings.start;
    const Vec3f root = points[0], from = placeAt(points, shares, settings.start);
    Vec3f heading = normalized(points.back() - from);
    if (heading == Vec3f{}) heading = first;
    const Vec3f sideX = anyPerpendicular(heading), sideY = cross(heading, sideX);
    const float growth = settings.lengthen / rest;
    for (std::size_t i = 1; i < points.size(); ++i) {
        if (!(shares[i] > settings.start)) continue;
        const float past = shares[i] - settings.start;
        const float x = past / rest, x2 = x * x;
        const Vec3f grown = points[i] + (points[i] - from) * growth;
        const Vec3f straight = root + first * (length * (shares[i] + past * growth));
        const float angle = settings.angle + settings.arcs * kPi * past;
        const Vec3f side = sideX * math::cos(angle) + sideY * math::sin(angle);
        out[i] = mix(grown, straight, settings.standOut * x2) + side * (settings.stray * x2);
    }
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "fraction",
     .defaultValue = 0.03,
     .description = "Fraction of strands that stray (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "stray",
     .defaultValue = 0.75,
     .description = "How far strays wander from the flow at the tip, scene units (mappable)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 3.0,
     .min = 0.0},
    {.name = "frequency",
     .defaultValue = 1.5,
     .description = "Arcs per strand length",
     .softMin = 0.0,
     .softMax = 5.0,
     .min = 0.0},
    {.name = "start",
     .defaultValue = 0.25,
     .description = "Where along the length strays leave the flow, 0 root to 1 tip",
     .softMin = 0.0,
     .softMax = 0.99,
     .min = 0.0,
     .max = 0.99},
    {.name = "standOut",
     .defaultValue = 0.5,
     .description = "How much strays stand out along their root direction, 0-1",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "lengthen",
     .defaultValue = 0.0,
     .description = "Extra length of strays, a fraction of their length (up to)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

class FlyawayWork final : public StrandWork {
public:
    FieldPtr fraction, stray;
    StraySettings settings;  ///< with the most that a strand may lengthen
    std::uint64_t fractionBase = 0, angleBase = 0, lengthenBase = 0;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return fraction->readsWholeSet() || stray->readsWholeSet();
    }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> fractions, strays;
        fraction->sampleStrands(in, strands, std::span(fractions).first(strands.size()));
        stray->sampleStrands(in, strands, std::span(strays).first(strands.size()));
        std::vector<float> shares;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const std::uint64_t id = in.ids()[s];
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
            if (points.size() < 2 || !(draw(fractionBase, id) < fractions[k])) {
                std::copy(points.begin(), points.end(), to.begin());
                continue;
            }
            shares.resize(points.size());
            const float length = polylineShares(points, shares);
            StraySettings own = settings;
            own.stray = strays[k] > 0.0f ? strays[k] : 0.0f;
            own.lengthen *= draw(lengthenBase, id);
            own.angle = 2.0f * kPi * draw(angleBase, id);
            strayStrand(points, shares, length, own, to);
        }
    }
};

class Flyaway final : public StrandOperator {
public:
    std::string type() const override { return "Flyaway"; }
    std::string category() const override { return "look"; }
    std::string description() const override {
        return "Stray hairs leaving the flow. After Clump.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<FlyawayWork>();
        work->fraction = fieldFromParam(*this, "fraction", context, strands);
        work->stray = fieldFromParam(*this, "stray", context, strands);
        work->settings = {.start = float(number("start")),
                          .lengthen = float(number("lengthen")),
                          .standOut = float(number("standOut")),
                          .arcs = float(number("frequency"))};
        const bool moves = work->settings.lengthen > 0.0f || work->settings.standOut > 0.0f ||
                           work->stray->constant().value_or(1.0f) > 0.0f;
        if (!moves || work->fraction->constant().value_or(1.0f) <= 0.0f) return nullptr;
        work->fractionBase = drawBase(seed(), "Flyaway.fraction");
        work->angleBase = drawBase(seed(), "Flyaway.angle");
        work->lengthenBase = drawBase(seed(), "Flyaway.lengthen");
        return work;
    }
};

}  // namespace

OperatorPtr makeFlyaway() { return std::make_unique<Flyaway>(); }

}  // namespace corvelle
