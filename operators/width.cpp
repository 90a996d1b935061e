#include "operators/width.h"

#include <algorithm>
#include <array>

#include "model/hash.h"
#include "model/polyline.h"
#include "operators/laneRuns.h"
#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"

namespace corvelle {

void strandWidths(std::span<const Vec3f> points, std::span<const float> base, const Ramp& profile, float scale,
                  std::span<float> out) {
    polylineShares(points, out);
    profile.sample(out, out);
    if (base.size() == 1) {
        const float width = base[0] * scale;
        for (float& w : out) w *= width;
    } else {
        for (std::size_t i = 0; i < out.size(); ++i) out[i] *= base[i] * scale;
    }
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "width",
     .defaultValue = 0.007,
     .description = "Width, scene units (mappable, per point: e.g. an expression of t or a point channel)",
     .unit = "width",
     .softMin = 0.0,
     .softMax = 0.05,
     .min = 0.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {0.7f, 0.85f}, {1.0f, 0.15f}}),
     .description = "Width along the length, root to tip, times width"},
    {.name = "randomness",
     .defaultValue = 0.0,
     .description = "Per-strand variation of the width, 0-1: up to that share thinner or thicker",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

class WidthWork final : public StrandWork {
public:
    FieldPtr width;
    Ramp profile;
    float randomness = 0.0f;
    std::uint64_t base = 0;

    /// The profile in the form that lanes read; only of a few keys.
    void prepareLanes() {
        if (!width->perPoint()) keys_ = LaneRamp(profile);
    }

    WrittenArrays writes() const override { return {.widths = true}; }
    bool readsWholeSet() const override { return width->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands, const OpenArrays& out) const override {
        const bool perPoint = width->perPoint();
        std::array<float, StrandPick::kBatch> perStrand;
        std::array<std::size_t, StrandPick::kBatch> starts;
        std::vector<float> points;
        if (perPoint) {
            points.resize(batchOffsets(in, strands, starts));
            width->samplePoints(in, strands, points);
        } else {
            width->sampleStrands(in, strands, std::span(perStrand).first(strands.size()));
        }
        for (float& own :
             perPoint ? std::span<float>(points) : std::span(perStrand).first(strands.size()))
            own = own > 0.0f ? own : 0.0f;  // a map may say less than the param may
        const auto scaleOf = [&](std::size_t k) {
            return 1.0f + randomness * drawSigned(base, in.ids()[strands[k]]);
        };
        const auto single = [&](std::size_t k) {
            const std::size_t s = strands[k];
            const std::size_t count = in.pointCountOf(s);
            const auto values = perPoint ? std::span<const float>(points).subspan(starts[k], count)
                                         : std::span<const float>(&perStrand[k], 1);
            strandWidths(in.pointsOf(s), values, profile, scaleOf(k), out.widths.subspan(in.offsets()[s], count));
        };
        if (!keys_.fits() || in.points().empty()) {
            for (std::size_t k = 0; k < strands.size(); ++k) single(k);
            return;
        }
        std::array<float, StrandPick::kBatch> widths;
        for (std::size_t k = 0; k < strands.size(); ++k) widths[k] = perStrand[k] * scaleOf(k);
        const WidthJob job{&in.points()[0].x,
                           out.widths.data(),
                           in.offsets().data(),
                           keys_.keys()};
        LaneScratch scratch;
        forEachLaneRun(
            in, strands,
            [&](std::size_t first, std::size_t count, std::size_t n) {
                laneKernels().widths(job, &strands[first], &widths[first], count, n, scratch.of(n));
            },
            single);
    }

private:
    LaneRamp keys_;
};

class Width final : public StrandOperator {
public:
    std::string type() const override { return "Width"; }
    std::string category() const override { return "shape"; }
    std::string description() const override { return "Strand thickness, root to tip."; }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<WidthWork>();
        work->width = fieldFromParam(*this, "width", context, strands);
        work->profile = ramp("profile");
        work->randomness = float(number("randomness"));
        work->base = drawBase(seed(), "Width.randomness");
        work->prepareLanes();
        return work;
    }
};

}  // namespace

OperatorPtr makeWidth() { return std::make_unique<Width>(); }

}  // namespace corvelle
