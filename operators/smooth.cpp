#include "operators/smooth.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "model/polyline.h"
#include "operators/laneRuns.h"
#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"

namespace corvelle {

void smoothStrand(std::span<const Vec3f> points, std::span<const float> amounts, int passes,
                  std::span<Vec3f> before, std::span<Vec3f> out) {
    const std::size_t n = points.size();
    std::copy(points.begin(), points.end(), out.begin());
    if (n < 3 || std::ranges::all_of(amounts, [](float a) { return a <= 0.0f; })) return;
    for (int pass = 0; pass < passes; ++pass) {
        std::copy(out.begin(), out.end(), before.begin());
        for (std::size_t i = 1; i + 1 < n; ++i) {
            const Vec3f target = (before[i - 1] + before[i + 1]) * 0.5f;
            out[i] += (target - before[i]) * (0.5f * amounts[i]);
        }
        const Vec3f straight = before[n - 2] * 2.0f - before[n - 3];
        out[n - 1] += (straight - before[n - 1]) * (0.5f * amounts[n - 1]);
    }
    Vec3f last = out[0];  // the smoothed place of the point before
    for (std::size_t i = 1; i < n; ++i) {
        const Vec3f segment = points[i] - points[i - 1];
        const Vec3f along = out[i] - last;
        const float is = length(along);
        last = out[i];
        out[i] = out[i - 1] + (is > 0.0f ? along * (length(segment) / is) : segment);
    }
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "strength",
     .defaultValue = 0.5,
     .description = "How far each pass relaxes the points, 0-1 (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "iterations",
     .defaultValue = 4.0,
     .description = "Passes: more smooths broader bends",
     .softMin = 0.0,
     .softMax = 20.0,
     .whole = true,
     .min = 0.0,
     .max = 100.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Smoothing along the length, root to tip"},
};

class SmoothWork final : public StrandWork {
public:
    FieldPtr strength;
    Ramp profile;
    LaneRamp keys;  ///< the profile again
    int passes = 0;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return strength->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        std::size_t most = 0;
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> amounts(most);
        std::vector<Vec3f> before(most);
        const bool flat = profile.isConstant(1.0f);
        for (std::size_t k = 0; k < strands.size(); ++k) strengths[k] = clampShare(strengths[k]);
        const auto single = [&](std::size_t k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::span<float> amount = std::span(amounts).first(points.size());
            const float share = strengths[k];
            if (flat) {
                std::ranges::fill(amount, share);
            } else {
                polylineShares(points, amount);
                profile.sample(amount, amount);
                for (float& a : amount) a = clampShare(a * share);
            }
            smoothStrand(points, amount, passes, std::span(before).first(points.size()),
                         out.points.subspan(in.offsets()[s], points.size()));
        };
        if (!flat && !keys.fits()) {
            for (std::size_t k = 0; k < strands.size(); ++k) single(k);
            return;
        }
        const SmoothJob job{lanePoints(in, strands, out.points), strengths.data(),
                            flat ? RampKeys{} : keys.keys(), passes};
        deformStrands(laneKernels().smooth, job, in, strands, single);
    }
};

class Smooth final : public StrandOperator {
public:
    std::string type() const override { return "Smooth"; }
    std::string category() const override { return "shape"; }
    std::string description() const override { return "Relaxes kinks, keeping lengths and roots."; }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<SmoothWork>();
        work->strength = fieldFromParam(*this, "strength", context, strands);
        work->profile = ramp("profile");
        work->keys = LaneRamp(work->profile);
        work->passes = whole("iterations");
        if (work->passes <= 0 || work->profile.isConstant(0.0f) ||
            work->strength->constant().value_or(1.0f) <= 0.0f)
            return nullptr;
        return work;
    }
};

}  // namespace

OperatorPtr makeSmooth() { return std::make_unique<Smooth>(); }

}  // namespace corvelle
