#include "hosts/blender/helper/guideCommands.h"

#include <algorithm>
#include <limits>
#include <set>

#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/scalpCommands.h"
#include "hosts/blender/helper/toolState.h"
#include "model/guideEdit.h"
#include "session/groomSession.h"

namespace corvelle {
namespace {

constexpr float kNewGuideTube = 0.1f;  ///< radius of a new hierarchy guide's tube, at root and tip
constexpr char kSetGuides[] = "set guides";  ///< the undo step

std::string readPose(const Json& request) {
    std::string pose = optionalString(request, "pose", "now");
    if (pose != "now" && pose != "rest") failRequest("bad_request", "pose is \"now\" or \"rest\"");
    return pose;
}

/// "flat" or "hierarchy", with "auto" resolved to `automatic`.
std::string readLayer(const Json& request, const char* field, const char* automatic) {
    std::string layer = optionalString(request, field, "auto");
    if (layer == "auto") return automatic;
    if (layer != "flat" && layer != "hierarchy")
        failRequest("bad_request", std::string(field) + " is \"auto\", \"flat\" or \"hierarchy\"");
    return layer;
}

/// The curves of a request, in groom space, ids 0 where none was given.
std::vector<GuideCurve> readCurves(const CommandContext& context) {
    const Json& request = context.request;
    const std::vector<Vec3f> points = readPoints(requireField(request, "points"), "points",
                                                 context.session().space, context.regions);
    const std::vector<std::int32_t> counts =
        readInts(requireField(request, "counts"), "counts", 1, context.regions);
    std::vector<std::uint64_t> ids;
    if (const Json* given = findField(request, "ids")) {
        ids = readIds(*given, "ids", context.regions);
        if (ids.size() != counts.size())
            failRequest("bad_request", "ids must hold one ID per curve");
    }
    std::int64_t total = 0;
    for (const std::int32_t count : counts) total += count;
    if (total != std::int64_t(points.size()))
        failRequest("bad_request", "the counts add up to " + std::to_string(total) +
                                       " points, not the " + std::to_string(points.size()) +
                                       " given");
    for (const std::int32_t count : counts)
        if (count < 2) failRequest("bad_request", "a guide needs 2 points or more");
    std::set<std::uint64_t> seen;
    for (const std::uint64_t id : ids)
        if (id != 0 && !seen.insert(id).second)
            failRequest("bad_request", "guide ID " + std::to_string(id) + " is given twice");

    std::vector<GuideCurve> curves(counts.size());
    auto next = points.begin();
    for (std::size_t g = 0; g < curves.size(); ++g) {
        if (!ids.empty()) curves[g].id = ids[g];
        curves[g].points.assign(next, next + counts[g]);
        next += counts[g];
    }
    return curves;
}

struct Edit {
    std::size_t changed = 0, added = 0, removed = 0;
    bool updated = false;
};

Edit setFlatGuides(GroomSession& groom, std::vector<GuideCurve> curves, bool restPose) {
    const GuidesPtr held = restPose ? groom.restGuides() : groom.document().guides;
    std::uint64_t largest = 0;
    if (held)
        for (const std::uint64_t id : held->ids()) largest = std::max(largest, id);
    for (const GuideCurve& curve : curves) largest = std::max(largest, curve.id);
    for (GuideCurve& curve : curves)
        if (curve.id == 0) {
            if (largest == std::numeric_limits<std::uint64_t>::max())
                failRequest("bad_request", "guide ID " + std::to_string(largest) +
                                               " leaves none for the curves without an ID");
            curve.id = ++largest;
        }

    Edit edit;
    std::size_t kept = 0;
    for (GuideCurve& curve : curves) {
        const std::size_t at = held ? held->indexOf(curve.id) : 0;
        if (!held || at == held->size()) {
            ++edit.added;
            continue;
        }
        ++kept;
        edit.changed += !std::ranges::equal(held->pointsOf(at), curve.points);
        curve.detail = std::make_shared<const GuideDetail>(held->detail(at));
    }
    if (held) edit.removed = held->size() - kept;

    GuidesPtr next = std::make_shared<const GuideSet>(std::move(curves));
    const ScalpPtr scalp = restPose ? groom.restScalp() : groom.scalp();
    if (scalp) next = rerootGuides(next, *scalp);
    edit.updated = held ? !(*held == *next) : !next->empty();
    if (!edit.updated) return edit;
    if (restPose) {
        groom.setRestGuides(next);
        if (next->empty()) return edit;
        applyHostGuides(groom);
    } else {
        groom.setGuides(next);
    }
    return edit;
}

/// The first root group, made when there is none.
std::uint32_t rootGroupOf(GuideHierarchy& hierarchy) {
    for (const GuideGroup& group : hierarchy.groups())
        if (group.parent == 0) return group.id;
    return hierarchy.addGroup("guides", 0);
}

Edit setHierarchyGuides(HelperSession& session, const std::vector<GuideCurve>& curves,
                        bool restPose, bool keepMissing) {
    finishStroke(session);
    GroomSession& groom = *session.groom;
    const std::shared_ptr<const GuideHierarchy> stored = groom.hierarchy();
    const std::shared_ptr<const GuideHierarchy> shown = restPose ? stored : groom.activeHierarchy();
    const ScalpPtr scalp = restPose ? groom.hierarchyPose() : groom.scalp();
    if (scalp) scalp->prepareQueries();

    // The edit is made in the pose that the request speaks of; what it touched is then taken over
    // into the stored pose, so that nothing else moves by a bit.
    GuideHierarchy work = *shown;
    Edit edit;
    std::vector<std::pair<std::uint64_t, std::vector<Vec3f>>> moved;
    std::vector<std::uint64_t> named, touched;
    for (const GuideCurve& curve : curves) {
        const GuidePtr guide = curve.id != 0 ? work.guide(curve.id) : nullptr;
        if (!guide) continue;
        named.push_back(curve.id);
        if (guide->points == curve.points) continue;
        moved.emplace_back(curve.id, curve.points);
        touched.push_back(curve.id);
    }
    edit.changed = moved.size();
    if (!moved.empty()) work.setPoints(moved);

    if (!keepMissing) {
        std::ranges::sort(named);
        std::vector<std::uint64_t> gone;
        for (const GuidePtr& guide : work.guides())
            if (!std::ranges::binary_search(named, guide->id)) gone.push_back(guide->id);
        const std::size_t before = work.size();
        if (!gone.empty()) work.removeGuides(gone);
        edit.removed = before - work.size();
    }
    struct Added {
        std::uint64_t id;
        StrandRoot root;
    };
    std::vector<Added> added;
    // Fresh ids lie above every held and given one (those of children, made from hashes, aside).
    std::uint64_t fresh = work.nextGuideId();
    for (const GuideCurve& curve : curves)
        if (curve.id < kCountedIds) fresh = std::max(fresh, curve.id + 1);
    for (const GuideCurve& curve : curves) {
        // A guide that went with its parent comes back as one of its own.
        if (curve.id != 0 && work.guide(curve.id)) continue;
        SurfaceHit hit;
        StrandRoot root;
        if (scalp && scalp->closestPoint(curve.points.front(), ScalpMesh::kAnyDistance, hit))
            root = hit.root();
        while (curve.id == 0 && work.guide(fresh)) ++fresh;  // it may have come among the hashes
        const std::uint64_t id = work.addGuide(rootGroupOf(work), root, curve.points,
                                               curve.id != 0 ? curve.id : fresh++, scalp.get());
        work.setTube(id, {kNewGuideTube, kNewGuideTube}, 0.0f);
        added.push_back({id, root});
    }
    edit.added = added.size();
    edit.updated = edit.changed + edit.added + edit.removed > 0;
    if (!edit.updated) return edit;
    if (shown == stored) {
        editGuides(session, std::move(work), kSetGuides);
        return edit;
    }
    const ScalpPtr bind = groom.hierarchyPose();
    const GuideHierarchy back = work.deformed(*scalp, *bind);
    GuideHierarchy next = *stored;
    moved.clear();
    for (const std::uint64_t id : touched)
        if (const GuidePtr guide = back.guide(id)) moved.emplace_back(id, guide->points);
    if (!moved.empty()) next.setPoints(moved);
    std::vector<std::uint64_t> gone;
    for (const GuidePtr& guide : next.guides())
        if (!back.guide(guide->id)) gone.push_back(guide->id);
    if (!gone.empty()) next.removeGuides(gone);
    for (const Added& guide : added) {
        next.addGuide(rootGroupOf(next), guide.root, back.guide(guide.id)->points, guide.id,
                      bind.get());
        next.setTube(guide.id, {kNewGuideTube, kNewGuideTube}, 0.0f);
    }
    editGuides(session, std::move(next), kSetGuides);
    return edit;
}

}  // namespace

Json getGuidesCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    GroomSession& groom = *session.groom;
    const GuidesPtr& flat = groom.document().guides;
    const bool hasFlat = flat != nullptr;
    const bool hasHierarchy = !groom.hierarchy()->empty();
    const std::string source =
        readLayer(context.request, "source", !hasFlat && hasHierarchy ? "hierarchy" : "flat");
    const std::string pose = readPose(context.request);
    const bool groomSpace = optionalString(context.request, "space", "host") == "groom";

    GuidesPtr guides;
    if (source == "hierarchy")
        guides = (pose == "rest" ? groom.hierarchy() : groom.activeHierarchy())->all();
    else
        guides = pose == "rest" && groom.restGuides() ? groom.restGuides() : flat;
    if (!guides) guides = std::make_shared<const GuideSet>();

    std::vector<std::int32_t> counts(guides->size());
    for (std::size_t g = 0; g < counts.size(); ++g)
        counts[g] = std::int32_t(guides->pointsOf(g).size());
    AnswerPool& pool = session.guidePool;
    pool.prepare(AnswerPool::bytesOf(guides->points().size(), sizeof(Vec3f)) +
                 AnswerPool::bytesOf(counts.size(), 4) + AnswerPool::bytesOf(guides->size(), 8));
    Json result{{"guides", guides->size()},
                {"points", guides->points().size()},
                {"source", source},
                {"pose", pose},
                {"arrays",
                 {{"points", writePoints(pool, guides->points(), session.space, groomSpace)},
                  {"counts", writeInts(pool, counts)},
                  {"ids", writeIds(pool, guides->ids())}}}};
    if (source == "hierarchy" && groom.hierarchyStale()) result["stale"] = true;
    return result;
}

Json setGuidesCommand(const CommandContext& context) {
    GroomSession& groom = *context.session().groom;
    std::vector<GuideCurve> curves = readCurves(context);
    const bool hierarchyInUse = !groom.document().guides && !groom.hierarchy()->empty();
    const std::string target =
        readLayer(context.request, "target", hierarchyInUse ? "hierarchy" : "flat");
    const std::string pose = readPose(context.request);
    const bool keepMissing = optionalBool(context.request, "keepMissing", false);
    const std::size_t count = curves.size();
    const bool flat = target == "flat";
    const Edit edit =
        flat ? setFlatGuides(groom, std::move(curves), pose == "rest")
             : setHierarchyGuides(context.session(), curves, pose == "rest", keepMissing);
    Json result{{"target", target},    {"guides", count},         {"changed", edit.changed},
                {"added", edit.added}, {"removed", edit.removed}, {"updated", edit.updated}};
    if (flat) result["pose"] = pose;
    return result;
}

}  // namespace corvelle
