#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/testing/meshes.h"
#include "operators/nearTriangle.h"

namespace corvelle {
namespace {

constexpr float kFar = std::numeric_limits<float>::infinity();

Vec3f anywhere(SplitMix& random, float reach) {
    return {random.nextRange(-reach, reach), random.nextRange(-reach, reach),
            random.nextRange(-reach, reach)};
}

TEST(NearTriangle, WalksToTheClosestOnASmoothSurface) {
    const ScalpMesh mesh = makeIcosphere(4, 3.0f);
    const NearTriangle walk(mesh);
    SplitMix random(2);
    std::size_t same = 0;
    constexpr std::size_t kPlaces = 4000;
    for (std::size_t i = 0; i < kPlaces; ++i) {
        // Outside, a patch of the surface is seen from far off its begin.
        const Vec3f p = normalized(anywhere(random, 1.0f)) * random.nextRange(3.1f, 9.0f);
        SurfaceHit begin, closest;
        ASSERT_TRUE(mesh.closestPoint(p + anywhere(random, 0.3f), ScalpMesh::kAnyDistance, begin));
        ASSERT_TRUE(mesh.closestPoint(p, ScalpMesh::kAnyDistance, closest));
        const NearTriangle::Found found = walk.from({&begin.triangle, 1}, p, kFar);
        const float d = std::sqrt(found.distanceSquared);
        EXPECT_GE(d, closest.distance * 0.99999f);
        EXPECT_NEAR(length(walk.pointOf(found).point - p), d, 1e-4f);
        same += d <= closest.distance * 1.00001f;
    }
    EXPECT_EQ(same, kPlaces);
}

TEST(NearTriangle, NeverEndsFartherOffThanItBegan) {
    const ScalpMesh soup = makeTriangleSoup(300, 4.0f, 2.0f, 5);
    const NearTriangle walk(soup);
    SplitMix random(3);
    for (int i = 0; i < 3000; ++i) {
        const Vec3f p = anywhere(random, 6.0f);
        std::array<std::int32_t, 7> begin;
        for (std::int32_t& t : begin) t = std::int32_t(random.nextU64() % 300);
        begin[3] = begin[1];
        const std::size_t count = 1 + random.nextU64() % begin.size();
        const auto some = std::span<const std::int32_t>(begin).first(count);
        const NearTriangle::Found still = walk.from(some, p, 0.0f);
        const NearTriangle::Found walked = walk.from(some, p, kFar);
        EXPECT_NE(std::ranges::find(some, still.triangle), some.end());
        EXPECT_LE(walked.distanceSquared, still.distanceSquared);
        for (const std::int32_t t : some)  // company does not count
            EXPECT_LE(still.distanceSquared, walk.from({&t, 1}, p, 0.0f).distanceSquared);
    }
}

}  // namespace
}  // namespace corvelle
