#include <algorithm>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "graph/operator.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"
#include "operators/registerOperators.h"

namespace corvelle {
namespace {

class SourcesTest : public testing::Test {
protected:
    SourcesTest() {
        registerSourceOperators();
        ScalpMesh plane = makePlane(4, 4, 10.0f);
        plane.setSubdivision(2, "Arnold");
        plane.setCageFaceCount(2);
        data.scalp = std::make_shared<const ScalpMesh>(std::move(plane));
        hierarchy = makeHierarchy(*data.scalp, {.primaries = 6, .levels = 2, .seed = 3});
        data.hierarchy = std::make_shared<const GuideHierarchy>(hierarchy);
    }
    /// A node of a type with text params set.
    OperatorPtr node(const std::string& type,
                     const std::map<std::string, std::string>& texts = {}) {
        OperatorPtr op = OperatorRegistry::instance().create(type);
        for (const auto& [param, text] : texts) op->set(param, text);
        return op;
    }
    GuidesPtr guides(const std::map<std::string, std::string>& texts, double level = -1.0) {
        const OperatorPtr op = node("Guides", texts);
        op->set("level", level);
        return std::get<GuidesPtr>(op->evaluate(EvalContext(data), {}));
    }
    std::string failure(const OperatorPtr& op) {
        try {
            op->evaluate(EvalContext(data), {});
        } catch (const GraphError& error) {
            return error.what();
        }
        return {};
    }
    std::size_t inGroup(const std::string& name) const {
        const std::uint32_t id = hierarchy.groupNamed(name)->id;
        return std::size_t(std::ranges::count_if(
            hierarchy.guides(), [&](const GuidePtr& guide) { return guide->group == id; }));
    }

    EvaluationData data;
    GuideHierarchy hierarchy;
};

TEST_F(SourcesTest, GuidesComeByLevelOrByGroupsLessThoseLeftOut) {
    const std::size_t hair = inGroup("hair"), first = inGroup("hair_1"), second = inGroup("hair_2"),
                      brow = inGroup("brow");
    ASSERT_GT(std::min({hair, first, second, brow}), 0u);
    EXPECT_EQ(guides({})->size(), second + brow) << "the deepest";
    EXPECT_EQ(guides({}, 5.0)->size(), second + brow) << "no deeper than there is";
    EXPECT_EQ(guides({}, 0.0)->size(), hair + brow);
    EXPECT_EQ(guides({}, 1.0)->size(), first + brow) << "no area goes bald";
    EXPECT_EQ(guides({{"group", "hair, brow"}}, 2.0)->size(), hair + brow) << "without the level";
    EXPECT_EQ(guides({{"group", " hair_1 hair_2,"}})->size(), first + second);
    EXPECT_EQ(guides({{"exclude", "hair"}})->size(), brow) << "with its child groups";
    EXPECT_EQ(guides({{"group", "hair hair_2"}, {"exclude", "hair_1"}})->size(), hair);
    const GuidesPtr brows = guides({{"group", "brow"}});
    EXPECT_EQ(brows->pointsOf(0).data(), brows->points().data());
}

TEST_F(SourcesTest, AFlatListStandsForTheHierarchyUnlessThatIsAskedFor) {
    data.flatGuides = guides({{"group", "brow"}});
    EXPECT_EQ(guides({}), data.flatGuides);
    EXPECT_EQ(guides({{"guides", "flat"}}, 0.0), data.flatGuides);
    EXPECT_EQ(guides({}, 0.0)->size(), inGroup("hair") + inGroup("brow"));
    EXPECT_EQ(guides({{"exclude", "hair"}})->size(), inGroup("brow"));
    data.hierarchy = nullptr;
    data.flatGuides = nullptr;
    EXPECT_TRUE(guides({})->empty());
}

TEST_F(SourcesTest, WhatIsNotThereIsNamed) {
    for (const bool any : {true, false}) {
        if (!any) data.hierarchy = nullptr;
        EXPECT_EQ(failure(node("Guides", {{"group", "hair_9"}})),
                  "Guides: no guide group named 'hair_9'");
        EXPECT_EQ(failure(node("Guides", {{"exclude", "beard"}})),
                  "Guides: no guide group named 'beard' to exclude");
    }
    EXPECT_EQ(failure(node("Guides", {{"hierarchy", "other"}})),
              "Guides: no guide hierarchy named 'other'");
    EXPECT_EQ(failure(node("Scalp", {{"input", "tail"}})),
              "Scalp: no scalp named 'tail' on this groom: nothing to grow on");
    EXPECT_EQ(failure(node("ColliderMesh", {{"name", "collar"}})),
              "ColliderMesh: no collider named 'collar' on this groom");
    data.scalp = nullptr;
    EXPECT_EQ(failure(node("Scalp")),
              "Scalp: no scalp named 'scalp' on this groom: nothing to grow on");
}

TEST_F(SourcesTest, MeshesComeWithTheirFrictionAndTellHowTheyWereRefined) {
    for (const char* name : {"scalp", ""}) {
        const auto value =
            std::get<MeshValue>(node("Scalp", {{"input", name}})->evaluate(EvalContext(data), {}));
        EXPECT_EQ(value.mesh, data.scalp) << "'" << name << "'";
    }
    data.colliders["collar"] = {data.scalp, -1.0f};
    const OperatorPtr own = node("Scalp"), collar = node("ColliderMesh", {{"name", "collar"}});
    EXPECT_EQ(std::get<MeshValue>(collar->evaluate(EvalContext(data), {})).friction, -1.0f);
    collar->set("friction", 0.25);
    EXPECT_EQ(std::get<MeshValue>(collar->evaluate(EvalContext(data), {})).friction, 0.25f);
    for (const Operator* source : {own.get(), collar.get()})
        EXPECT_EQ(source->warning(EvalContext(data)),
                  "Catmull-Clark x2: 32 triangles from 2 faces (match render: Arnold)");
}

}  // namespace
}  // namespace corvelle
