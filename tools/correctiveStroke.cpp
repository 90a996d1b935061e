#include "tools/correctiveStroke.h"

#include <algorithm>
#include <utility>

#include "model/polyline.h"

namespace corvelle {
namespace {

constexpr double kLeastWeight = 0.001;
constexpr float kLeastOffset = 0.0001f;  // of the guide's length

/// The frame offsets are in: along the root triangle's first edge, across it, and its normal.
struct OffsetFrame {
    Vec3f edge{1, 0, 0}, across{0, 1, 0}, normal{0, 0, 1};
    Vec3f parts(Vec3f d) const { return {dot(d, edge), dot(d, across), dot(d, normal)}; }
};

OffsetFrame offsetFrame(const ScalpMesh& scalp, const StrandRoot& root) {
    OffsetFrame frame;
    if (!scalp.validRoot(root)) return frame;
    const Triangle& t = scalp.triangles()[std::size_t(root.triangle)];
    frame.edge = normalized(scalp.points()[std::size_t(t[1])] - scalp.points()[std::size_t(t[0])]);
    frame.normal = scalp.faceNormal(root.triangle);
    frame.across = cross(frame.normal, frame.edge);
    return frame;
}

/// Offsets of another point count, read at a share of the guide.
Vec3f offsetAt(const std::vector<Vec3f>& offsets, std::size_t i, std::size_t count) {
    if (offsets.empty()) return {};
    if (offsets.size() == count) return offsets[i];
    const float at = float(i) / float(count - 1) * float(offsets.size() - 1);
    const std::size_t below = std::min(std::size_t(at), offsets.size() - 1);
    return mix(offsets[below], offsets[std::min(below + 1, offsets.size() - 1)], at - float(below));
}

}  // namespace

bool commitCorrective(const StrokeState& state, StrokeHost& host, StrokeDocument& document) {
    const std::shared_ptr<const Correctives> before = host.correctives();
    const std::size_t at = host.activeCorrective();
    if (!before || at >= before->layers.size()) return false;
    Correctives next = *before;
    CorrectiveLayer& layer = next.layers[at];
    const double weight = correctiveWeight(layer, host.frame());
    if (!(weight >= kLeastWeight)) {
        host.addWarning("corrective layer '" + layer.name +
                        "' has no weight on this frame: raise its weight (and key it) to sculpt "
                        "here");
        return false;
    }
    // Level by level: a child's own share is what it moved beside following its parent.
    GuideHierarchy follows = *state.hierarchyBefore;
    for (int level = 0; level <= state.hierarchy.deepestLevel(); ++level) {
        std::vector<std::pair<std::uint64_t, std::vector<Vec3f>>> moved;
        for (const std::uint64_t id : state.touched) {
            const GuidePtr from = follows.guide(id), to = state.hierarchy.guide(id);
            if (!from || !to || state.hierarchy.depthOf(to->group) != level) continue;
            const std::size_t count = to->points.size();
            if (from->points.size() != count || from->points == to->points) continue;
            const OffsetFrame frame = offsetFrame(*state.scalp, from->root);
            std::vector<Vec3f>& stored = layer.offsets[id];
            std::vector<Vec3f> offsets(count);
            for (std::size_t i = 0; i < count; ++i)
                offsets[i] = offsetAt(stored, i, count) +
                             frame.parts(to->points[i] - from->points[i]) / float(weight);
            const float least = kLeastOffset * polylineLength(from->points);
            const bool isSmall = std::all_of(offsets.begin(), offsets.end(), [&](Vec3f o) {
                return lengthSquared(o) < least * least;
            });
            if (isSmall)
                layer.offsets.erase(id);
            else
                stored = std::move(offsets);
            moved.emplace_back(id, to->points);
        }
        if (!moved.empty()) follows.setPoints(moved);
    }
    if (next == *before) return true;
    document.set(DocumentSlot::Correctives, correctivesJson(next));
    document.set(DocumentSlot::ShotLayer, correctivesJson({{layer}}));
    return true;
}

}  // namespace corvelle
