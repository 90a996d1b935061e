#include "model/testing/tuft.h"

#include <cmath>
#include <vector>

#include "model/elementary.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr float kTwoPi = 6.2831853f;

std::size_t pointCountFor(const TuftSettings& settings, std::uint64_t id) {
    const std::size_t most = settings.pointsPerStrand;
    if (settings.degenerate && draw(drawBase(settings.seed, "tuft.few"), id) < 0.1f)
        return mix64(id) % 3;
    if (!settings.uneven || most < 3) return most;
    return 2 + std::size_t(draw(drawBase(settings.seed, "tuft.count"), id) * float(most - 1));
}

}  // namespace

StrandSet makeTuft(const TuftSettings& settings) {
    const std::uint64_t idBase = drawBase(settings.seed, "tuft.id");
    std::vector<std::uint64_t> counts(settings.strands);
    for (std::size_t s = 0; s < counts.size(); ++s)
        counts[s] = pointCountFor(settings, hashCombine(idBase, std::uint64_t(s)));

    StrandSet set;
    set.allocate(counts);
    const std::span<std::uint64_t> ids = set.mutableIds();
    const std::span<StrandRoot> roots = set.mutableRoots();
    const std::span<Vec3f> points = set.mutablePoints();
    const std::span<float> widths = set.mutableWidths();
    std::span<float> tone, clump, shares;
    if (settings.channels) {
        tone = set.mutableStrandChannel("tone", 0.5f);
        clump = set.mutableStrandChannel("clumpId", -1.0f);
        shares = set.mutablePointChannel("share", 0.25f);
        set.setStrandChannelDiscrete("clumpId");
    }
    parallelRange(0, counts.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            ids[s] = hashCombine(idBase, std::uint64_t(s));
            SplitMix random(ids[s]);
            const float angle = random.nextRange(0.0f, kTwoPi);
            const float radius = settings.radius * std::sqrt(random.nextFloat());
            const Vec3f root{radius * math::cos(angle), 0.0f, radius * math::sin(angle)};
            Vec3f tip{random.nextRange(-0.5f, 0.5f), 1.0f, random.nextRange(-0.5f, 0.5f)};
            tip *= settings.length * random.nextRange(0.5f, 1.5f) / length(tip);
            const Vec3f side = anyPerpendicular(tip) * (0.1f * random.nextFloat() * length(tip));
            const float phase = random.nextRange(0.0f, kTwoPi);
            const float u = random.nextFloat(), v = random.nextFloat() * (1.0f - u);
            const std::uint64_t triangle = random.nextU64();
            if (settings.triangles > 0)
                roots[s] = {std::int32_t(triangle % std::uint64_t(settings.triangles)), u, v};
            const float width = random.nextRange(0.005f, 0.01f);
            const float toneValue = random.nextFloat();
            const float clumpValue = float(random.nextU64() % 16);
            if (settings.channels) {
                tone[s] = toneValue;
                clump[s] = clumpValue;
            }
            if (settings.degenerate && random.nextFloat() < 0.05f) tip = {};
            const std::size_t first = std::size_t(set.offsets()[s]), n = set.pointCountOf(s);
            for (std::size_t i = 0; i < n; ++i) {
                const float t = n > 1 ? float(i) / float(n - 1) : 0.0f;
                const float wave = (tip == Vec3f{} ? 0.0f : t) * math::sin(phase + kTwoPi * t);
                points[first + i] = root + tip * t + side * wave;
                widths[first + i] = width * (1.0f - 0.8f * t);
                if (settings.channels) shares[first + i] = t;
            }
        }
    });
    return set;
}

}  // namespace corvelle
