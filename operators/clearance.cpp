#include "operators/clearance.h"

#include <algorithm>
#include <cmath>

#include "model/carry.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/soleOwner.h"
#include "operators/guideShapes.h"
#include "operators/laneRuns.h"

namespace corvelle {

namespace {

/// The band over the scalp, as a share of its size: 3 cm on a head of 20.
constexpr float kBandOfSize = 0.15f;
/// Lower by less than this share of a cell is the field's own error, by less than this share of the
/// height is nothing that an eye sees: a strand is not worked on for it.
constexpr float kSlackOfCell = 0.05f;
constexpr float kSlackOfHeight = 0.01f;

float longestSide(const ScalpMesh& mesh) {
    const Vec3f size = mesh.boundsMax() - mesh.boundsMin();
    return std::max({size.x, size.y, size.z, 0.0f});
}

/// The height wanted at a share of the length.
float wantedHeight(const std::array<float, kClearanceShares>& heights, float share) {
    const float at = share * float(kClearanceShares - 1);
    const std::size_t k = std::min(std::size_t(at), kClearanceShares - 2);
    return mix(heights[k], heights[k + 1], at - float(k));
}

void measureGuide(const GuideSet& guides, std::size_t g, ClearanceGoals& goals,
                  std::vector<Vec3f>& scratch) {
    std::array<Vec3f, kClearanceShares> places;
    sampleGuide(guides.pointsOf(g), goals.smooth, places, scratch);
    if (goals.space.rest)
        carry(places, guides.roots()[g], *goals.space.scalp, *goals.space.rest, places);
    goals.space.field->distances(places, goals.heights[g]);
    goals.hashes[g] = guides.hashes()[g];
}

void tabulateGuide(const ClearanceGoals& goals, std::size_t g, ClearanceTable& table) {
    const float perPoint = 1.0f / float(table.points - 1);
    float* const to = table.heights.data() + g * table.stride;
    for (std::size_t j = 0; j < table.points; ++j)
        to[j] = wantedHeight(goals.heights[g], float(j) * perPoint);
}

/// Tables of these point counts, those at hand kept.
void tabulate(ClearanceGoals& goals, std::span<const std::size_t> counts) {
    std::vector<ClearanceTable> made;
    for (const std::size_t n : counts) {
        const auto old = std::ranges::find(goals.tables, n, &ClearanceTable::points);
        if (old != goals.tables.end()) {
            made.push_back(std::move(*old));
            continue;
        }
        ClearanceTable table{.points = n, .stride = (n + 7) / 8 * 8, .heights = {}};
        table.heights.resize(goals.heights.size() * table.stride);
        for (std::size_t g = 0; g < goals.heights.size(); ++g) tabulateGuide(goals, g, table);
        made.push_back(std::move(table));
    }
    goals.tables = std::move(made);
}

}  // namespace

ClearanceSpace clearanceSpace(const ScalpPtr& scalp) {
    ClearanceSpace space{.scalp = scalp};
    if (!scalp->restPoints().empty() && scalp->restHash() != scalp->contentHash())
        space.rest = scalp->restPose();
    const ScalpPtr& measured = space.rest ? space.rest : scalp;
    space.band = kBandOfSize * longestSide(*measured);
    space.field = sharedDistanceField(measured, space.band, &space.note);
    if (space.field && space.rest) space.note = "it keeps clearance over a deformed scalp";
    return space;
}

void liftStrands(const ClearanceSpace& space, const LiftList& list,
                 std::span<const StrandRoot> roots, std::span<const std::uint64_t> offsets,
                 std::span<Vec3f> points, SplineLanes lanes) {
    const std::size_t count = list.strands.size(), n = list.points;
    if (count == 0 || n < 2) return;
    std::vector<std::uint8_t> lifted(count);
    LiftJob job{.points = {&points[0].x, &points[0].x, offsets.data(), list.strands.data()},
                .wanted = list.wanted.data(),
                .wantedStride = list.stride,
                .field = space.field->grid(),
                .floor = space.field->floor(),
                .band = space.band,
                .slack = kSlackOfCell * space.field->cell(),
                .slackShare = kSlackOfHeight,
                .lifted = lifted.data()};
    LaneScratch scratch;
    const auto lift = [&] { laneKernels(lanes).lift(job, 0, count, n, scratch.of(n)); };
    if (!space.rest) return lift();

    std::vector<Vec3f> carried(count * n);
    std::vector<std::uint64_t> starts(count);
    std::vector<std::uint32_t> places(count);
    for (std::size_t k = 0; k < count; ++k) {
        const std::uint32_t s = list.strands[k];
        starts[k] = k * n;
        places[k] = std::uint32_t(k);
        carry(points.subspan(offsets[s], n), roots[s], *space.scalp, *space.rest,
              std::span(carried).subspan(k * n, n));
    }
    job.points = {&carried[0].x, &carried[0].x, starts.data(), places.data()};
    lift();
    for (std::size_t k = 0; k < count; ++k) {
        if (!lifted[k]) continue;
        const std::uint32_t s = list.strands[k];
        carry(std::span(carried).subspan(k * n + 1, n - 1), roots[s], *space.rest, *space.scalp,
              points.subspan(offsets[s] + 1, n - 1));
    }
}

ClearanceGoalsPtr ClearanceCache::goals(const GuideSet& guides, bool smooth, const ScalpPtr& scalp,
                                        std::span<const std::size_t> counts, std::string& note) {
    std::shared_ptr<ClearanceGoals> held;
    {
        const std::lock_guard lock(mutex_);
        held.swap(held_);
    }
    const std::uint64_t key = hashCombine(scalp->contentHash(), scalp->restHash());
    const std::size_t count = guides.size();
    const bool usable =
        held && held->space.key == key && held->smooth == smooth && held->hashes.size() == count;
    if (!usable) {
        auto made = std::make_shared<ClearanceGoals>();
        made->space = clearanceSpace(scalp);
        made->space.key = key;
        made->smooth = smooth;
        made->heights.resize(count);
        made->hashes.assign(count, 0);
        held = std::move(made);
    }
    note = held->space.note;
    if (held->space.field) {
        std::vector<std::uint32_t> stale;
        for (std::size_t g = 0; g < count; ++g)
            if (held->hashes[g] != guides.hashes()[g]) stale.push_back(std::uint32_t(g));
        const bool sameCounts =
            std::ranges::equal(counts, held->tables, {}, {}, &ClearanceTable::points);
        if ((!stale.empty() || !sameCounts) && !isSoleOwner(held))
            held = std::make_shared<ClearanceGoals>(*held);
        parallelRange(0, stale.size(), 32, [&](std::size_t begin, std::size_t end) {
            std::vector<Vec3f> scratch;
            for (std::size_t i = begin; i < end; ++i)
                measureGuide(guides, stale[i], *held, scratch);
        });
        if (!sameCounts) tabulate(*held, counts);
        for (ClearanceTable& table : held->tables)
            for (const std::uint32_t g : stale) tabulateGuide(*held, g, table);
    }
    const bool works = held->space.field != nullptr;
    const ClearanceGoalsPtr result = held;
    const std::lock_guard lock(mutex_);
    held_ = std::move(held);
    return works ? result : nullptr;
}

void ClearanceCache::copyFrom(const ClearanceCache& other) {
    std::shared_ptr<ClearanceGoals> copy;
    {
        const std::lock_guard lock(other.mutex_);
        copy = other.held_;
    }
    const std::lock_guard lock(mutex_);
    held_.swap(copy);
}

}  // namespace corvelle
