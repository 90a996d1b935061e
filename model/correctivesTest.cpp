#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include <gmock/gmock.h>

#include "model/correctiveApply.h"
#include "model/correctives.h"
#include "model/parallel.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

std::string errorOf(const std::function<void()>& run) {
    try {
        run();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(Correctives, TextReadsBackAsTheSameLayersAndTheSameText) {
    const std::string text =
        R"({"layers":[{"enabled":false,"fadeIn":2.5,"fadeOut":4.0,"holdAfter":1.0,"holdBefore":0.5,)"
        R"("name":"li\"ft","offsets":{"10":[0.1,0,-1e-10,1,2,3],"18446744073709551615":[],"9":[1,2,3]},)"
        R"("slot":-3,"time":12.25,"weight":0.5,"weightCurve":[[1,0],[2.5,1]]}]})";
    const Correctives read = readCorrectives(text);
    ASSERT_EQ(read.layers.size(), 1u);
    EXPECT_FALSE(read.layers[0].enabled);
    EXPECT_EQ(read.layers[0].offsets.at(10)[0], (Vec3f{0.1f, 0.0f, -1e-10f}));
    EXPECT_TRUE(read.layers[0].offsets.contains(~std::uint64_t(0)));
    EXPECT_EQ(correctivesJson(read), text);
    EXPECT_EQ(readCorrectives(correctivesJson(read)), read);

    const CorrectiveLayer plain = readCorrectives(R"({"layers":[{"name":"a"}]})").layers.at(0);
    EXPECT_EQ(plain, CorrectiveLayer{.name = "a"});
    EXPECT_EQ(readCorrectives(" \n\t"), Correctives{});
    EXPECT_EQ(readCorrectives("{}"), Correctives{});
    EXPECT_EQ(correctivesJson({}), "");
}

TEST(Correctives, SaysWhatIsWrong) {
    const auto layer = [](const std::string& members) {
        return R"({"layers":[{"name":"a",)" + members + "}]}";
    };
    const std::pair<std::string, std::string> kCases[] = {
        {"[]", "correctives: expected an object with layers"},
        {R"({"layers":{}})", "correctives: 'layers' is a list"},
        {R"({"layers":[1]})", "correctives: a layer is an object"},
        {R"({"layers":[{}]})", "correctives: a layer needs text as its name"},
        {layer(R"("offsets":{"x":[]})"), "invalid stoull argument"},
        {layer(R"("offsets":{"":[]})"), "invalid stoull argument"},
        {layer(R"("offsets":{"-1":[]})"), "invalid stoull argument"},
        {layer(R"("offsets":{"12a":[]})"), "invalid stoull argument"},
        {layer(R"("offsets":{"18446744073709551616":[]})"), "stoull argument out of range"},
        {layer(R"("offsets":[])"),
         "corrective layer 'a': 'offsets' is an object of guide id to numbers"},
        {layer(R"("offsets":{"1":[1,2]})"),
         "corrective layer 'a': 'offsets' gives each guide a flat list of numbers, three a point"},
        {layer(R"("offsets":{"1":[1,2,1e39]})"),
         "corrective layer 'a': 'offsets' holds what is no 32-bit float"},
        {layer(R"("offsets":{"1":[1,2,"3"]})"),
         "corrective layer 'a': 'offsets' holds what is no 32-bit float"},
        {layer(R"("time":"1")"), "corrective layer 'a': 'time' is a number"},
        {layer(R"("enabled":1)"), "corrective layer 'a': 'enabled' is true or false"},
        {layer(R"("slot":1.5)"), "corrective layer 'a': 'slot' is a whole number"},
        {layer(R"("weightCurve":[[1]])"),
         "corrective layer 'a': 'weightCurve' is a list of [frame, weight]"},
    };
    for (const auto& entry : kCases)
        EXPECT_EQ(errorOf([&] { readCorrectives(entry.first); }), entry.second) << entry.first;
    for (const std::string& text :
         {std::string("{"), std::string(R"({"layers":[{"name":"\xff"}]})"),
          std::string(100000, '['), layer(R"("weight":1e999)")})
        EXPECT_THROW(readCorrectives(text), std::exception);
}

TEST(Correctives, WeightHoldsAndFadesOnEachSideOfItsTime) {
    const CorrectiveLayer layer{.time = 10.0,
                                .fadeIn = 4.0,
                                .fadeOut = 2.0,
                                .holdBefore = 1.0,
                                .holdAfter = 3.0,
                                .weight = 0.8};
    const std::pair<double, double> kCases[] = {
        {5.0, 0.0},  {4.0, 0.0},  {7.0, 0.4},  {9.0, 0.8},  {10.0, 0.8},
        {13.0, 0.8}, {14.0, 0.4}, {15.0, 0.0}, {16.0, 0.0}, {8.0, 0.8 * 0.84375}};
    for (const auto& entry : kCases)
        EXPECT_NEAR(correctiveWeight(layer, entry.first), entry.second, 1e-12) << entry.first;
    CorrectiveLayer off = layer;
    off.enabled = false;
    EXPECT_EQ(correctiveWeight(off, 10.0), 0.0);
    EXPECT_EQ(correctiveWeight(layer, std::nan("")), 0.0);
    const CorrectiveLayer key{.time = 3.0};
    EXPECT_EQ(correctiveWeight(key, 3.0), 1.0);
    EXPECT_EQ(correctiveWeight(key, 3.01), 0.0);
    CorrectiveLayer curve = layer;
    curve.weightCurve = {{0.0f, 0.0f}, {10.0f, 0.5f}, {20.0f, 0.5f}};
    EXPECT_EQ(correctiveWeight(curve, 10.0), 0.5) << "in place of fade and weight";
    EXPECT_EQ(correctiveWeight(curve, -5.0), 0.0);
    EXPECT_GT(correctiveWeight(curve, 5.0), 0.1);
}

class CorrectiveApply : public testing::TestWithParam<std::uint64_t> {
protected:
    CorrectiveApply() : random(GetParam() + 1) {
        scalp = std::make_shared<const ScalpMesh>(makeSphere(12, 18, 10.0f));
        guides =
            std::make_shared<const GuideHierarchy>(makeHierarchy(*scalp, {.seed = GetParam()}));
    }
    float draw() { return float(random() % 2001) * 0.001f - 1.0f; }
    /// Random offsets on every `step`-th guide.
    CorrectiveLayer layerOn(const std::string& name, std::size_t step, double weight) {
        CorrectiveLayer layer{.name = name, .weight = weight};
        for (std::size_t g = 0; g < guides->size(); g += step) {
            const Guide& guide = *guides->guides()[g];
            auto& offsets = layer.offsets[guide.id];
            for (std::size_t i = 0; i < guide.points.size(); ++i)
                offsets.push_back(Vec3f{draw(), draw(), draw()} * (0.3f * float(i)));
        }
        return layer;
    }
    std::shared_ptr<const GuideHierarchy> applied(const Correctives& all, const ScalpMesh& on,
                                                  const std::shared_ptr<const GuideHierarchy>& to) {
        return applyCorrectives(to, all, correctiveWeights(all, 0.0), &on);
    }
    static float farthest(std::span<const Vec3f> a, std::span<const Vec3f> b) {
        float most = a.size() == b.size() ? 0.0f : 1e9f;
        for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
            most = std::max(most, distance(a[i], b[i]));
        return most;
    }

    std::mt19937 random;
    ScalpPtr scalp;
    std::shared_ptr<const GuideHierarchy> guides;
};
INSTANTIATE_TEST_SUITE_P(Seeds, CorrectiveApply, testing::Range<std::uint64_t>(0, 6));

TEST_P(CorrectiveApply, MovesWhatItNamesAndWhatFollowsAndKeepsTheRest) {
    EXPECT_EQ(applied({}, *scalp, guides), guides);
    Correctives all{{layerOn("a", 5, 0.5)}};
    all.layers[0].enabled = false;
    EXPECT_EQ(applied(all, *scalp, guides), guides);
    all.layers[0].enabled = true;
    const auto out = applied(all, *scalp, guides);
    std::size_t kept = 0;
    for (std::size_t g = 0; g < guides->size(); ++g) {
        const GuidePtr& before = guides->guides()[g];
        const GuidePtr& after = out->guides()[g];
        bool touched = false;  // it, or what it hangs on
        for (GuidePtr at = before; at; at = at->follows() ? guides->guide(at->parent) : nullptr)
            touched = touched || all.layers[0].offsets.contains(at->id);
        if (!touched) {
            EXPECT_EQ(before, after);
            ++kept;
        }
        if (before->follows()) continue;
        const auto found = all.layers[0].offsets.find(before->id);
        if (found == all.layers[0].offsets.end()) continue;
        const CorrectiveFrame axes = correctiveFrame(scalp.get(), before->root);
        for (std::size_t i = 0; i < before->points.size(); ++i)
            EXPECT_LT(distance(after->points[i],
                               before->points[i] + axes.direction(found->second[i]) * 0.5f),
                      1e-4f);
    }
    EXPECT_GT(kept, 0u);
    std::uint64_t one = 0, many = 0;
    runWithThreads(1, [&] { one = applied(all, *scalp, guides)->contentHash(); });
    runWithThreads(8, [&] { many = applied(all, *scalp, guides)->contentHash(); });
    EXPECT_EQ(one, many);
}

TEST_P(CorrectiveApply, GoesWithThePose) {
    const Rotation turn = Rotation::about(normalized(Vec3f{1.0f, 2.0f, 0.5f}), 1.1f);
    std::vector<Vec3f> points(scalp->points().begin(), scalp->points().end());
    for (Vec3f& p : points) p = turn(p) + Vec3f{3.0f, -2.0f, 1.0f};
    const ScalpPtr posed = scalp->withPoints(points);
    const Correctives all{{layerOn("a", 2, 1.0), layerOn("b", 3, 0.25)}};
    const auto carried = std::make_shared<const GuideHierarchy>(guides->deformed(*scalp, *posed));
    const auto first = applied(all, *scalp, guides)->deformed(*scalp, *posed);
    const auto last = applied(all, *posed, carried);
    for (std::size_t g = 0; g < guides->size(); ++g)
        EXPECT_LT(farthest(first.guides()[g]->points, last->guides()[g]->points), 2e-3f);
}

TEST_P(CorrectiveApply, AStrokeInALayerComesBackWhenTheLayersAreApplied) {
    Correctives all{{layerOn("under", 3, 0.7), layerOn("edited", 4, 0.5), layerOn("over", 7, 1.0)}};
    const auto shown = applied(all, *scalp, guides);
    GuideHierarchy edited = *shown;
    std::vector<std::uint64_t> touched;
    for (std::size_t g = 0; g < guides->size(); g += 2) {  // parents and followers alike
        const GuidePtr guide = edited.guides()[g];
        std::vector<Vec3f> points = guide->points;
        for (std::size_t i = 1; i < points.size(); ++i)
            points[i] += Vec3f{draw(), draw(), draw()} * 0.4f;
        edited.setPoints(guide->id, points);
        touched.push_back(guide->id);
    }
    all.layers[1] = correctedLayer(all, 1, 0.0, guides, edited, touched, scalp.get());
    const auto again = applied(all, *scalp, guides);
    // A follower that the stroke left alone keeps its own offsets where its root lies, whatever its
    // parent does: it alone may lie elsewhere than while the pen was down.
    const std::function<bool(const GuidePtr&)> told = [&](const GuidePtr& guide) {
        if (std::ranges::count(touched, guide->id)) return true;
        for (const CorrectiveLayer& layer : all.layers)
            if (layer.offsets.contains(guide->id)) return !guide->follows();
        return !guide->follows() || told(guides->guide(guide->parent));
    };
    float most = 0.0f, moved = 0.0f;
    for (std::size_t g = 0; g < guides->size(); ++g) {
        if (!told(guides->guides()[g])) continue;
        most = std::max(most, farthest(again->guides()[g]->points, edited.guides()[g]->points));
        moved = std::max(moved, farthest(shown->guides()[g]->points, edited.guides()[g]->points));
    }
    EXPECT_LT(most, 5e-3f);
    EXPECT_GT(moved, 0.3f) << "the stroke is too small to prove anything";
}

TEST_P(CorrectiveApply, TracesDropOutAndALayerWithoutWeightRefuses) {
    Correctives all{{layerOn("face", 1, 1.0)}};
    const std::uint64_t id = guides->guides()[0]->id;
    // Back where it lies without the layer, but for less than a 10,000th of its length.
    GuideHierarchy edited = *guides;
    std::vector<Vec3f> points = guides->guides()[0]->points;
    points.back() += Vec3f{1e-5f, 0, 0};
    edited.setPoints(id, points);
    const std::uint64_t ids[] = {id, 987654321};
    CorrectiveLayer layer = correctedLayer(all, 0, 0.0, guides, edited, ids, scalp.get());
    EXPECT_FALSE(layer.offsets.contains(id));
    EXPECT_EQ(layer.offsets.size() + 1, all.layers[0].offsets.size());

    for (const double weight : {0.0, 0.0009, -1.0}) {
        all.layers[0].weight = weight;
        EXPECT_EQ(
            errorOf([&] { correctedLayer(all, 0, 0.0, guides, edited, ids, scalp.get()); }),
            "corrective layer 'face' has no weight on this frame: raise its weight (and key it) "
            "to sculpt here");
    }
    EXPECT_THROW(correctedLayer(all, 1, 0.0, guides, edited, ids, scalp.get()), std::out_of_range);
}

TEST_P(CorrectiveApply, OffsetsOfAnotherPointCountAndOfNoGuideDoNoHarm) {
    const GuidePtr guide = guides->guides()[0];
    Correctives all{{CorrectiveLayer{.name = "a"}}};
    all.layers[0].offsets[guide->id] = {{0, 0, 0}, {0, 0, 2}};
    all.layers[0].offsets[123456789] = {{1, 1, 1}};
    all.layers[0].offsets[guides->guides()[1]->id] = {};
    all.layers[0].offsets[guides->guides()[2]->id] = {{3e38f, 0, 0}};
    all.layers.push_back(all.layers[0]);
    all.layers.back().offsets.erase(guide->id);
    const auto out = applied(all, *scalp, guides);
    const CorrectiveFrame axes = correctiveFrame(scalp.get(), guide->root);
    const std::size_t n = guide->points.size();
    for (std::size_t i = 0; i < n; ++i) {
        const Vec3f shift = axes.normal * (2.0f * float(i) / float(n - 1));
        EXPECT_LT(distance(out->guides()[0]->points[i], guide->points[i] + shift), 1e-4f);
    }
    EXPECT_EQ(out->guides()[1], guides->guides()[1]);
    EXPECT_EQ(out->guides()[2], guides->guides()[2]) << "a sum past the floats is left out";
    EXPECT_EQ(applied(all, ScalpMesh(), guides)->guides()[0]->points[n - 1],
              (guide->points[n - 1] + Vec3f{0, 0, 2}));
}

}  // namespace
}  // namespace corvelle
