#include "operators/tangle.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/simd4.h"
#include "operators/laneRuns.h"
#include "operators/neighborKernels.h"
#include "operators/neighborTable.h"
#include "operators/nodeFactories.h"
#include "operators/pointCountOrder.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr std::size_t kCandidates = 8;  ///< neighbours that a strand picks its partner from
constexpr float kEase = 0.25f;          ///< share of the span that each end is eased over

float eased(float x) {
    const float t = std::clamp(std::min(x, 1.0f - x) / kEase, 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

}  // namespace

bool stickStrand(std::span<const Vec3f> points, std::span<const float> lengths,
                 std::span<const Vec3f> partner, std::span<const float> partnerLengths,
                 StuckSpan span, float strength, float reach, std::span<Vec3f> out) {
    std::copy(points.begin(), points.end(), out.begin());
    const std::size_t n = points.size(), m = partner.size();
    if (n < 2 || m < 2) return false;
    const float begin = span.begin * lengths[n - 1];
    const float end = std::min(span.end * lengths[n - 1], partnerLengths[m - 1]);
    if (!(end > begin) || !std::isfinite(partnerLengths[m - 1])) return false;
    const float scale = 1.0f / (end - begin);
    bool sticks = false;
    std::size_t k = 0;
    for (std::size_t i = 1; i < n && lengths[i] < end; ++i) {
        const float at = lengths[i];
        if (at <= begin) continue;
        while (k + 2 < m && partnerLengths[k + 1] < at) ++k;
        const float segment = partnerLengths[k + 1] - partnerLengths[k];
        const float along =
            segment > 0.0f ? std::clamp((at - partnerLengths[k]) / segment, 0.0f, 1.0f) : 0.0f;
        const Vec3f pull = mix(partner[k], partner[k + 1], along) - points[i];
        if (reach > 0.0f && lengthSquared(pull) > reach * reach) {
            std::copy(points.begin(), points.end(), out.begin());
            return false;
        }
        out[i] += pull * (strength * eased((at - begin) * scale));
        sticks = true;
    }
    return sticks;
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "fraction",
     .defaultValue = 0.5,
     .description = "Fraction of strands that stick to a neighbor (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "radius",
     .defaultValue = 0.4,
     .description = "How far apart the roots of stuck strands can be, scene units",
     .unit = "length",
     .softMin = 1e-6,
     .softMax = 2.0,
     .min = 1e-6},
    {.name = "strength",
     .defaultValue = 0.8,
     .description = "How close stuck strands come, 0-1 (1: they meet) (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "start",
     .defaultValue = 0.3,
     .description = "Where along the length spans can begin, 0 root to 1 tip",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "span",
     .defaultValue = 0.4,
     .description = "Length of the stuck span, a fraction of the strand",
     .unit = "fraction",
     .softMin = 0.01,
     .softMax = 1.0,
     .min = 0.01,
     .max = 1.0},
    {.name = "sameClump",
     .defaultValue = true,
     .description = "Strands stick only to strands of their own clump (the clumpId channel a Clump "
                    "writes), never across the gap to the next clump"},
    {.name = "regionChannel",
     .defaultValue = std::string("region"),
     .description = "Channel numbering each strand's region (an Interpolate's regionMap writes "
                    "region): strands stick only to strands of their own region; empty, or a "
                    "channel the strands lack: across regions"},
    {.name = "reach",
     .defaultValue = 0.0,
     .description = "How far a strand is pulled to its partner at most, scene units: farther apart "
                    "there, they do not stick (0: no limit)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 2.0,
     .min = 0.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

/// Keeps the strands' partners, by the table they were picked from. Guarded by a mutex of its own.
class PartnerCache {
public:
    using List = std::shared_ptr<const std::vector<std::uint32_t>>;

    /// For each strand the one among its neighbours whose id draws lowest, so that near ones mostly
    /// pick the same and form tufts; itself when it draws lower than all: then they come to it.
    /// Were it to go to one of them, the two would trade places and not meet.
    List of(const StrandSet& in, const std::shared_ptr<const NeighborTable>& table,
            std::uint64_t base) {
        if (const Held last = held(); last.table == table && last.base == base) return last.list;
        const std::size_t n = in.strandCount();
        std::vector<std::uint64_t> draws(n);
        auto list = std::make_shared<std::vector<std::uint32_t>>(n);
        parallelRange(0, n, kStrandGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) draws[s] = hashCombine(base, in.ids()[s]);
        });
        parallelRange(0, n, kStrandGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                std::uint32_t best = std::uint32_t(s);
                for (const std::uint32_t other : table->of(s))
                    if (draws[other] < draws[best]) best = other;
                (*list)[s] = best;
            }
        });
        const std::lock_guard lock(mutex_);
        held_ = {table, base, list};
        return list;
    }
    void copyFrom(const PartnerCache& other) {
        if (&other == this) return;
        Held copy = other.held();
        const std::lock_guard lock(mutex_);
        held_ = std::move(copy);
    }

private:
    struct Held {
        std::shared_ptr<const NeighborTable> table;
        std::uint64_t base = 0;
        List list;
    };
    Held held() const {
        const std::lock_guard lock(mutex_);
        return held_;
    }
    mutable std::mutex mutex_;
    Held held_;
};

class TangleWork final : public StrandWork {
public:
    FieldPtr fraction, strength;
    float start = 0.0f, span = 0.0f, reach = 0.0f;
    std::uint64_t fractionBase = 0, partnerBase = 0, spanBase = 0;
    NeighborSettings settings;
    NeighborCache* cache = nullptr;
    PartnerCache* partners = nullptr;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return true; }
    void beginFull(const StrandSet& in) override {
        partners_ = partners->of(in, cache->table(in, settings), partnerBase);
        for (std::size_t s = 1; s < in.strandCount(); ++s)
            oneCount_ &= in.pointCountOf(s) == in.pointCountOf(0);
    }

    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> fractions, strengths;
        fraction->sampleStrands(in, strands, std::span(fractions).first(strands.size()));
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        const LaneDraws chances(in, strands, fractionBase, 1.0f);
        std::array<std::uint32_t, StrandPick::kBatch> stuck, stuckTo;
        std::array<Span, StrandPick::kBatch> spans;
        std::size_t count = 0;
        std::vector<float> lengths, partnerLengths;
        const auto alone = [&](std::uint32_t s, std::uint32_t partner, const Span& at) {
            const auto points = in.pointsOf(s), theirs = in.pointsOf(partner);
            lengths.resize(points.size());
            partnerLengths.resize(theirs.size());
            polylineLengths(points, lengths);
            polylineLengths(theirs, partnerLengths);
            stickStrand(points, lengths, theirs, partnerLengths, {at.begin, at.end}, at.strength,
                        reach, out.points.subspan(in.offsets()[s], points.size()));
        };
        StayingPoints staying{in.points(), out.points};
        const float latest = std::max(start, 1.0f - span);
        for (const std::uint32_t k : PointCountOrder(in, strands)) {
            const std::uint32_t s = strands[k];
            const std::uint32_t partner = chances[k] < fractions[k] ? (*partners_)[s] : s;
            if (partner == s) {
                staying.add(in.offsets()[s], in.offsets()[s + 1]);
                continue;
            }
            const float begin = mix(start, latest, draw(spanBase, in.ids()[s]));
            const Span at = {begin, std::min(begin + span, 1.0f), clampShare(strengths[k]), 0.0f};
            if (!oneCount_ && in.pointCountOf(partner) != in.pointCountOf(s)) {
                alone(s, partner, at);
                continue;
            }
            // Partners lie anywhere: asked for here, they are there when the batch is done.
            prefetch(in.points().data() + in.offsets()[partner], in.pointCountOf(partner));
            stuck[count] = s;
            stuckTo[count] = partner;
            spans[count++] = at;
        }
        staying.copy();
        if (count == 0) return;
        const std::span<const std::uint32_t> list(stuck.data(), count);
        const StickJob job{lanePoints(in, list, out.points), stuckTo.data(), &spans[0].begin,
                           reach};
        deformStrands(neighborKernels().stick, job, in, list,
                      [&](std::size_t k) { alone(list[k], stuckTo[k], spans[k]); });
    }

private:
    /// As kernels take it.
    struct Span {
        float begin, end, strength, unused;
    };

    /// Copies points that stay as they are, those of strands side by side at once.
    struct StayingPoints {
        std::span<const Vec3f> from;
        std::span<Vec3f> to;
        std::uint64_t begin = 0, end = 0;

        void add(std::uint64_t first, std::uint64_t last) {
            if (first != end) {
                copy();
                begin = first;
            }
            end = last;
        }
        void copy() const {
            if (end > begin)
                std::memcpy(to.data() + begin, from.data() + begin, (end - begin) * sizeof(Vec3f));
        }
    };

    std::shared_ptr<const std::vector<std::uint32_t>> partners_;
    bool oneCount_ = true;  ///< all strands have as many points
};

class Tangle final : public StrandOperator {
public:
    std::string type() const override { return "Tangle"; }
    std::string category() const override { return "look"; }
    std::string description() const override {
        return "Strands stuck together: mats and wet hair.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kParts; }
    void adoptState(const Operator& other) override {
        if (const auto* from = dynamic_cast<const Tangle*>(&other)) {
            cache_.copyFrom(from->cache_);
            partners_.copyFrom(from->partners_);
        }
    }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<TangleWork>();
        work->fraction = fieldFromParam(*this, "fraction", context, strands);
        work->strength = fieldFromParam(*this, "strength", context, strands);
        if (work->fraction->constant().value_or(1.0f) <= 0.0f ||
            work->strength->constant().value_or(1.0f) <= 0.0f)
            return nullptr;
        work->start = float(number("start"));
        work->span = float(number("span"));
        work->reach = float(number("reach"));
        work->fractionBase = drawBase(seed(), "Tangle.fraction");
        work->partnerBase = drawBase(seed(), "Tangle.partner");
        work->spanBase = drawBase(seed(), "Tangle.span");
        work->settings = {.count = kCandidates,
                          .maxDistance = float(number("radius")),
                          .regionChannel = text("regionChannel"),
                          .clumpChannel = boolean("sameClump") ? "clumpId" : "",
                          .parts = context.parts()};  // hair combed apart does not mat
        work->cache = &cache_;
        work->partners = &partners_;
        return work;
    }

private:
    NeighborCache cache_;
    PartnerCache partners_;
};

}  // namespace

OperatorPtr makeTangle() { return std::make_unique<Tangle>(); }

}  // namespace corvelle
