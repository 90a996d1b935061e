#include "operators/twist.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numbers>
#include <numeric>
#include <unordered_map>

#include "model/parallel.h"
#include "model/pointIndex.h"
#include "model/polyline.h"
#include "operators/nodeFactories.h"
#include "operators/polynomialTrig.h"
#include "operators/previewStrands.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr int kSmooth = 8;  ///< pieces that a guide's segment is drawn in

/// Room for axes of the given point counts.
TwistAxes emptyAxes(std::span<const std::size_t> counts) {
    TwistAxes axes;
    axes.offsets.resize(counts.size() + 1);
    std::partial_sum(counts.begin(), counts.end(), axes.offsets.begin() + 1);
    axes.points.resize(axes.offsets.back());
    axes.tangents.resize(axes.offsets.back());
    axes.lengths.resize(axes.offsets.back());
    axes.shares.resize(axes.offsets.back());
    return axes;
}

/// What follows from an axis's points. Tangents: halfway between the segments on both sides.
void measureAxis(TwistAxes& axes, std::size_t axis) {
    const std::size_t first = axes.offsets[axis], n = axes.offsets[axis + 1] - first;
    const std::span<const Vec3f> points = std::span(axes.points).subspan(first, n);
    polylineLengths(points, std::span(axes.lengths).subspan(first, n));
    polylineShares(points, std::span(axes.shares).subspan(first, n));
    Vec3f before;
    for (std::size_t i = 0; i < n; ++i) {
        const Vec3f after = i + 1 < n ? normalized(points[i + 1] - points[i]) : Vec3f{};
        const Vec3f both = normalized(before + after);
        axes.tangents[first + i] = both == Vec3f{} ? before : both;
        if (!(after == Vec3f{})) before = after;
    }
}

}  // namespace

TwistAxes guideAxes(const GuideSet& guides) {
    std::vector<std::size_t> counts(guides.size());
    for (std::size_t g = 0; g < counts.size(); ++g)
        counts[g] = (guides.pointsOf(g).size() - 1) * kSmooth + 1;
    TwistAxes axes = emptyAxes(counts);
    parallelRange(0, counts.size(), 64, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            catmullRom(guides.pointsOf(g), kSmooth,
                       std::span(axes.points).subspan(axes.offsets[g], counts[g]));
            measureAxis(axes, g);
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
    parallelRange(0, count, 8, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> even;
        for (std::size_t c = begin; c < end; ++c) {
            const std::span<Vec3f> mean =
                std::span(axes.points).subspan(axes.offsets[c], counts[c]);
            even.resize(counts[c]);
            for (std::size_t i = starts[c]; i < starts[c + 1]; ++i) {  // in the strands' order
                resamplePolyline(strands.pointsOf(members[i]), even);
                for (std::size_t j = 0; j < counts[c]; ++j) mean[j] += even[j];
            }
            const float share = 1.0f / float(starts[c + 1] - starts[c]);
            for (Vec3f& p : mean) p *= share;
            measureAxis(axes, c);
        }
    });
    return axes;
}

void twistStrand(std::span<const Vec3f> points, std::span<const float> shares,
                 const TwistAxes& axes, std::size_t axis, float turn, std::span<Vec3f> out) {
    const std::size_t first = axes.offsets[axis], last = axes.offsets[axis + 1] - 2;
    std::size_t k = first;
    out[0] = points[0];
    for (std::size_t i = 1; i < points.size(); ++i) {
        while (k < last && axes.shares[k + 1] < shares[i]) ++k;
        const float span = axes.shares[k + 1] - axes.shares[k];
        const float along =
            span > 0.0f ? std::clamp((shares[i] - axes.shares[k]) / span, 0.0f, 1.0f) : 0.0f;
        const Vec3f center = mix(axes.points[k], axes.points[k + 1], along);
        const Vec3f tangent = normalized(mix(axes.tangents[k], axes.tangents[k + 1], along));
        const float turns = turn * mix(axes.lengths[k], axes.lengths[k + 1], along);
        const float angle = 2.0f * std::numbers::pi_v<float> * (turns - std::round(turns));
        const Vec3f off = points[i] - center;
        // Rodrigues' formula, about a zero tangent the identity.
        const Vec3f once = cross(tangent, off);
        out[i] = points[i] + once * sineOf(angle) + cross(tangent, once) * (1.0f - cosineOf(angle));
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
        std::array<float, StrandPick::kBatch> turns;
        turn->sampleStrands(in, strands, std::span(turns).first(strands.size()));
        std::vector<float> shares;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
            const std::uint32_t axis =
                points.size() < 2 || !std::isfinite(turns[k]) ? kNoAxis : axisOf(s, points[0]);
            if (axis == kNoAxis) {
                std::copy(points.begin(), points.end(), to.begin());
                continue;
            }
            shares.resize(points.size());
            polylineShares(points, shares);
            twistStrand(points, shares, axes, axis, turns[k], to);
        }
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
