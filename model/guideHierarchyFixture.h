#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"

namespace corvelle {

// What the tests of the guide hierarchy share: one hierarchy a seed, on a sphere.

inline float farthest(std::span<const Vec3f> a, std::span<const Vec3f> b) {
    EXPECT_EQ(a.size(), b.size());
    float most = 0.0f;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        most = std::max(most, distance(a[i], b[i]));
    return most;
}

inline std::vector<Vec3f> moved(std::span<const Vec3f> points, Vec3f by) {
    std::vector<Vec3f> out(points.begin(), points.end());
    for (Vec3f& point : out) point += by;
    return out;
}

inline std::vector<GuidePtr> inGroup(const GuideHierarchy& hierarchy, const std::string& name) {
    std::vector<GuidePtr> out;
    for (const GuidePtr& guide : hierarchy.guides())
        if (hierarchy.group(guide->group)->name == name) out.push_back(guide);
    return out;
}

inline std::uint32_t idOf(const GuideHierarchy& hierarchy, const std::string& group) {
    return hierarchy.groupNamed(group)->id;
}

/// A sphere bent out of shape, of the same triangles.
inline ScalpPtr posed(const ScalpMesh& scalp, std::uint64_t seed) {
    SplitMix random(seed);
    const Rotation turn = Rotation::about(normalized({1, random.nextFloat(), 2}), 0.8f);
    std::vector<Vec3f> points;
    for (const Vec3f& point : scalp.points()) {
        const Vec3f p = turn(point);
        points.push_back({p.x * 1.2f, p.y + 0.05f * p.x * p.x, p.z + 3.0f});
    }
    return scalp.withPoints(std::move(points));
}

class GuideHierarchyFixture : public testing::TestWithParam<std::uint64_t> {
protected:
    const ScalpMesh scalp = makeSphere(16, 24, 8.0f);
    const GuideHierarchy made = makeHierarchy(scalp, {.seed = GetParam()});
    /// What must hold at any time: followers are where their offsets put them, hashes are current.
    static void expectSound(const GuideHierarchy& hierarchy) {
        std::vector<Guide> records;
        for (const GuidePtr& guide : hierarchy.guides()) records.push_back(*guide);
        const GuideHierarchy again =
            GuideHierarchy::restore({hierarchy.groups().begin(), hierarchy.groups().end()}, records,
                                    hierarchy.scalpTopology());
        EXPECT_EQ(guidesToJson(again), guidesToJson(hierarchy));
        for (std::size_t i = 0; i < records.size(); ++i) {
            EXPECT_EQ(again.guides()[i]->contentHash, records[i].contentHash) << records[i].id;
            EXPECT_EQ(*again.guides()[i]->detail, *records[i].detail) << records[i].id;
        }
        EXPECT_EQ(*again.all(), *hierarchy.all());
    }
};

}  // namespace corvelle
