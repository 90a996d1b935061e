#include "session/scalpFollow.h"

#include <algorithm>

#include "model/carry.h"
#include "model/parallel.h"

namespace corvelle {

StrandsPtr deformToScalp(const StrandsPtr& strands, const ScalpMesh& rest, const ScalpMesh& current) {
    if (!strands || strands->strandCount() == 0) return strands;
    auto out = std::make_shared<StrandSet>(*strands);  // shares all but the points
    const std::span<Vec3f> points = out->overwritePoints();
    const auto roots = strands->roots();
    const auto offsets = strands->offsets();

    // Vane normals turn with the root; they come as a triple of point or strand channels.
    struct Triple {
        std::span<float> x, y, z;
    };
    const auto triple = [&](bool perPoint) -> Triple {
        const char* names[] = {"vaneNormalX", "vaneNormalY", "vaneNormalZ"};
        for (const char* name : names)
            if (!(perPoint ? strands->pointChannel(name) : strands->strandChannel(name))) return {};
        const auto channel = [&](const char* name) {
            return perPoint ? out->mutablePointChannel(name, 0.0f) : out->mutableStrandChannel(name, 0.0f);
        };
        return {channel(names[0]), channel(names[1]), channel(names[2])};
    };
    const Triple strandVanes = triple(false);
    const Triple pointVanes = triple(true);
    const auto turn = [](const Triple& vanes, std::size_t i, const Rotation& rotation) {
        const Vec3f n = rotation({vanes.x[i], vanes.y[i], vanes.z[i]});
        vanes.x[i] = n.x;
        vanes.y[i] = n.y;
        vanes.z[i] = n.z;
    };

    parallelRange(0, strands->strandCount(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const RootMotion motion = rootMotion(roots[s], rest, current);
            const auto from = strands->pointsOf(s);
            Vec3f* to = points.data() + offsets[s];
            if (motion.identity) {
                std::copy(from.begin(), from.end(), to);
                continue;
            }
            for (std::size_t i = 0; i < from.size(); ++i) to[i] = motion(from[i]);
            if (!strandVanes.x.empty()) turn(strandVanes, s, motion.rotation);
            if (!pointVanes.x.empty())
                for (std::size_t i = offsets[s]; i < offsets[s + 1]; ++i) turn(pointVanes, i, motion.rotation);
        }
    });
    return out;
}

GuidesPtr deformGuides(const GuidesPtr& guides, const ScalpMesh& from, const ScalpMesh& to) {
    if (!guides || guides->empty()) return guides;
    std::vector<GuideCurve> curves = guides->curves();
    for (GuideCurve& curve : curves) carry(curve.points, curve.root, from, to, curve.points);
    return std::make_shared<const GuideSet>(std::move(curves));
}

GuidesPtr rerootGuides(const GuidesPtr& guides, const ScalpMesh& scalp) {
    if (!guides || guides->empty()) return guides;
    std::vector<GuideCurve> curves = guides->curves();
    scalp.prepareQueries();
    parallelRange(0, curves.size(), 64, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            SurfaceHit hit;
            const bool found = scalp.closestPoint(curves[g].points.front(), ScalpMesh::kAnyDistance, hit);
            curves[g].root = found ? hit.root() : StrandRoot{};
        }
    });
    return std::make_shared<const GuideSet>(std::move(curves));
}

StrandsPtr ScalpFollow::deformed(const StrandsPtr& strands, const ScalpPtr& rest,
                                 const ScalpPtr& current) {
    if (!following || !strands) return strands;
    const auto found = std::ranges::find_if(slots, [&](const Slot& slot) {
        return slot.strands == strands && slot.rest == rest && slot.current == current;
    });
    if (found != slots.end()) {
        std::rotate(slots.begin(), found, found + 1);  // newest first
        return slots[0].result;
    }
    std::rotate(slots.begin(), slots.end() - 1, slots.end());
    slots[0] = {strands, deformToScalp(strands, *rest, *current), rest, current};
    return slots[0].result;
}

}  // namespace corvelle
