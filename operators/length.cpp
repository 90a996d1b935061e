#include "operators/length.h"

#include <algorithm>
#include <array>

#include "model/hash.h"
#include "model/polyline.h"
#include "operators/laneRuns.h"
#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {
// Hashed once: a strand draws from each.
constexpr std::uint64_t kFraction = hashOf("Length.fraction");
constexpr std::uint64_t kTrim = hashOf("Length.trim");
constexpr std::size_t kScratchPoints = 128;  ///< floats kept on the stack

/// How a strand loses length at random, on top of the share it keeps.
struct TrimSettings {
    float trimMin = 0.0f, trimMax = 0.0f;  ///< loss of the kept length, uniform between; 0 to 1
    std::uint64_t seed = 0;
};
}  // namespace

void trimStrand(std::span<const Vec3f> in, float share, std::span<Vec3f> out) {
    const std::size_t n = in.size();
    if (!(share < 1.0f) || n < 2) {
        std::copy(in.begin(), in.end(), out.begin());
        return;
    }
    // Every point slides back along the strand to `share` of its own arc length. Both walk forward.
    std::array<float, kScratchPoints> onStack;
    std::vector<float> onHeap;
    if (2 * n > onStack.size()) onHeap.resize(2 * n);
    float* const segment = onHeap.empty() ? onStack.data() : onHeap.data();
    float* const arc = segment + n;  // arc length at in[i]
    for (std::size_t i = 1; i < n; ++i) segment[i - 1] = distance(in[i], in[i - 1]);
    arc[0] = 0.0f;
    for (std::size_t i = 1; i < n; ++i) arc[i] = arc[i - 1] + segment[i - 1];
    out[0] = in[0];
    std::size_t k = 0;
    for (std::size_t i = 1; i < n; ++i) {
        const float target = arc[i] * share;
        k += std::size_t((k + 2 < n) &
                         (arc[k + 1] < target));  // nearly always enough, and no branch
        while (k + 2 < n && arc[k + 1] < target) ++k;
        const float along =
            segment[k] > 0.0f ? std::min((target - arc[k]) / segment[k], 1.0f) : 0.0f;
        out[i] = mix(in[k], in[k + 1], along);
    }
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "keep",
     .defaultValue = 1.0,
     .description = "Share of each strand's length kept from the root, 0-1 (mappable; to lengthen, "
                    "Transform's scale)",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "fraction",
     .defaultValue = 1.0,
     .description = "Share of the strands trimmed at random, 0-1 (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "trimMin",
     .defaultValue = 0.0,
     .description = "The least share of its kept length a strand trimmed at random loses, 0-1",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "trimMax",
     .defaultValue = 0.0,
     .description = "The greatest share of its kept length a strand trimmed at random loses, 0-1",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

class LengthWork final : public StrandWork {
public:
    FieldPtr keep, fraction;
    TrimSettings settings;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return keep->readsWholeSet() || fraction->readsWholeSet();
    }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        if (in.points().empty()) return;
        std::array<float, StrandPick::kBatch> shares;
        keep->sampleStrands(in, strands, std::span(shares).first(strands.size()));
        trimAtRandom(in, strands, std::span(shares).first(strands.size()));
        const TrimJob job{&in.points()[0].x, &out.points[0].x, in.offsets().data()};
        LaneScratch scratch;
        forEachLaneRun(
            in, strands,
            [&](std::size_t first, std::size_t count, std::size_t n) {
                laneKernels().trim(job, &strands[first], &shares[first], count, n, scratch.of(n));
            },
            [&](std::size_t k) {
                const std::size_t s = strands[k];
                trimStrand(in.pointsOf(s), shares[k],
                           out.points.subspan(in.offsets()[s], in.pointCountOf(s)));
            });
    }

private:
    /// From what is kept of each strand to its share less the trim.
    void trimAtRandom(const StrandSet& in, std::span<const std::uint32_t> strands,
                      std::span<float> shares) const {
        std::array<float, StrandPick::kBatch> fractions;
        const std::span<float> some = std::span(fractions).first(strands.size());
        fraction->sampleStrands(in, strands, some);
        const float lo = std::min(settings.trimMin, settings.trimMax);
        const float hi = std::max(settings.trimMin, settings.trimMax);
        // A draw is below 1.
        const bool all = std::ranges::all_of(some, [](float x) { return x >= 1.0f; });
        const LaneDraws picks(in, strands, drawBase(settings.seed, kFraction), all ? 0.0f : 1.0f);
        const LaneDraws losses(in, strands, drawBase(settings.seed, kTrim), hi - lo);
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const bool trims = fractions[k] >= 1.0f || picks[k] < fractions[k];
            const float share = std::clamp(shares[k], 0.0f, 1.0f);
            shares[k] = trims ? share * (1.0f - (lo + losses[k])) : share;
        }
    }
};

class Length final : public StrandOperator {
public:
    std::string type() const override { return "Length"; }
    std::string category() const override { return "shape"; }
    std::string description() const override { return "Trims strands to a share of their length."; }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<LengthWork>();
        work->keep = fieldFromParam(*this, "keep", context, strands);
        work->fraction = fieldFromParam(*this, "fraction", context, strands);
        work->settings = {.trimMin = float(number("trimMin")),
                          .trimMax = float(number("trimMax")),
                          .seed = seed()};
        const bool trims = (work->settings.trimMin > 0.0f || work->settings.trimMax > 0.0f) &&
                           work->fraction->constant().value_or(1.0f) > 0.0f;
        if (!trims && work->keep->constant().value_or(0.0f) >= 1.0f) return nullptr;
        return work;
    }
};

}  // namespace

OperatorPtr makeLength() { return std::make_unique<Length>(); }

}  // namespace corvelle
