#include "operators/twist.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numeric>
#include <unordered_map>

#include "model/parallel.h"
#include "model/pointIndex.h"
#include "model/polyline.h"
#include "model/simd4.h"
#include "operators/laneRuns.h"
#include "operators/neighborLanes.h"
#include "operators/nodeFactories.h"
#include "operators/pointCountOrder.h"
#include "operators/previewStrands.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr int kSmooth = 8;  ///< pieces that a guide's segment is drawn in

constexpr std::size_t kRow = 8;  ///< floats

/// Room for axes of the given point counts.
TwistAxes emptyAxes(std::span<const std::size_t> counts) {
    TwistAxes axes;
    axes.offsets.resize(counts.size() + 1);
    std::partial_sum(counts.begin(), counts.end(), axes.offsets.begin() + 1);
    axes.rows.resize(kRow * axes.offsets.back());
    return axes;
}

/// Writes the rows of an axis through points. Tangents: halfway between the segments on both sides.
void writeAxis(TwistAxes& axes, std::size_t axis, std::span<const Vec3f> points,
               std::vector<float>& scratch) {
    const std::size_t n = points.size();
    scratch.resize(2 * n);
    const std::span<float> lengths(scratch.data(), n), shares(scratch.data() + n, n);
    polylineLengths(points, lengths);
    polylineShares(points, shares);
    float* row = axes.rows.data() + kRow * axes.offsets[axis];
    Vec3f before;
    for (std::size_t i = 0; i < n; ++i, row += kRow) {
        const Vec3f after = i + 1 < n ? normalized(points[i + 1] - points[i]) : Vec3f{};
        const Vec3f both = normalized(before + after);
        const Vec3f tangent = both == Vec3f{} ? before : both;
        if (!(after == Vec3f{})) before = after;
        const std::array<float, kRow> made = {points[i].x, points[i].y, points[i].z, shares[i],
                                              tangent.x,   tangent.y,   tangent.z,   lengths[i]};
        std::ranges::copy(made, row);
    }
}

/// Means of strands at evenly spaced points, many side by side.
class EvenMean {
public:
    /// Of the listed strands at out.size() >= 2 points. The same bits for the same strands in the
    /// same order.
    void of(const StrandSet& set, std::span<const std::uint32_t> members, std::span<Vec3f> out) {
        const std::size_t m = out.size();
        static_assert(3 <= kLaneScratchPerPoint);
        float* const sums = sums_.of(m);
        std::fill_n(sums, 3 * m * kEvenSums, 0.0f);
        const EvenJob job{&set.points()[0].x, set.offsets().data(), m, sums};
        for (std::size_t i = 0; i < members.size(); i += kEvenSums) {
            const auto block = members.subspan(i, std::min(kEvenSums, members.size() - i));
            const std::size_t n = set.pointCountOf(block[0]);
            const bool fits = block.size() == kEvenSums &&
                              std::ranges::all_of(
                                  block, [&](std::uint32_t s) { return set.pointCountOf(s) == n; });
            if (fits) {
                neighborKernels().even(job, block.data(), n, lanes_.of(n + m));
                continue;
            }
            for (std::size_t l = 0; l < block.size(); ++l)
                addOne(set.pointsOf(block[l]), m, sums + l);
        }
        const float share = 1.0f / float(members.size());
        for (std::size_t i = 0; i < 3 * m; ++i) {
            float* const row = sums + kEvenSums * i;
            for (std::size_t half = kEvenSums / 2; half > 0; half /= 2)
                for (std::size_t l = 0; l < half; ++l) row[l] += row[l + half];
            out[i / 3][int(i % 3)] = row[0] * share;
        }
    }

private:
    void addOne(std::span<const Vec3f> points, std::size_t m, float* sums) {
        const std::size_t n = points.size();
        single_.resize(2 * n + 3 * m);
        float* const even = single_.data() + 2 * n;
        evenAcross(&points[0].x, n, single_.data(), single_.data() + n, even, m);
        for (std::size_t i = 0; i < 3 * m; ++i) sums[kEvenSums * i] += even[i];
    }

    LaneScratch lanes_, sums_;
    std::vector<float> single_;
};

}  // namespace

TwistAxes guideAxes(const GuideSet& guides) {
    std::vector<std::size_t> counts(guides.size());
    for (std::size_t g = 0; g < counts.size(); ++g)
        counts[g] = (guides.pointsOf(g).size() - 1) * kSmooth + 1;
    TwistAxes axes = emptyAxes(counts);
    parallelRange(0, counts.size(), 64, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> points;
        std::vector<float> scratch;
        for (std::size_t g = begin; g < end; ++g) {
            points.resize(counts[g]);
            catmullRom(guides.pointsOf(g), kSmooth, points);
            writeAxis(axes, g, points, scratch);
        }
    });
    return axes;
}

TwistAxes clumpAxes(const StrandSet& strands, std::span<const float> clumps,
                    std::vector<std::uint32_t>& ofStrand) {
    // Clumps are numbered as they come; what an axis is does not depend on its number.
    const std::size_t n = strands.strandCount();
    std::unordered_map<std::uint32_t, std::uint32_t> numbers;
    ofStrand.assign(n, kNoAxis);
    for (std::size_t s = 0; s < n; ++s) {
        if (!(clumps[s] >= 0.0f) || strands.pointCountOf(s) < 2) continue;
        if (s > 0 && clumps[s] == clumps[s - 1] && ofStrand[s - 1] != kNoAxis) {
            ofStrand[s] = ofStrand[s - 1];
            continue;
        }
        const std::uint32_t bits = std::bit_cast<std::uint32_t>(clumps[s] + 0.0f);
        ofStrand[s] = numbers.try_emplace(bits, std::uint32_t(numbers.size())).first->second;
    }
    const std::size_t count = numbers.size();
    std::vector<bool> member(n, false), held(count, false);
    for (const std::uint32_t s : previewStrands(strands)) {
        if (ofStrand[s] == kNoAxis) continue;
        member[s] = true;
        held[ofStrand[s]] = true;
    }
    std::vector<std::size_t> starts(count + 1, 0), counts(count, 2);
    for (std::size_t s = 0; s < n; ++s) {
        const std::uint32_t clump = ofStrand[s];
        if (clump == kNoAxis) continue;
        if (!held[clump]) member[s] = true;
        if (!member[s]) continue;
        ++starts[clump + 1];
        counts[clump] = std::max(counts[clump], strands.pointCountOf(s));
    }
    std::partial_sum(starts.begin(), starts.end(), starts.begin());
    std::vector<std::uint32_t> members(starts.back());
    std::vector<std::size_t> next(starts.begin(), starts.end() - 1);
    for (std::size_t s = 0; s < n; ++s)
        if (member[s]) members[next[ofStrand[s]]++] = std::uint32_t(s);

    TwistAxes axes = emptyAxes(counts);
    parallelRange(0, count, 1, [&](std::size_t begin, std::size_t end) {
        EvenMean even;
        std::vector<Vec3f> mean;
        std::vector<float> scratch;
        for (std::size_t c = begin; c < end; ++c) {
            mean.resize(counts[c]);
            even.of(strands, std::span(members).subspan(starts[c], starts[c + 1] - starts[c]),
                    mean);
            writeAxis(axes, c, mean, scratch);
        }
    });
    return axes;
}

void twistStrand(std::span<const Vec3f> points, std::span<const float> shares,
                 const TwistAxes& axes, std::size_t axis, float turn, std::span<Vec3f> out) {
    const float* row = axes.rows.data() + kRow * axes.offsets[axis];
    const float* const last = axes.rows.data() + kRow * (axes.offsets[axis + 1] - 2);
    out[0] = points[0];
    for (std::size_t i = 1; i < points.size(); ++i) {
        while (row < last && row[kRow + 3] < shares[i]) row += kRow;
        const float span = row[kRow + 3] - row[3];
        const float along = span > 0.0f ? std::min((shares[i] - row[3]) / span, 1.0f) : 0.0f;
        std::array<float, kRow> at;
        for (std::size_t x = 0; x < kRow; ++x) at[x] = mix(row[x], row[kRow + x], along);
        out[i] = points[i];
        twistAcross(&out[i].x, &at[0], &at[4], turn * at[7]);
    }
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "turn",
     .defaultValue = 1.0,
     .description = "Turns around the axis per unit of its length; negative turns the other way "
                    "(mappable)",
     .unit = "perLength",
     .softMin = -2.0,
     .softMax = 2.0},
    {.name = "clumpChannel",
     .defaultValue = std::string("clumpId"),
     .description = "With nothing on the axes input: strands sharing this channel (a Clump's "
                    "clumpChannel) twist around their core strands' mean (those every preview "
                    "holds). Unused while axes are connected"},
};

class TwistWork final : public StrandWork {
public:
    FieldPtr turn;
    TwistAxes axes;
    PointIndex roots;                     ///< of the axes; used without `ofStrand`
    std::vector<std::uint32_t> ofStrand;  ///< empty: the axis with the nearest root

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return true; }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> turns, listedTurns;
        turn->sampleStrands(in, strands, std::span(turns).first(strands.size()));
        std::array<std::uint32_t, StrandPick::kBatch> listed, listedAxes;
        std::size_t count = 0;
        for (const std::uint32_t k : PointCountOrder(in, strands)) {
            const std::uint32_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::uint32_t axis =
                points.size() < 2 || !std::isfinite(turns[k]) ? kNoAxis : axisOf(s, points[0]);
            if (axis == kNoAxis) {
                std::ranges::copy(points, out.points.begin() + std::ptrdiff_t(in.offsets()[s]));
                continue;
            }
            listed[count] = s;
            listedAxes[count] = axis;
            listedTurns[count++] = turns[k];
        }
        if (count == 0) return;
        const std::span<const std::uint32_t> list(listed.data(), count);
        const TwistJob job{lanePoints(in, list, out.points), axes.rows.data(), axes.offsets.data(),
                           listedAxes.data(), listedTurns.data()};
        std::vector<float> shares;
        deformStrands(neighborKernels().twist, job, in, list, [&](std::size_t k) {
            const auto points = in.pointsOf(list[k]);
            shares.resize(points.size());
            polylineShares(points, shares);
            twistStrand(points, shares, axes, listedAxes[k], listedTurns[k],
                        out.points.subspan(in.offsets()[list[k]], points.size()));
        });
    }

private:
    std::uint32_t axisOf(std::size_t strand, Vec3f root) const {
        if (!ofStrand.empty()) return ofStrand[strand];
        Neighbor nearest;
        return roots.nearestOne(root, nearest) ? nearest.index : kNoAxis;
    }
};

class Twist final : public StrandOperator {
public:
    std::string type() const override { return "Twist"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Twists strands around a lock or clump: ropes, twisted locks.";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"axes", PortType::Guides, true}};
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs& inputs,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<TwistWork>();
        work->turn = fieldFromParam(*this, "turn", context, strands);
        if (work->turn->constant() == 0.0f || strands.strandCount() == 0) return nullptr;
        if (const GuidesPtr guides = inputs.guides(1)) {
            if (guides->empty()) return nullptr;
            work->axes = guideAxes(*guides);
            std::vector<Vec3f> roots(guides->size());
            for (std::size_t g = 0; g < roots.size(); ++g) roots[g] = guides->pointsOf(g).front();
            work->roots = PointIndex(roots);
            return work;
        }
        const std::string& channel = text("clumpChannel");
        const std::vector<float>* clumps = strands.strandChannel(channel);
        if (!clumps)
            throw GraphError("Twist: connect axes (guides), or put a Clump before it (no '" +
                             channel + "' channel to find the clumps)");
        work->axes = clumpAxes(strands, *clumps, work->ofStrand);
        return work;
    }
};

}  // namespace

OperatorPtr makeTwist() { return std::make_unique<Twist>(); }

}  // namespace corvelle
