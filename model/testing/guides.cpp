#include "model/testing/guides.h"

#include <cmath>

#include "model/elementary.h"
#include "model/hash.h"

namespace corvelle {
namespace {

StrandRoot randomRoot(const ScalpMesh& scalp, SplitMix& random) {
    const auto triangle = std::int32_t(random.nextU64() % scalp.triangles().size());
    const float u = random.nextFloat(), v = random.nextFloat() * (1.0f - u);
    return {triangle, u, v};
}

}  // namespace

std::vector<Vec3f> makeCurl(const ScalpMesh& scalp, const StrandRoot& root, std::size_t count,
                            float length, std::uint64_t seed) {
    SplitMix random(seed);
    const SurfaceFrame frame = scalp.surfaceFrame(root);
    const float turns = random.nextRange(0.5f, 5.0f), lean = random.nextRange(-0.5f, 0.5f);
    std::vector<Vec3f> points(count);
    for (std::size_t i = 0; i < count; ++i) {
        const float t = float(i) / float(count - 1);
        const float wave = 0.1f * length * t;
        points[i] = frame.origin + frame.normal * (length * t * (1.0f - 0.3f * t)) +
                    frame.tangent * (length * lean * t + wave * math::sin(turns * t)) +
                    frame.binormal * (wave * math::cos(turns * t));
    }
    points.front() = frame.origin;
    return points;
}

GuideHierarchy makeHierarchy(const ScalpMesh& scalp, const MadeHierarchy& settings) {
    SplitMix random(settings.seed);
    GuideHierarchy out;
    out.setScalpTopology(scalp.topologyHash());
    out.addAttribute("stiff", 0.25f);
    std::uint32_t group = out.addGroup("hair", 0);
    const std::uint32_t brow = out.addGroup("brow", 0);
    const std::size_t browCount = settings.primaries / 3;
    for (std::size_t g = 0; g < settings.primaries + browCount; ++g) {
        const StrandRoot root = randomRoot(scalp, random);
        const float length = random.nextRange(2.0f, 12.0f);
        const std::uint64_t id = out.addGuide(
            g < settings.primaries ? group : brow, root,
            makeCurl(scalp, root, settings.pointsPerGuide, length, random.nextU64()), 0, &scalp);
        if (g % 4 != 3)
            out.setTube(id, {random.nextRange(0.3f, 1.0f), 0.8f, random.nextRange(0.1f, 2.0f)},
                        random.nextRange(-4.0f, 4.0f));
        if (g % 3 == 0) out.setAttribute(id, "stiff", random.nextFloat());
        if (g % 3 == 1) {
            std::vector<float> mask(settings.pointsPerGuide);
            for (float& value : mask) value = random.nextFloat();
            out.setPointAttribute(id, "mask", std::move(mask));
        }
    }
    for (int level = 1; level <= settings.levels; ++level) {
        const std::uint32_t below =
            out.generateChildren(group, "hair_" + std::to_string(level),
                                 {.count = settings.children,
                                  .tipSpread = 1.5f,
                                  .twist = 0.7f,
                                  .jitter = 0.4f,
                                  .seed = settings.seed + std::uint64_t(level)},
                                 nullptr, &scalp);
        std::vector<std::uint64_t> made;
        for (const GuidePtr& guide : out.guides())
            if (guide->group == below) made.push_back(guide->id);
        for (std::size_t g = 0; g < made.size(); ++g) {
            const GuidePtr guide = out.guide(made[g]);
            if (g % 5 == 1)  // a child of its own point count
                out.setPoints(made[g], makeCurl(scalp, guide->root, settings.pointsPerGuide + 3,
                                                5.0f, random.nextU64()));
            if (g % 4 == 2) out.setTube(made[g], {0.4f, 0.9f}, random.nextRange(-2.0f, 2.0f));
            if (settings.locks && g % 6 == 4) out.setLocked(made[g], true);
        }
        group = below;
    }
    return out;
}

}  // namespace corvelle
