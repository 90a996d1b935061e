#include "operators/restoreLength.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "model/polyline.h"
#include "model/simd4.h"
#include "operators/laneRuns.h"
#include "operators/matchIds.h"
#include "operators/neighborLanes.h"
#include "operators/nodeFactories.h"
#include "operators/pointCountOrder.h"
#include "operators/rootFrame.h"
#include "operators/splineResample.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr std::size_t kScratchPoints = 64;

bool sameLength(float a, float b) { return std::fabs(a - b) <= kSameLength * std::max(a, b); }

/// The lengths of n - 1 segments over a reference of other point count.
void spreadLengths(std::span<const Vec3f> reference, std::span<float> out) {
    const float step = float(reference.size() - 1) / float(out.size());
    std::size_t k = 0;
    float walked = 0.0f, before = 0.0f;  // up to point k; up to the last place
    float segment = distance(reference[0], reference[1]);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const float place = step * float(i + 1);
        while (float(k + 1) < place && k + 2 < reference.size()) {
            walked += segment;
            ++k;
            segment = distance(reference[k], reference[k + 1]);
        }
        const float here = walked + segment * std::min(place - float(k), 1.0f);
        out[i] = here - before;
        before = here;
    }
}

}  // namespace

void restoreSegments(std::span<const Vec3f> in, std::span<const Vec3f> reference,
                     std::span<Vec3f> out) {
    const std::size_t n = in.size();
    if (n < 2 || reference.size() < 2) {
        std::ranges::copy(in, out.begin());
        return;
    }
    std::array<float, 2 * kScratchPoints> onStack;
    std::vector<float> onHeap;
    if (n > kScratchPoints) onHeap.resize(2 * n);
    float* const own = onHeap.empty() ? onStack.data() : onHeap.data();
    float* const wanted = own + (onHeap.empty() ? kScratchPoints : n);
    for (std::size_t i = 0; i + 1 < n; ++i) own[i] = distance(in[i], in[i + 1]);
    if (reference.size() == n)
        for (std::size_t i = 0; i + 1 < n; ++i)
            wanted[i] = distance(reference[i], reference[i + 1]);
    else
        spreadLengths(reference, {wanted, n - 1});

    bool same = true;
    for (std::size_t i = 0; i + 1 < n; ++i) same &= sameLength(own[i], wanted[i]);
    if (same) {
        std::ranges::copy(in, out.begin());
        return;
    }
    Vec3f direction;
    if (!(own[0] > 0.0f)) {
        direction = firstDirection(in);
        if (direction == Vec3f{}) direction = firstDirection(reference);
    }
    Vec3f at = in[0];
    out[0] = at;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        if (own[i] > 0.0f) direction = (in[i + 1] - in[i]) * (1.0f / own[i]);
        at += direction * wanted[i];
        out[i + 1] = at;
    }
}

void restoreScale(std::span<const Vec3f> in, std::span<const Vec3f> reference,
                  std::span<Vec3f> out) {
    const float own = polylineLength(in), wanted = polylineLength(reference);
    if (!(own > 0.0f) || !(wanted > 0.0f) || sameLength(own, wanted)) {
        std::ranges::copy(in, out.begin());
        return;
    }
    const float factor = wanted / own;
    out[0] = in[0];
    for (std::size_t i = 1; i < in.size(); ++i) out[i] = in[0] + (in[i] - in[0]) * factor;
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "mode",
     .defaultValue = std::string("segments"),
     .description = "segments: each segment's length from the reference, along the deformed "
                    "directions; scale: the whole strand scaled about its root to the reference's "
                    "length; even: the strand's own points respaced evenly (no reference needed)",
     .choices = {"segments", "scale", "even"}},
};

constexpr std::size_t kReferenceSlot = 1;

class RestoreFromReference final : public StrandWork {
public:
    StrandsPtr reference;
    std::vector<std::uint32_t> match;  ///< empty: strand s is strand s
    bool scale = false;

    WrittenArrays writes() const override { return {.points = true}; }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        const auto referenceOf = [&](std::uint32_t s) {
            const std::uint32_t from = match.empty() ? s : match[s];
            return from == kNoMatch ? std::span<const Vec3f>() : reference->pointsOf(from);
        };
        const auto alone = [&](std::uint32_t s) {
            const auto points = in.pointsOf(s);
            const auto to = out.points.subspan(std::size_t(in.offsets()[s]), points.size());
            (scale ? restoreScale : restoreSegments)(points, referenceOf(s), to);
        };
        std::array<std::uint32_t, StrandPick::kBatch> listed;
        std::array<const float*, StrandPick::kBatch> references;
        std::array<std::uint8_t, StrandPick::kBatch> again{};
        std::size_t count = 0;
        for (const std::uint32_t k : PointCountOrder(in, strands)) {
            const std::uint32_t s = strands[k];
            const std::span<const Vec3f> wanted = referenceOf(s);
            if (scale || wanted.size() < 2 || wanted.size() != in.pointCountOf(s)) {
                alone(s);
                continue;
            }
            listed[count] = s;
            references[count++] = &wanted[0].x;
        }
        if (count == 0) return;
        const std::span<const std::uint32_t> list(listed.data(), count);
        const RestoreJob job{lanePoints(in, list, out.points), references.data(), again.data()};
        deformStrands(neighborKernels().restore, job, in, list,
                      [&](std::size_t k) { alone(list[k]); });
        for (std::size_t k = 0; k < count; ++k)
            if (again[k]) alone(list[k]);
    }
};

class RespaceEvenly final : public StrandWork {
public:
    WrittenArrays writes() const override { return {.points = true}; }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<std::uint32_t, StrandPick::kBatch> curves;
        std::size_t count = 0;
        for (const std::uint32_t s : strands) {
            const auto points = in.pointsOf(s);
            if (points.size() >= 2)
                curves[count++] = s;
            else
                std::ranges::copy(points, out.points.begin() + std::ptrdiff_t(in.offsets()[s]));
        }
        if (count == 0) return;
        const SplineJob job{.from = &in.points()[0].x,
                            .to = &out.points[0].x,
                            .fromOffsets = in.offsets().data(),
                            .toOffsets = in.offsets().data()};
        SplineResampler().run(job, {curves.data(), count});
    }
};

class RestoreLength final : public StrandOperator {
public:
    std::string type() const override { return "RestoreLength"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Gives strands their length back after deformers.";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"reference", PortType::Strands, true}};
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    bool inputSelected(std::size_t input) const override {
        return input == 0 || (input == kReferenceSlot && text("mode") != "even");
    }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext&, const NodeInputs& inputs,
                                        const StrandSet& strands) override {
        const std::string& mode = choice("mode");
        if (mode == "even") return std::make_unique<RespaceEvenly>();
        const StrandsPtr reference = inputs.strands(kReferenceSlot);
        if (!reference) throw GraphError("RestoreLength: input reference is not connected");
        if (reference == inputs.strands(0)) return nullptr;
        auto work = std::make_unique<RestoreFromReference>();
        work->match = matchIds(strands.ids(), reference->ids());
        work->reference = reference;
        work->scale = mode == "scale";
        return work;
    }

    bool addReaders(const NodeInputs& inputs, std::size_t, std::span<const std::uint32_t> changed,
                    std::vector<std::uint32_t>& strands) const override {
        const StrandsPtr in = inputs.strands(0), reference = inputs.strands(kReferenceSlot);
        const std::vector<std::uint32_t> match = matchIds(in->ids(), reference->ids());
        if (match.empty()) {
            strands.insert(strands.end(), changed.begin(), changed.end());
            return true;
        }
        std::vector<bool> is(reference->strandCount(), false);
        for (const std::uint32_t s : changed) is[s] = true;
        for (std::size_t s = 0; s < match.size(); ++s)
            if (match[s] != kNoMatch && is[match[s]]) strands.push_back(std::uint32_t(s));
        return true;
    }
};

}  // namespace

OperatorPtr makeRestoreLength() { return std::make_unique<RestoreLength>(); }

}  // namespace corvelle
