#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "expr/expressionFunctions.h"
#include "expr/expressionTestTools.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

using namespace testing_;

/// Random well-formed expressions over everything the language has.
class Generator {
public:
    explicit Generator(std::uint64_t seed) : random_(seed) {}

    std::string number(int depth) {
        if (depth <= 0) return leaf();
        switch (random_.nextU64() % 12) {
            case 0:
                return leaf();
            case 1:
                return "(-" + number(depth - 1) + ")";
            case 2:
            case 3:
            case 4:
                return "(" + number(depth - 1) + pickOne(kOperators) + number(depth - 1) + ")";
            case 5:
                return "(" + number(depth - 1) + " ? " + number(depth - 1) + " : " +
                       number(depth - 1) + ")";
            case 6:
                return vector(depth - 1) + pickOne({".x", ".g", "[2]"});
            default:
                return call(depth - 1, false);
        }
    }
    std::string vector(int depth) {
        if (depth <= 0) return pickOne({"P", "N", "tip", "pointP", "[1, t, -2]"});
        switch (random_.nextU64() % 7) {
            case 0:
                return pickOne({"P", "N", "tip", "pointP"});
            case 1:
                return "[" + number(depth - 1) + ", " + number(depth - 1) + ", " +
                       number(depth - 1) + "]";
            case 2:
                return "(-" + vector(depth - 1) + ")";
            case 3:
                return "(" + vector(depth - 1) + pickOne(kArithmetic) + vector(depth - 1) + ")";
            case 4:
                return random_.nextU64() & 1 ? "(" + vector(depth - 1) + pickOne(kArithmetic) +
                                                   number(depth - 1) + ")"
                                             : "(" + number(depth - 1) + pickOne(kArithmetic) +
                                                   vector(depth - 1) + ")";
            case 5:
                return "(" + number(depth - 1) + " ? " + vector(depth - 1) + " : " +
                       vector(depth - 1) + ")";
            default:
                return call(depth - 1, true);
        }
    }

private:
    using Words = std::vector<std::string>;
    inline static const Words kArithmetic = {" + ", " - ", " * ", " / ", " ^ "};
    inline static const Words kOperators = {" + ",  " - ", " * ",  " / ",  " ^ ", " < ",
                                            " <= ", " > ", " >= ", " == ", " != "};
    std::string pickOne(const Words& words) { return words[random_.nextU64() % words.size()]; }
    std::string leaf() {
        return pickOne({"0",          "1",      "0.5",    "-2.25",   "7",     "1e9",
                        "u",          "v",      "x",      "y",       "z",     "ny",
                        "rand",       "index",  "length", "longest", "reach", "straightness",
                        "lift",       "tipy",   "t",      "pt",      "px",    "pz",
                        "pointIndex", "frame",  "time",   "pi",      "tone",  "clumpId",
                        "share",      "missing"});
    }
    std::string call(int depth, bool vectorResult) {
        const auto functions = expressionFunctions();
        for (;;) {
            const ExpressionFunction& f = functions[random_.nextU64() % functions.size()];
            if (f.vectorResult != vectorResult || f.family == ExpressionFamily::Map) continue;
            const bool keys =
                f.family == ExpressionFamily::Curve || f.family == ExpressionFamily::Spline;
            std::size_t count =
                f.least + random_.nextU64() % (std::min<int>(f.most, 9) - f.least + 1u);
            if (f.family == ExpressionFamily::Curve) count |= 1u;
            std::string text(f.name);
            for (std::size_t k = 0; k < count; ++k) {
                text += k == 0 ? "(" : ", ";
                if (keys && k > 0)
                    text += pickOne({"0", "0.25", "0.5", "1", "-3", "pi / 2"});
                else
                    text += k < f.vectors ? vector(depth) : number(depth);
            }
            return text + ")";
        }
    }

    SplitMix random_;
};

class ExpressionBatch : public testing::TestWithParam<std::uint64_t> {
protected:
    // Strands of 0 to 600 points: cut into several batches, and many to one.
    const StrandSet tuft = [] {
        StrandSet set = makeTuft({.strands = 90,
                                  .pointsPerStrand = 20,
                                  .seed = GetParam(),
                                  .uneven = true,
                                  .degenerate = true,
                                  .triangles = 32});
        set.append(makeTuft({.strands = 2, .pointsPerStrand = 600, .seed = GetParam() + 1}));
        set.append(makeTuft({.strands = 3, .pointsPerStrand = 256, .seed = GetParam() + 2}));
        return set;
    }();
    ExpressionEnvironment environment = [] {
        ExpressionEnvironment out;
        out.scalp = std::make_shared<const ScalpMesh>(makePlane(4, 4, 20.0f));
        out.frame = 7.0;
        out.time = 0.25;
        return out;
    }();

    int varied = 0;  ///< expressions that gave more than one value

    /// Every strand and every point of some, alone and in batches.
    void expectEqual(const std::string& text) {
        SCOPED_TRACE(text);
        const ExpressionMap map(text, environment, true);
        const ExpressionMap::Bound bound = map.bind(tuft, environment);
        std::vector<float> strands(tuft.strandCount()), points(tuft.pointCount());
        bound.strands(allOf(tuft), strands);
        bound.points(allOf(tuft), points);
        std::size_t different = 0;
        for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
            different += bitsOf(bound.strand(s)) != bitsOf(strands[s]);
            const std::size_t count = tuft.pointCountOf(s);
            const std::size_t step = count > 50 ? 41 : 1;
            for (std::size_t p = 0; p < count; p += step)
                different += bitsOf(bound.point(s, p)) != bitsOf(points[tuft.offsets()[s] + p]);
        }
        EXPECT_EQ(different, 0u);
        EXPECT_TRUE(std::all_of(points.begin(), points.end(), [](float x) { return x - x == 0; }));
        varied +=
            std::adjacent_find(points.begin(), points.end(), std::not_equal_to<>()) != points.end();

        // Any list of strands: backwards, with gaps and repeats.
        std::vector<std::uint32_t> some = {94, 90, 3, 3, 4, 5, 92, 0, 7};
        std::vector<float> few(some.size());
        bound.strands(some, few);
        std::vector<float> fewPoints;
        for (std::size_t i = 0; i < some.size(); ++i) {
            EXPECT_EQ(bitsOf(few[i]), bitsOf(strands[some[i]]));
            const auto first = points.begin() + std::ptrdiff_t(tuft.offsets()[some[i]]);
            fewPoints.insert(fewPoints.end(), first,
                             first + std::ptrdiff_t(tuft.pointCountOf(some[i])));
        }
        std::vector<float> gathered(fewPoints.size());
        bound.points(some, gathered);
        EXPECT_TRUE(std::equal(gathered.begin(), gathered.end(), fewPoints.begin(),
                               [](float a, float b) { return bitsOf(a) == bitsOf(b); }));
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, ExpressionBatch, testing::Range<std::uint64_t>(0, 8));

TEST_P(ExpressionBatch, GivesTheBitsOfTheSingleEvaluator) {
    Generator generator(GetParam());
    for (int k = 0; k < 25; ++k) {
        expectEqual(generator.number(1 + k % 4));
        if (HasFailure()) return;
    }
    EXPECT_GT(varied, 10) << "these expressions are too plain to prove anything";
}

TEST_P(ExpressionBatch, GivesTheBitsOfTheSingleEvaluatorForVectors) {
    Generator generator(GetParam() + 100);
    for (int k = 0; k < 10; ++k) {
        const std::string text = generator.vector(1 + k % 4);
        const ExpressionMap map(text, environment, true, ExpressionMap::Shape::Vector);
        const ExpressionMap::Bound bound = map.bind(tuft, environment);
        std::vector<Vec3f> strands(tuft.strandCount()), points(tuft.pointCount());
        bound.strandVectors(allOf(tuft), strands);
        bound.pointVectors(allOf(tuft), points);
        std::size_t different = 0;
        const auto compare = [&](Vec3f a, Vec3f b) {
            for (int c = 0; c < 3; ++c) different += bitsOf(a[c]) != bitsOf(b[c]);
        };
        for (std::size_t s = 0; s < tuft.strandCount(); ++s) {
            compare(bound.strandVector(s), strands[s]);
            for (std::size_t p = 0; p < tuft.pointCountOf(s); p += 7)
                compare(bound.pointVector(s, p), points[tuft.offsets()[s] + p]);
        }
        EXPECT_EQ(different, 0u) << text;
    }
}

TEST_P(ExpressionBatch, WorksOnTheDeepestStacks) {
    std::string waiting = "t";
    for (int level = 0; level < 40 * int(GetParam() % 3) + 2; ++level) {
        std::string call = "choose(1";
        for (int k = 0; k < 61; ++k) call += k % 2 ? ", tone" : ", 0";
        waiting = call + ", share * 2, x + 0.5 * " + waiting + ")";
    }
    expectEqual(waiting);
}

TEST_P(ExpressionBatch, GivesTheSameBitsOnOneThreadAndOnMany) {
    const StrandSet hair = makeTuft({.strands = 3000, .seed = GetParam()});
    const std::string text = "noise(pointP * 2) * t + rand * length / longest + share";
    const ExpressionMap map(text, environment, true);
    const auto evaluate = [&](unsigned threads) {
        std::vector<float> out(hair.pointCount());
        runWithThreads(threads, [&] {
            const ExpressionMap::Bound bound = map.bind(hair, environment);
            const std::vector<std::uint32_t> all = allOf(hair);
            parallelRange(0, hair.strandCount(), 16, [&](std::size_t begin, std::size_t end) {
                const std::size_t first = hair.offsets()[begin];
                bound.points(std::span(all).subspan(begin, end - begin),
                             std::span(out).subspan(first, hair.offsets()[end] - first));
            });
        });
        return out;
    };
    const std::vector<float> one = evaluate(1);
    EXPECT_EQ(one, evaluate(2));
    EXPECT_EQ(one, evaluate(8));
}

TEST(ExpressionBatchSizes, AreCheckedBeforeAnythingIsWritten) {
    const StrandSet set = threeStrands();
    const ExpressionEnvironment none;
    const ExpressionMap::Bound bound = ExpressionMap("t + 1", none, true).bind(set, none);
    std::vector<float> out(2, -1.0f);
    EXPECT_THROW(bound.strands(allOf(set), out), std::invalid_argument);
    EXPECT_THROW(bound.points(allOf(set), out), std::invalid_argument);
    EXPECT_EQ(out, std::vector<float>(2, -1.0f));
    bound.strands({}, out);
    const StrandSet empty;
    ExpressionMap("longest + t", none, true).bind(empty, none).points({}, {});
}

}  // namespace
}  // namespace corvelle
