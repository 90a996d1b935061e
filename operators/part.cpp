#include "operators/part.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/polynomialTrig.h"
#include "operators/rootFrame.h"
#include "operators/segmentTurn.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr float kPi = std::numbers::pi_v<float>;

/// A direction in the surface by its shares along two axes.
struct Flat {
    float x = 0.0f, y = 0.0f;
    float length() const { return std::sqrt(x * x + y * y); }
};

/// The angle from the unit `a` to the unit `b`, -pi to pi.
float angleBetween(Flat a, Flat b) {
    const float angle = arcCosine(a.x * b.x + a.y * b.y);
    return a.x * b.y - a.y * b.x < 0.0f ? -angle : angle;
}

}  // namespace

void turnAway(std::span<const Vec3f> points, Vec3f normal, Vec3f away,
              std::span<const float> shares, std::span<Vec3f> out) {
    const std::size_t n = points.size();
    if (n == 0) return;
    const Vec3f side = cross(normal, away);
    const auto flat = [&](Vec3f v) { return Flat{dot(v, away), dot(v, side)}; };
    const Flat chord = flat(points[n - 1] - points[0]);
    const float reach = chord.length();
    // What angles count from: the strand as a whole, or `away` for one that stands upright.
    const Flat whole = reach > 0.0f ? Flat{chord.x / reach, chord.y / reach} : Flat{1.0f, 0.0f};
    const float wholeAngle = angleBetween({1.0f, 0.0f}, whole);
    out[0] = points[0];
    bool moved = false;
    for (std::size_t i = 1; i < n; ++i) {
        const Vec3f segment = points[i] - points[i - 1];
        const Flat own = flat(segment);
        const float size = own.length();
        if (!(shares[i] > 0.0f) || !(size > 0.0f)) {
            out[i] = moved ? out[i - 1] + segment : points[i];
            continue;
        }
        moved = true;
        const float angle = wholeAngle + angleBetween(whole, {own.x / size, own.y / size});
        float left = (1.0f - shares[i]) * angle;
        if (left > kPi) left -= 2.0f * kPi;
        if (left < -kPi) left += 2.0f * kPi;
        out[i] = out[i - 1] + normal * dot(segment, normal) + away * (size * cosineOf(left)) +
                 side * (size * sineOf(left));
    }
}

namespace {

constexpr std::uint64_t kSide = hashOf("Part.side");

const std::vector<ParamSpec> kParams = {
    {.name = "width",
     .defaultValue = 1.5,
     .description = "Distance from the part over which strands lean away (scene units)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 5.0,
     .min = 1e-6},
    {.name = "strength",
     .defaultValue = 1.0,
     .description = "How far strands at the part turn away from it, 0-1 (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Turn along the length, root to tip"},
    {.name = "part",
     .defaultValue = std::string(),
     .description = "Only this part (empty: every part)"},
};

class PartWork final : public StrandWork {
public:
    FieldPtr strength;
    Ramp profile;
    float width = 0.0f;
    std::shared_ptr<const PartLines> parts;
    std::int32_t part = -1;  ///< by the parts' number, -1: all
    ScalpPtr scalp;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return strength->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        std::size_t most = 0;
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> scratch(most);
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
            PartPlace place;
            if (points.size() < 2 || !(strengths[k] > 0.0f) ||
                !parts->nearest(points[0], part, width, place)) {
                std::copy(points.begin(), points.end(), to.begin());
                continue;
            }
            const float x = std::min(place.distance / width, 1.0f);
            const float near = 1.0f - x * x * (3.0f - 2.0f * x);
            const Vec3f normal = rootNormal(scalp.get(), in.roots()[s], firstDirection(points));
            const std::span<float> shares = std::span(scratch).first(points.size());
            segmentShares(points, profile, clampShare(strengths[k]) * near, shares);
            turnAway(points, normal, awayFrom(place, points[0], normal, in.ids()[s]), shares, to);
        }
    }

private:
    /// Unit, in the surface. A root on the line itself goes to a side of its own.
    static Vec3f awayFrom(const PartPlace& place, Vec3f root, Vec3f normal, std::uint64_t id) {
        if (const Vec3f away = laidOnto(root - place.position, normal); !(away == Vec3f{}))
            return away;
        Vec3f across = laidOnto(cross(normal, place.along), normal);
        if (across == Vec3f{}) across = anyPerpendicular(normal);
        return hashCombine(kSide, id) & 1u ? across : -across;
    }
};

class Part final : public StrandOperator {
public:
    std::string type() const override { return "Part"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Opens a gap along the parts drawn on the scalp.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp | reads::kParts; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<PartWork>();
        work->parts = context.parts();
        if (!work->parts || work->parts->empty()) {
            warn("no parts drawn: draw some with the Part tool; the strands pass through");
            return nullptr;
        }
        if (const std::string& wanted = text("part"); !wanted.empty()) {
            work->part = work->parts->find(wanted);
            if (work->part < 0) {
                warn("no part named '" + wanted + "'; the strands pass through");
                return nullptr;
            }
        }
        work->strength = fieldFromParam(*this, "strength", context, strands);
        work->profile = ramp("profile");
        if (work->strength->constant().value_or(1.0f) <= 0.0f || work->profile.isConstant(0.0f))
            return nullptr;
        work->width = float(number("width"));
        work->scalp = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makePart() { return std::make_unique<Part>(); }

}  // namespace corvelle
