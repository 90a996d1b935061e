#include "session/scalpRefinement.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>

#include "model/elementary.h"
#include "model/guideEdit.h"

namespace corvelle {

namespace {

constexpr std::size_t kKeptTopologies = 8;
constexpr std::size_t kKeptPoses = 16;

std::vector<std::int32_t> polygonsOf(const ScalpMesh& mesh) {
    if (mesh.polygons().empty()) return std::vector<std::int32_t>(mesh.triangles().size(), 1);
    return {mesh.polygons().begin(), mesh.polygons().end()};
}

/// The triangles of a polygon go round its first corner, in order.
bool isFan(std::span<const Triangle> triangles) {
    for (std::size_t t = 1; t < triangles.size(); ++t)
        if (triangles[t][0] != triangles[0][0] || triangles[t][1] != triangles[t - 1][2])
            return false;
    return true;
}

Vec2f onCircle(std::size_t corner, std::size_t corners, float offset) {
    const double angle = 2.0 * std::numbers::pi * double(corner) / double(corners);
    return {float(math::cos(angle)) + offset, float(math::sin(angle))};
}

/// Every polygon as a regular one on the unit circle, per triangle corner. The triangles of one
/// that is no fan are refined each by itself, and lie side by side.
std::vector<Vec2f> flatLayout(const ScalpMesh& mesh, std::span<const std::int32_t> polygons) {
    constexpr float kApart = 3.0f;
    std::vector<Vec2f> flat(3 * mesh.triangles().size());
    std::size_t first = 0;
    for (const std::int32_t size : polygons) {
        const auto count = std::size_t(size);
        const bool fan = isFan(mesh.triangles().subspan(first, count));
        for (std::size_t t = 0; t < count; ++t)
            for (std::size_t c = 0; c < 3; ++c) {
                const std::size_t corner = fan && c > 0 ? t + c : c;
                flat[3 * (first + t) + c] =
                    fan ? onCircle(corner, count + 2, 0.0f) : onCircle(c, 3, kApart * float(t));
            }
        first += count;
    }
    return flat;
}

float cross(Vec2f a, Vec2f b) { return a.x * b.y - a.y * b.x; }
Vec2f minus(Vec2f a, Vec2f b) { return {a.x - b.x, a.y - b.y}; }

}  // namespace

RefinedTopology::RefinedTopology(const ScalpMesh& cage)
    : plan_(cage, cage.subdivision()), topology_(cage.topologyHash()), polygons_(polygonsOf(cage)) {
    faceOf_.reserve(cage.triangles().size());
    for (std::size_t f = 0; f < polygons_.size(); ++f)
        faceOf_.insert(faceOf_.end(), std::size_t(polygons_[f]), std::uint32_t(f));
    cageFlat_ = flatLayout(cage, polygons_);

    ScalpMesh flat({cage.points().begin(), cage.points().end()},
                   {cage.triangles().begin(), cage.triangles().end()}, false);
    flat.setPolygons({cage.polygons().begin(), cage.polygons().end()});
    if (!cage.scalps().empty()) flat.setScalps(cage.scalps());
    flat.setUvs(cageFlat_);
    flat.setSubdivision(cage.subdivision(), "");
    const ScalpPtr refined = plan_.apply(flat);
    refinedFlat_.assign(refined->uvs().begin(), refined->uvs().end());

    const std::span<const std::int32_t> faces = plan_.cageFace();
    faceOffsets_.assign(polygons_.size() + 1, 0);
    for (const std::int32_t face : faces) ++faceOffsets_[std::size_t(face) + 1];
    for (std::size_t f = 0; f < polygons_.size(); ++f) faceOffsets_[f + 1] += faceOffsets_[f];
    faceTriangles_.resize(faces.size());
    std::vector<std::uint32_t> next(faceOffsets_.begin(), faceOffsets_.end() - 1);
    for (std::size_t t = 0; t < faces.size(); ++t)
        faceTriangles_[next[std::size_t(faces[t])]++] = std::uint32_t(t);
}

bool RefinedTopology::fits(const ScalpMesh& cage) const {
    return cage.topologyHash() == topology_ && cage.subdivision() == plan_.levels() &&
           (cage.polygons().empty()
                ? std::ranges::all_of(polygons_, [](std::int32_t size) { return size == 1; })
                : std::ranges::equal(cage.polygons(), polygons_));
}

StrandRoot RefinedTopology::refinedRoot(const StrandRoot& root) const {
    if (root.triangle < 0 || std::size_t(root.triangle) >= faceOf_.size()) return root;
    const Vec2f* corner = &cageFlat_[3 * std::size_t(root.triangle)];
    const float w = 1.0f - root.u - root.v;
    const Vec2f at{root.u * corner[0].x + root.v * corner[1].x + w * corner[2].x,
                   root.u * corner[0].y + root.v * corner[1].y + w * corner[2].y};
    const std::uint32_t face = faceOf_[std::size_t(root.triangle)];
    StrandRoot best = root;
    float bestInside = -std::numeric_limits<float>::infinity();
    for (std::uint32_t i = faceOffsets_[face]; i < faceOffsets_[face + 1]; ++i) {
        const std::uint32_t triangle = faceTriangles_[i];
        const Vec2f* p = &refinedFlat_[3 * std::size_t(triangle)];
        const float area = cross(minus(p[1], p[0]), minus(p[2], p[0]));
        if (area == 0.0f) continue;
        const float u = cross(minus(p[1], at), minus(p[2], at)) / area;
        const float v = cross(minus(p[2], at), minus(p[0], at)) / area;
        const float inside = std::min({u, v, 1.0f - u - v});
        if (inside <= bestInside) continue;
        bestInside = inside;
        best = {std::int32_t(triangle), u, v};
    }
    if (bestInside < 0.0f) {  // on an edge, or of weights beyond the triangle
        best.u = std::clamp(best.u, 0.0f, 1.0f);
        best.v = std::clamp(best.v, 0.0f, 1.0f - best.u);
    }
    return best;
}

ScalpRefinement::TopologyPtr ScalpRefinement::topologyOf(const ScalpMesh& cage) {
    auto found = std::ranges::find_if(topologies_,
                                      [&](const TopologyPtr& held) { return held->fits(cage); });
    if (found == topologies_.end()) {
        topologies_.push_back(std::make_shared<const RefinedTopology>(cage));
        found = topologies_.end() - 1;
    }
    std::rotate(topologies_.begin(), found, found + 1);
    if (topologies_.size() > kKeptTopologies) topologies_.pop_back();
    return topologies_.front();
}

ScalpPtr ScalpRefinement::mesh(const ScalpPtr& cage) {
    if (!cage || cage->subdivision() == 0 || cage->triangles().empty()) return cage;
    auto found = std::ranges::find(poses_, cage, &Pose::cage);
    if (found == poses_.end()) {
        poses_.push_back({cage, topologyOf(*cage)->plan().apply(*cage)});
        found = poses_.end() - 1;
    }
    std::rotate(poses_.begin(), found, found + 1);
    if (poses_.size() > kKeptPoses) poses_.pop_back();
    return poses_.front().refined;
}

ScalpRefinement::Scalps ScalpRefinement::meshes(const Scalps& named) {
    Scalps out = named;
    for (auto& scalp : out) scalp.second = mesh(scalp.second);
    return out;
}

void ScalpRefinement::setCages(const ScalpPtr& own, const Scalps& named) {
    std::vector<Run> runs;
    bool refines = false;
    std::size_t first = 0, refinedFirst = 0;
    const auto add = [&](const ScalpPtr& cage) {
        if (!cage) return;
        Run run{.topologyHash = cage->topologyHash(), .first = first, .refinedFirst = refinedFirst};
        run.count = cage->triangles().size();
        if (cage->subdivision() > 0 && run.count > 0) run.topology = topologyOf(*cage);
        refines = refines || run.topology;
        first += run.count;
        refinedFirst += run.topology ? run.topology->refinedTriangles() : run.count;
        runs.push_back(std::move(run));
    };
    add(own);
    for (const auto& scalp : named) add(scalp.second);
    const bool same = std::ranges::equal(runs, runs_, [](const Run& a, const Run& b) {
        return a.topology == b.topology && a.topologyHash == b.topologyHash;
    });
    runs_ = std::move(runs);
    refines_ = refines;
    ownPoints_ = own ? own->points().size() : 0;
    if (same) return;
    guides_ = {};
    hierarchy_ = {};
    maps_ = {};
}

StrandRoot ScalpRefinement::root(const StrandRoot& root) const {
    if (root.triangle < 0) return root;
    for (const Run& run : runs_) {
        const std::size_t local = std::size_t(root.triangle) - run.first;
        if (std::size_t(root.triangle) < run.first || local >= run.count) continue;
        StrandRoot out{std::int32_t(local), root.u, root.v};
        if (run.topology) out = run.topology->refinedRoot(out);
        out.triangle += std::int32_t(run.refinedFirst);
        return out;
    }
    return {-1, root.u, root.v};  // beyond all scalps: it must not fall on a refined triangle
}

GuidesPtr ScalpRefinement::guides(const GuidesPtr& guides) {
    if (!refines_ || !guides) return guides;
    if (guides_.from != guides) {
        std::vector<GuideCurve> curves = guides->curves();
        for (GuideCurve& curve : curves) curve.root = root(curve.root);
        guides_ = {guides, std::make_shared<const GuideSet>(curves)};
    }
    return guides_.result;
}

std::shared_ptr<const GuideHierarchy> ScalpRefinement::hierarchy(
    const std::shared_ptr<const GuideHierarchy>& from) {
    if (!refines_ || !from || from->empty()) return from;
    if (hierarchy_.from == from) return hierarchy_.result;
    // A stroke changes few guides: the others are taken from the last answer.
    const auto& last = hierarchy_;
    bool alike = last.from && last.from->size() == from->size() &&
                 std::ranges::equal(last.from->groups(), from->groups()) &&
                 last.from->declaredAttributes() == from->declaredAttributes();
    for (std::size_t i = 0; alike && i < from->size(); ++i) {
        const Guide &a = *last.from->guides()[i], &b = *from->guides()[i];
        alike = a.id == b.id && a.parent == b.parent && a.group == b.group && a.locked == b.locked;
    }
    GuideHierarchy next = alike ? *last.result : *from;
    GuideEdit edit(next, "matchRender");
    for (std::uint32_t i = 0; i < from->size(); ++i) {
        const GuidePtr& guide = from->guides()[i];
        if (alike && last.from->guides()[i] == guide) continue;
        const StrandRoot place = root(guide->root);
        if (!alike && place == guide->root) continue;
        Guide& changed = edit.change(i);
        changed = *guide;
        changed.root = place;
    }
    edit.commit();
    hierarchy_ = {from, std::make_shared<const GuideHierarchy>(std::move(next))};
    return hierarchy_.result;
}

PartData ScalpRefinement::parts(PartData parts) const {
    if (refines_)
        for (PartLine& line : parts.lines)
            for (StrandRoot& point : line.points) point = root(point);
    return parts;
}

FlowData ScalpRefinement::flow(const FlowData& data, const ScalpMesh& cage,
                               const ScalpMesh& refined) const {
    if (!refines_) return data;
    FlowData out;
    for (const FlowPin& pin : data.pins) {
        const StrandRoot place = root(pin.at);
        if (!cage.validRoot(pin.at) || !refined.validRoot(place)) continue;
        const Rotation tip = Rotation::shortest(cage.faceNormal(pin.at.triangle),
                                                refined.faceNormal(place.triangle));
        try {
            out.pins.push_back(flowPin(refined, place, tip(flowPinDirection(cage, pin))));
            out.pins.back().line = pin.line;
        } catch (const std::invalid_argument&) {  // a face without an area has no directions
        }
    }
    for (FlowSink sink : data.sinks) {
        sink.at = root(sink.at);
        if (refined.validRoot(sink.at)) out.sinks.push_back(sink);
    }
    return out;
}

MapCatalogPtr ScalpRefinement::maps(const MapCatalogPtr& maps) {
    if (!maps || runs_.empty() || !runs_.front().topology) return maps;
    if (maps_.from == maps) return maps_.result;
    const SubdivisionPlan& plan = runs_.front().topology->plan();
    auto next = std::make_shared<MapCatalogValue>(*maps);
    bool changed = false;
    for (auto& entry : next->maps) {
        PaintedMap& map = entry.second;
        if (map.kind != PaintedMap::Kind::Vertices || !map.values || map.vertices != ownPoints_)
            continue;
        map.values = std::make_shared<const std::vector<float>>(
            plan.refineValues(*map.values, map.channels));
        map.vertices = map.values->size() / std::size_t(map.channels);
        changed = true;
    }
    maps_ = {maps, changed ? MapCatalogPtr(std::move(next)) : maps};
    return maps_.result;
}

}  // namespace corvelle
