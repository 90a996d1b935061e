#include "operators/clearance.h"

#include <algorithm>
#include <cmath>

#include "model/carry.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/soleOwner.h"
#include "operators/guideShapes.h"

namespace corvelle {

namespace {

constexpr int kPasses = 3;
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

bool keepClearance(const ClearanceGoals& goals, std::span<const GuideWeight> guides,
                   const StrandRoot& root, std::span<Vec3f> points, std::vector<Vec3f>& scratch) {
    const std::size_t n = points.size();
    if (n < 2 || guides.empty()) return false;
    const ClearanceSpace& space = goals.space;
    const DistanceField& field = *space.field;
    std::array<float, kClearanceShares> heights{};
    for (const GuideWeight& pair : guides) {
        const float weight = pair.weight;
        const float* const own = goals.heights[pair.guide].data();
        float* const sum = heights.data();
        for (std::size_t k = 0; k < kClearanceShares; ++k) sum[k] += weight * own[k];
    }

    const RootMotion there =
        space.rest ? rootMotion(root, *space.scalp, *space.rest) : RootMotion{};
    const float slack = kSlackOfCell * field.cell();
    const float perPoint = 1.0f / float(n - 1);
    const auto wanted = [&](std::size_t j) {
        return std::min(wantedHeight(heights, float(j) * perPoint), space.band);
    };
    const auto allowed = [&](float height) {
        return height - slack - kSlackOfHeight * std::max(height, 0.0f);
    };
    const auto tooLow = [&](Vec3f p, float least) {
        return !field.surelyOutside(p, -1e30f, least) && field.distance(p) < least;
    };
    std::size_t first = 1;
    while (first < n && !tooLow(there(points[first]), allowed(wanted(first)))) ++first;
    if (first == n) return false;

    scratch.resize(2 * n);
    const std::span<Vec3f> moved(scratch.data(), n), segments(scratch.data() + n, n);
    for (std::size_t j = 0; j < n; ++j) {
        moved[j] = there(points[j]);
        if (j > 0) segments[j].x = distance(points[j], points[j - 1]);
    }
    for (int pass = 0; pass < kPasses; ++pass) {
        bool pushed = false;
        for (std::size_t j = pass == 0 ? first : 1; j < n; ++j) {
            const float height = wanted(j);
            const float least = allowed(height);
            if (field.surelyOutside(moved[j], -1e30f, least)) continue;
            const DistanceSample sample = field.sample(moved[j]);
            if (!(sample.distance < least)) continue;
            moved[j] += sample.gradient * (height - sample.distance);
            pushed = true;
        }
        if (!pushed) break;
        // Each segment points to where its end was pushed and has its own length.
        for (std::size_t j = 1; j < n; ++j) {
            Vec3f way = normalized(moved[j] - moved[j - 1]);
            if (way == Vec3f{}) way = normalized(there(points[j]) - there(points[j - 1]));
            moved[j] = moved[j - 1] + way * segments[j].x;
        }
    }
    const RootMotion back = space.rest ? rootMotion(root, *space.rest, *space.scalp) : RootMotion{};
    for (std::size_t j = 1; j < n; ++j) points[j] = back(moved[j]);
    return true;
}

ClearanceGoalsPtr ClearanceCache::goals(const GuideSet& guides, bool smooth, const ScalpPtr& scalp,
                                        std::string& note) {
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
        if (!stale.empty() && !isSoleOwner(held)) held = std::make_shared<ClearanceGoals>(*held);
        parallelRange(0, stale.size(), 32, [&](std::size_t begin, std::size_t end) {
            std::vector<Vec3f> scratch;
            for (std::size_t i = begin; i < end; ++i)
                measureGuide(guides, stale[i], *held, scratch);
        });
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
