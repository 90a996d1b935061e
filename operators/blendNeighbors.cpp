#include "operators/blendNeighbors.h"

#include <algorithm>
#include <array>

#include "graph/strandDiff.h"
#include "model/polyline.h"
#include "operators/curveTable.h"
#include "operators/laneRuns.h"
#include "operators/neighborTable.h"
#include "operators/nodeFactories.h"
#include "operators/pointCountOrder.h"
#include "operators/strandOperator.h"

namespace corvelle {

void addShape(const NeighborCurve& curve, std::span<const float> shares, std::span<Vec3f> sum) {
    const Vec3f* const points = curve.points.data();
    const float* const at = curve.shares.data();
    const std::size_t last = curve.points.size() - 2;  // the last segment
    const Vec3f root = points[0];
    std::size_t k = 0;
    for (std::size_t i = 0; i < shares.size(); ++i) {
        const float t = shares[i];
        while (k < last && at[k + 1] < t) ++k;
        const float span = at[k + 1] - at[k];
        const float along = span > 0.0f ? std::clamp((t - at[k]) / span, 0.0f, 1.0f) : 0.0f;
        sum[i] += mix(points[k], points[k + 1], along) - root;
    }
}

void blendToward(std::span<const Vec3f> points, std::span<const Vec3f> shape,
                 std::span<const float> amounts, float length, std::span<Vec3f> out) {
    const Vec3f root = points[0];
    for (std::size_t i = 1; i < points.size(); ++i)
        out[i] = mix(points[i], root + shape[i], amounts[i]);
    out[0] = root;
    const float is = length > 0.0f ? polylineLength(out) : 0.0f;
    if (!(is > 0.0f)) return;
    const float scale = length / is;
    for (std::size_t i = 1; i < points.size(); ++i) out[i] = root + (out[i] - root) * scale;
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "strength",
     .defaultValue = 0.5,
     .description = "How far each strand goes toward its neighbours' shape, 0-1 (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "neighbors",
     .defaultValue = 4.0,
     .description = "Nearest strands (by root, of those every preview holds) each strand blends "
                    "toward, 1-16",
     .softMin = 1.0,
     .softMax = double(NeighborTable::kMost),
     .whole = true,
     .min = 1.0,
     .max = double(NeighborTable::kMost)},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Strength along the length, root to tip"},
    {.name = "preserveLength",
     .defaultValue = true,
     .description = "Scale the blended strand back to its own length"},
    {.name = "respectParts",
     .defaultValue = true,
     .description = "Never blend with a strand across a part"},
    {.name = "regionChannel",
     .defaultValue = std::string("region"),
     .description = "Channel numbering each strand's region (an Interpolate's regionMap writes "
                    "region): strands blend only with strands of their own region; empty, or a "
                    "channel the strands lack: across regions"},
};

class BlendNeighborsWork final : public StrandWork {
public:
    FieldPtr strength;
    Ramp profile;
    bool preserveLength = true;
    NeighborSettings settings;
    NeighborCache* cache = nullptr;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return strength->readsWholeSet(); }

    void beginFull(const StrandSet& in) override {
        table_ = cache->table(in, settings);
        ramp_ = LaneRamp(profile);
        if (!ramp_.fits()) return;
        batches_ = &table_->batches();
        for (std::size_t s = 0; s < in.strandCount(); ++s) allCurves_ &= in.pointCountOf(s) >= 2;
    }

    std::span<const std::uint32_t> runOrder() const override { return table_->order(); }

    StrandChangesPtr beginSome(const StrandSet& in, const StrandChangesPtr& changed) override {
        table_ = cache->kept(in, changed->strands, settings);
        if (!table_) return nullptr;
        auto all = std::make_shared<StrandChanges>(*changed);
        for (const std::uint32_t s : changed->strands) {
            const auto readers = table_->neighborsTo(s);
            all->strands.insert(all->strands.end(), readers.begin(), readers.end());
        }
        std::ranges::sort(all->strands);
        all->strands.erase(std::unique(all->strands.begin(), all->strands.end()),
                           all->strands.end());
        return all;
    }

    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        Scratch scratch;
        const auto alone = [&](std::size_t s, float strong) {
            blend(in, s, strong, scratch, out.points.subspan(in.offsets()[s], in.pointCountOf(s)));
        };
        // A full run gives out the order a batch at a time.
        constexpr std::size_t kBatch = NeighborTable::Batches::kSize;
        static_assert(kBatch == StrandPick::kBatch);
        const std::size_t first =
            batches_ ? std::size_t(strands.data() - table_->order().data()) : 0;
        Group group;
        for (const std::uint32_t k : PointCountOrder(in, strands)) {
            const std::uint32_t s = strands[k];
            const float strong = clampShare(strengths[k]);
            const auto points = in.pointsOf(s);
            const auto others = table_->of(s);
            if (strong == 0.0f || points.size() < 2 || others.empty())
                std::ranges::copy(points, out.points.begin() + std::ptrdiff_t(in.offsets()[s]));
            else if (!batches_ || !areCurves(in, others))
                alone(s, strong);
            else
                group.add(s, k, strong, batches_->of(first + k));
        }
        if (group.count == 0) return;
        const std::span<const std::uint32_t> list(group.strands.data(), group.count);
        const CurveTable curves(in, batches_->strands(first / kBatch));
        const BlendJob job{lanePoints(in, list, out.points),
                           curves.rows(),
                           group.seats.data(),
                           group.others.data(),
                           group.counts.data(),
                           group.strongs.data(),
                           ramp_.keys(),
                           preserveLength};
        deformStrands(neighborKernels().blend, job, in, list,
                      [&](std::size_t k) { alone(list[k], group.strongs[k]); });
    }

private:
    struct Scratch {
        std::vector<float> shares, amounts, others;
        std::vector<Vec3f> shape;
    };
    /// Strands to blend side by side. Most are read by several: what they all need is worked out
    /// once.
    struct Group {
        std::size_t count = 0;
        std::array<std::uint32_t, StrandPick::kBatch> strands, seats, counts;
        std::array<const std::uint32_t*, StrandPick::kBatch> others;
        std::array<float, StrandPick::kBatch> strongs;

        void add(std::uint32_t strand, std::uint32_t seat, float strong,
                 std::span<const std::uint32_t> neighbors) {
            strands[count] = strand;
            strongs[count] = strong;
            seats[count] = seat;
            others[count] = neighbors.data();
            counts[count++] = std::uint32_t(neighbors.size());
        }
    };

    bool areCurves(const StrandSet& in, std::span<const std::uint32_t> strands) const {
        return allCurves_ || std::ranges::all_of(
                                 strands, [&](std::uint32_t s) { return in.pointCountOf(s) >= 2; });
    }

    /// One strand; it stays when it has no neighbours to blend toward.
    void blend(const StrandSet& in, std::size_t s, float strong, Scratch& scratch,
               std::span<Vec3f> to) const {
        const auto points = in.pointsOf(s);
        const std::size_t n = points.size();
        scratch.shares.resize(n);
        scratch.shape.assign(n, Vec3f{});
        const float length = polylineShares(points, scratch.shares);
        std::size_t used = 0;
        for (const std::uint32_t other : table_->of(s)) {
            const auto theirs = in.pointsOf(other);
            if (theirs.size() < 2) continue;
            scratch.others.resize(theirs.size());
            polylineShares(theirs, scratch.others);
            addShape({theirs, scratch.others}, scratch.shares, scratch.shape);
            ++used;
        }
        if (used == 0) {
            std::ranges::copy(points, to.begin());
            return;
        }
        const float share = 1.0f / float(used);
        for (Vec3f& place : scratch.shape) place *= share;
        scratch.amounts.resize(n);
        profile.sample(scratch.shares, scratch.amounts);
        for (float& amount : scratch.amounts) amount = clampShare(amount * strong);
        blendToward(points, scratch.shape, scratch.amounts, preserveLength ? length : 0.0f, to);
    }

    std::shared_ptr<const NeighborTable> table_;
    LaneRamp ramp_;
    const NeighborTable::Batches* batches_ = nullptr;  ///< null in a run over some strands
    bool allCurves_ = true;                            ///< all strands have 2 points or more
};

class BlendNeighbors final : public StrandOperator {
public:
    std::string type() const override { return "BlendNeighbors"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Pulls each strand toward its neighbours' shape for a coherent flow.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kParts; }
    bool verifyOnClone() const override { return true; }
    void adoptState(const Operator& other) override {
        if (const auto* from = dynamic_cast<const BlendNeighbors*>(&other))
            cache_.copyFrom(from->cache_);
    }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<BlendNeighborsWork>();
        work->strength = fieldFromParam(*this, "strength", context, strands);
        work->profile = ramp("profile");
        if (work->strength->constant().value_or(1.0f) <= 0.0f || work->profile.isConstant(0.0f))
            return nullptr;
        work->preserveLength = boolean("preserveLength");
        work->settings = {.count = std::size_t(whole("neighbors")),
                          .regionChannel = text("regionChannel"),
                          .parts = boolean("respectParts") ? context.parts() : nullptr};
        work->cache = &cache_;
        return work;
    }

private:
    NeighborCache cache_;
};

}  // namespace

OperatorPtr makeBlendNeighbors() { return std::make_unique<BlendNeighbors>(); }

}  // namespace corvelle
