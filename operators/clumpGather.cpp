#include "operators/clumpGather.h"

#include <numeric>

#include "model/hash.h"

namespace corvelle {

namespace {

/// Completes what follows from the centers: who belongs to whom, and the numbers.
void bind(const GatherSource& source, GatheredClumps& out) {
    out.binding = bindClumps(source.strands, source.core, out.centers,
                             {.strandRegions = source.strandRegions, .parts = source.parts});
    out.numbers = clumpNumbers(out.centers.ids);
}

void indexAxes(GatheredClumps& out) {
    for (std::size_t c = 0; c < out.axis.size(); ++c)
        if (out.axis[c] >= 0)
            out.clumpsOfAxis.emplace_back(std::uint32_t(out.axis[c]), std::uint32_t(c));
    std::sort(out.clumpsOfAxis.begin(), out.clumpsOfAxis.end());
}

/// The member rooted nearest to its clump's center; ties go to the lower id.
std::int64_t nearestMember(const StrandSet& strands, std::span<const std::uint32_t> members,
                           Vec3f center, const std::vector<std::uint8_t>& allowed) {
    std::int64_t best = -1;
    float least = 0.0f;
    for (const std::uint32_t s : members) {
        if (!allowed.empty() && !allowed[s]) continue;
        const float d = lengthSquared(strands.pointsOf(s).front() - center);
        if (best < 0 || d < least ||
            (d == least && strands.ids()[s] < strands.ids()[std::size_t(best)])) {
            best = s;
            least = d;
        }
    }
    return best;
}

/// The regions of centers that say none: those of the strands rooted nearest.
std::vector<float> regionsNear(const GatherSource& source, std::span<const Vec3f> positions) {
    std::vector<Vec3f> roots;
    std::vector<float> regions;
    for (const std::uint32_t s : source.core)
        if (source.strands.pointCountOf(s) > 0) {
            roots.push_back(source.strands.pointsOf(s).front());
            regions.push_back((*source.strandRegions)[s]);
        }
    const PointIndex index(roots);
    std::vector<float> out(positions.size(), -1.0f);
    for (std::size_t i = 0; i < positions.size(); ++i)
        if (Neighbor nearest; index.nearestOne(positions[i], nearest))
            out[i] = regions[nearest.index];
    return out;
}

}  // namespace

std::uint64_t CenterCurves::rootsHash() const {
    std::uint64_t h = mix64(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        h = hashCombine(h, ids[i]);
        const Vec3f p = points[i].front();
        const float values[] = {p.x,        p.y,        p.z,
                                roots[i].u, roots[i].v, regions.empty() ? 0.0f : regions[i]};
        h = hashFloatBits(hashCombine(h, roots[i].triangle), values, std::size(values));
    }
    return h;
}

CenterCurves centerCurves(const NodeValue& value, CentersFrom from, const std::string& region,
                          std::vector<std::uint32_t>& index) {
    CenterCurves all;
    std::vector<float> regions;
    bool carried = false;
    if (const auto* strands = std::get_if<StrandsPtr>(&value); strands && *strands) {
        const StrandSet& set = **strands;
        all.ids.assign(set.ids().begin(), set.ids().end());
        all.roots.assign(set.roots().begin(), set.roots().end());
        for (std::size_t s = 0; s < set.strandCount(); ++s) all.points.push_back(set.pointsOf(s));
        if (const auto* channel = region.empty() ? nullptr : set.strandChannel(region)) {
            carried = true;
            regions = *channel;
        }
    } else if (const auto* guides = std::get_if<GuidesPtr>(&value); guides && *guides) {
        const GuideSet& set = **guides;
        all.ids.assign(set.ids().begin(), set.ids().end());
        all.roots.assign(set.roots().begin(), set.roots().end());
        carried = !region.empty() && std::ranges::count(set.attributeNames(), region) > 0;
        for (std::size_t g = 0; g < set.size(); ++g) {
            all.points.push_back(set.pointsOf(g));
            if (carried) regions.push_back(set.attribute(g, region));
        }
    }

    const std::size_t least = from == CentersFrom::InputCurves ? 2 : 1;
    index.clear();
    for (std::uint32_t i = 0; i < all.ids.size(); ++i)
        if (all.points[i].size() >= least) index.push_back(i);
    std::stable_sort(index.begin(), index.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return all.ids[a] < all.ids[b]; });
    CenterCurves out;
    for (const std::uint32_t i : index) {
        out.ids.push_back(all.ids[i]);
        out.roots.push_back(all.roots[i]);
        out.points.push_back(all.points[i]);
        if (carried) out.regions.push_back(regions[i]);
    }
    return out;
}

GatheredClumps gatherAroundStrands(const GatherSource& source,
                                   std::span<const std::uint32_t> picked) {
    GatheredClumps out;
    for (const std::uint32_t s : picked) {
        out.centers.ids.push_back(source.strands.ids()[s]);
        out.centers.positions.push_back(source.strands.pointsOf(s).front());
        if (source.strandRegions) out.centers.regions.push_back((*source.strandRegions)[s]);
    }
    bind(source, out);
    out.axis.assign(picked.begin(), picked.end());
    indexAxes(out);
    return out;
}

GatheredClumps gatherAroundCurves(const GatherSource& source, const CenterCurves& curves,
                                  std::span<const std::uint32_t> index, bool curvesAreAxes) {
    GatheredClumps out;
    out.centersHash = curves.rootsHash();
    out.centers.ids = curves.ids;
    for (const auto& points : curves.points) out.centers.positions.push_back(points.front());
    if (source.strandRegions)
        out.centers.regions =
            curves.regions.empty() ? regionsNear(source, out.centers.positions) : curves.regions;
    bind(source, out);

    const std::size_t clumps = curves.size();
    out.axis.assign(clumps, -1);
    if (curvesAreAxes) {
        for (std::size_t c = 0; c < clumps; ++c) out.axis[c] = index[c];
    } else {
        // As with picked ones: an axis that every preview holds, while there are enough of those.
        std::vector<std::uint8_t> allowed;
        if (source.core.size() < source.strands.strandCount() && 2 * clumps <= source.core.size()) {
            allowed.assign(source.strands.strandCount(), 0);
            for (const std::uint32_t s : source.core) allowed[s] = 1;
        }
        for (std::size_t c = 0; c < clumps; ++c) {
            const auto members = out.binding.membersOf(c);
            const Vec3f center = out.centers.positions[c];
            out.axis[c] = nearestMember(source.strands, members, center, allowed);
            if (out.axis[c] < 0 && !allowed.empty())
                out.axis[c] = nearestMember(source.strands, members, center, {});
        }
    }
    indexAxes(out);
    return out;
}

}  // namespace corvelle
