#include <algorithm>
#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/polyline.h"
#include "model/strandSet.h"
#include "model/testing/meshes.h"
#include "operators/clearance.h"

namespace corvelle {
namespace {

constexpr float kRadius = 5.0f;

/// Strands over a sphere that dive into the skin and out again, some far out, some under it, with
/// the heights that their points should have.
struct Divers {
    ScalpPtr scalp = std::make_shared<const ScalpMesh>(makeSphere(24, 48, kRadius));
    StrandSet strands;
    std::vector<std::uint32_t> all;
    std::vector<float> wanted;
    std::size_t points, stride;

    explicit Divers(std::size_t count) : points(count), stride((count + 7) / 8 * 8) {
        SplitMix random(points);
        std::vector<Vec3f> strand(points);
        for (std::uint32_t s = 0; s < 61; ++s) {
            const StrandRoot root{std::int32_t(random.nextU64() % scalp->triangles().size()), 0.3f,
                                  0.3f};
            const Vec3f out = scalp->surfaceNormal(root), side = anyPerpendicular(out);
            const float rise = s % 4 == 0 ? 1.0f : random.nextRange(-1.2f, 0.6f);
            for (std::size_t j = 0; j < points; ++j) {
                const float t = float(j) / float(points - 1);
                strand[j] = scalp->surfacePoint(root) + side * (3.0f * t) +
                            out * (s % 9 == 7 ? 40.0f * t : rise * t);
            }
            if (s == 13) strand[points / 2] = strand[points - 1];  // points over one another
            if (s == 22) strand[points - 1].x = NAN;
            strands.addStrand(s + 1, strand, {}, root);
            all.push_back(s);
            wanted.resize(all.size() * stride);
            for (std::size_t j = 0; j < points; ++j)
                wanted[s * stride + j] = s % 4 == 0 ? -9.0f : 0.7f * float(j) / float(points - 1);
        }
    }
    std::vector<Vec3f> lifted(const ClearanceSpace& space, std::span<const std::uint32_t> which,
                              SplineLanes lanes = SplineLanes::Widest) const {
        std::vector<Vec3f> out(strands.points().begin(), strands.points().end());
        std::vector<float> heights;
        for (const std::uint32_t s : which)
            heights.insert(heights.end(), wanted.begin() + std::ptrdiff_t(s * stride),
                           wanted.begin() + std::ptrdiff_t((s + 1) * stride));
        liftStrands(space,
                    {.strands = which, .wanted = heights, .points = points, .stride = stride},
                    strands.roots(), strands.offsets(), out, lanes);
        return out;
    }
};

bool sameBits(std::span<const Vec3f> a, std::span<const Vec3f> b) {
    return std::memcmp(a.data(), b.data(), a.size_bytes()) == 0;
}

class ClearanceTest : public testing::TestWithParam<std::size_t> {};
INSTANTIATE_TEST_SUITE_P(Points, ClearanceTest, testing::Values<std::size_t>(2, 3, 9, 16, 70));

TEST_P(ClearanceTest, LiftsWhatIsTooLowAndKeepsRootsAndLengths) {
    const Divers divers(GetParam());
    const ClearanceSpace space = clearanceSpace(divers.scalp);
    const std::vector<Vec3f> out = divers.lifted(space, divers.all);
    const std::size_t n = divers.points;
    std::size_t moved = 0;
    for (const std::uint32_t s : divers.all) {
        const auto before = divers.strands.pointsOf(s);
        const auto after = std::span(out).subspan(s * n, n);
        EXPECT_EQ(after[0], before[0]);
        if (s == 22 || sameBits(before, after)) continue;
        ++moved;
        EXPECT_NE(s % 4, 0u) << "a height far below the skin asks for nothing";
        EXPECT_NEAR(polylineLength(after), polylineLength(before), 1e-3f);
        double sunkBefore = 0.0, sunkAfter = 0.0;
        for (std::size_t j = 1; j < n; ++j) {
            const float least = std::min(divers.wanted[s * divers.stride + j], space.band);
            sunkBefore += std::max(0.0f, least - space.field->distance(before[j]));
            sunkAfter += std::max(0.0f, least - space.field->distance(after[j]));
        }
        EXPECT_LT(sunkAfter, 0.35 * sunkBefore + 0.005 * double(n)) << s;
    }
    EXPECT_GT(moved, 15u);
}

TEST_P(ClearanceTest, AStrandsBitsDoNotDependOnItsCompany) {
    const Divers divers(GetParam());
    const std::size_t n = divers.points;
    std::vector<Vec3f> turned(divers.scalp->points().begin(), divers.scalp->points().end());
    ScalpMesh rest = makeSphere(24, 48, kRadius);
    rest.setRestPoints(turned);
    for (Vec3f& p : turned) p = Vec3f{-p.y, p.x, p.z};
    for (const bool moved : {false, true}) {
        // Moved, strands lie where they lay, far off the skin that is now turned beneath them.
        const ClearanceSpace space =
            clearanceSpace(moved ? ScalpPtr(rest.withPoints(turned)) : divers.scalp);
        ASSERT_EQ(space.rest != nullptr, moved);
        std::vector<Vec3f> alone(divers.strands.pointCount());
        for (const std::uint32_t s : divers.all) {
            const auto out = divers.lifted(space, {&s, 1});
            std::copy_n(out.begin() + std::ptrdiff_t(s * n), n,
                        alone.begin() + std::ptrdiff_t(s * n));
        }
        for (const SplineLanes lanes : {SplineLanes::Four, SplineLanes::Eight})
            EXPECT_TRUE(sameBits(divers.lifted(space, divers.all, lanes), alone)) << moved;
    }
}

}  // namespace
}  // namespace corvelle
