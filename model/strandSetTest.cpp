#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/strandSet.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

void expectValid(const StrandSet& set) {
    std::string error;
    EXPECT_TRUE(set.validate(&error)) << error;
}

/// Every array of the set, to tell which ones two sets share.
std::vector<const void*> arraysOf(const StrandSet& set) {
    std::vector<const void*> arrays;
    set.forEachArray([&](const void* array, std::size_t) { arrays.push_back(array); });
    return arrays;
}
std::size_t arraysNotShared(const StrandSet& a, const StrandSet& b) {
    const std::vector<const void*> x = arraysOf(a), y = arraysOf(b);
    EXPECT_EQ(x.size(), y.size());
    std::size_t n = 0;
    for (std::size_t i = 0; i < x.size(); ++i) n += x[i] != y[i];
    return n;
}

struct Instances final : InstanceSet {
    explicit Instances(std::vector<std::uint64_t> owners) : ids(std::move(owners)) {}
    std::uint64_t contentHash() const override {
        std::uint64_t h = 0;
        for (const std::uint64_t id : ids) h = hashCombine(h, id);
        return h;
    }
    std::shared_ptr<const InstanceSet> joinedWith(const InstanceSet& behind) const override {
        std::vector<std::uint64_t> all = ids;
        const auto& more = dynamic_cast<const Instances&>(behind).ids;
        all.insert(all.end(), more.begin(), more.end());
        return std::make_shared<Instances>(all);
    }
    std::vector<std::uint64_t> ids;
};

const std::vector<Vec3f> kLine = {{0, 0, 0}, {0, 1, 0}, {0, 3, 0}};

// --- Building ----------------------------------------------------------------------------------

TEST(StrandSet, StartsEmptyAndValid) {
    const StrandSet set;
    expectValid(set);
    EXPECT_EQ(set.strandCount(), 0u);
    ASSERT_EQ(set.offsets().size(), 1u);
    EXPECT_EQ(set.offsets()[0], 0u);
    EXPECT_EQ(set.maxPointsPerStrand(), 0u);
    EXPECT_EQ(set.contentHash(), mix64(0));
    const StrandSet::Extent extent = set.extent();
    EXPECT_GT(extent.min.x, extent.max.x);
    EXPECT_TRUE(extent.finite);
    EXPECT_EQ(extent, StrandSet::Extent{});
}

TEST(StrandSet, AddStrandFillsWidthsAndChannels) {
    StrandSet set;
    set.mutableStrandChannel("tone", 0.5f);
    set.mutablePointChannel("share", 0.25f);
    EXPECT_EQ(set.addStrand(7, kLine, {}, {3, 0.25f, 0.5f}), 0u);
    EXPECT_EQ(set.addStrand(9, std::span(kLine).first(2), std::vector<float>{2, 3}, {}), 1u);
    EXPECT_EQ(set.addStrand(11, {}, {}, {}), 2u);  // a strand of no points is legal
    expectValid(set);
    EXPECT_EQ(*set.strandChannel("tone"), std::vector<float>(3, 0.5f));
    EXPECT_EQ(*set.pointChannel("share"), std::vector<float>(5, 0.25f));
    EXPECT_TRUE(std::ranges::equal(set.widths(), std::vector<float>{1, 1, 1, 2, 3}));
    EXPECT_TRUE(std::ranges::equal(set.offsets(), std::vector<std::uint64_t>{0, 3, 5, 5}));
    EXPECT_EQ(set.roots()[0], (StrandRoot{3, 0.25f, 0.5f}));
    EXPECT_EQ(set.maxPointsPerStrand(), 3u);
    EXPECT_EQ(set.pointCountOf(2), 0u);
}

TEST(StrandSet, AddStrandRefusesWidthsThatDoNotMatchAndChangesNothing) {
    StrandSet set = makeTuft({.strands = 5});
    const std::uint64_t before = set.contentHash();
    try {
        set.addStrand(1, kLine, std::vector<float>{1, 2}, {});
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "StrandSet::addStrand: widths must be empty or match points");
    }
    EXPECT_EQ(set.contentHash(), before);
    expectValid(set);
}

TEST(StrandSet, AddStrandTakesAStrandOfItself) {
    StrandSet set = makeTuft({.strands = 3, .pointsPerStrand = 50});
    const std::vector<Vec3f> second(set.pointsOf(1).begin(), set.pointsOf(1).end());
    for (int i = 0; i < 40; ++i) {
        const std::size_t first = std::size_t(set.offsets()[1]);
        const std::size_t added =
            set.addStrand(1000, set.pointsOf(1), set.widths().subspan(first, 50), {});
        ASSERT_TRUE(std::ranges::equal(set.pointsOf(added), second));
        ASSERT_TRUE(std::ranges::equal(set.widths().subspan(set.offsets()[added], 50),
                                       set.widths().subspan(first, 50)));
    }
    expectValid(set);
}

TEST(StrandSet, AllocateFillsWhatItIsNotToldToLeave) {
    StrandSet set = makeTuft({.strands = 9, .uneven = true});
    const std::vector<std::uint64_t> counts = {3, 0, 5};
    set.allocate(counts);
    expectValid(set);
    EXPECT_TRUE(std::ranges::equal(set.offsets(), std::vector<std::uint64_t>{0, 3, 3, 8}));
    for (const Vec3f p : set.points()) EXPECT_EQ(p, Vec3f{});
    for (const float w : set.widths()) EXPECT_EQ(w, 1.0f);
    for (const std::uint64_t id : set.ids()) EXPECT_EQ(id, 0u);
    for (const StrandRoot& root : set.roots()) EXPECT_EQ(root, StrandRoot{});
    EXPECT_EQ(*set.strandChannel("clumpId"), std::vector<float>(3, -1.0f));
    EXPECT_EQ(*set.pointChannel("share"), std::vector<float>(8, 0.25f));
    EXPECT_TRUE(set.strandChannels().at("clumpId").discrete);

    StrandSet uniform = set;
    set.allocate(std::vector<std::uint64_t>(3, 4));
    uniform.allocateUniform(3, 4);
    EXPECT_EQ(uniform.contentHash(), set.contentHash());
    uniform.allocateUniform(200'000, 3, StrandSet::kLeavePoints | StrandSet::kLeaveWidths);
    expectValid(uniform);
    EXPECT_EQ(uniform.offsets()[131'073], 393'219u);
}

TEST(StrandSet, ClearKeepsChannelsAndDropsTheRest) {
    StrandSet set = makeTuft({.strands = 9});
    set.instances = std::make_shared<Instances>(std::vector<std::uint64_t>{1});
    set.cards.push_back(std::make_shared<CardMesh>());
    set.extent();
    set.clear();
    expectValid(set);
    EXPECT_EQ(set.strandCount(), 0u);
    EXPECT_EQ(set.strandChannelNames(), (std::vector<std::string>{"clumpId", "tone"}));
    EXPECT_EQ(set.strandChannelDefault("clumpId"), -1.0f);
    EXPECT_FALSE(set.instances);
    EXPECT_TRUE(set.cards.empty());
    EXPECT_EQ(set.extent(), StrandSet::Extent{});
    set.addStrand(1, kLine, {}, {});
    expectValid(set);
    EXPECT_EQ(set.strandChannel("tone")->at(0), 0.5f);
}

// --- Sharing -----------------------------------------------------------------------------------

TEST(StrandSet, ACopySharesEverythingUntilWritten) {
    StrandSet original = makeTuft({.strands = 50});
    const std::uint64_t before = original.contentHash();
    StrandSet copy = original;
    EXPECT_EQ(arraysNotShared(copy, original), 0u);
    copy.mutablePoints()[3].x += 1.0f;
    EXPECT_EQ(arraysNotShared(copy, original), 1u);
    EXPECT_FALSE(copy.sharesPoints(original));
    EXPECT_TRUE(copy.sharesWidths(original) && copy.sharesIds(original));
    copy.mutableStrandChannel("tone", 0.0f)[0] += 1.0f;
    EXPECT_EQ(arraysNotShared(copy, original), 2u);
    EXPECT_EQ(original.contentHash(), before);

    // The original writes: the copy must not see it either.
    const std::uint64_t copied = copy.contentHash();
    original.mutableWidths()[0] = 9.0f;
    original.mutablePointChannel("share", 0.0f)[0] = 9.0f;
    original.mutableIds()[0] = 9;
    original.mutableRoots()[0] = {};
    EXPECT_EQ(copy.contentHash(), copied);
}

TEST(StrandSet, WritingASoleOwnerCopiesNothing) {
    StrandSet set = makeTuft({.strands = 50});
    std::vector<const void*> before = arraysOf(set);
    set.mutablePoints();
    { const StrandSet gone = set; }
    set.mutablePoints()[0].x = 1.0f;
    set.mutableStrandChannel("tone", 0.0f)[0] = 1.0f;
    set.overwritePoints();
    EXPECT_EQ(arraysOf(set), before);
}

TEST(StrandSet, OverwriteGivesAnotherArrayOfTheSameSize) {
    const StrandSet original = makeTuft({.strands = 50});
    const std::uint64_t before = original.contentHash();
    StrandSet copy = original;
    const std::span<Vec3f> points = copy.overwritePoints();
    ASSERT_EQ(points.size(), original.pointCount());
    std::ranges::copy(original.points(), points.begin());
    std::ranges::copy(original.widths(), copy.overwriteWidths().begin());
    EXPECT_EQ(arraysNotShared(copy, original), 2u);
    EXPECT_EQ(copy.contentHash(), before);
}

TEST(StrandSet, MovingLeavesAValidEmptySet) {
    StrandSet from = makeTuft({.strands = 20});
    const std::uint64_t hash = from.contentHash();
    const StrandSet::Extent extent = from.extent();
    const std::vector<const void*> arrays = arraysOf(from);
    StrandSet to = std::move(from);
    EXPECT_EQ(to.contentHash(), hash);
    EXPECT_EQ(arraysOf(to), arrays);
    EXPECT_EQ(to.extent(), extent);
    for (int round = 0; round < 2; ++round) {  // NOLINT: the moved-from state is the subject
        expectValid(from);
        EXPECT_EQ(from.strandCount(), 0u);
        EXPECT_EQ(from.extent(), StrandSet::Extent{});
        from.addStrand(1, kLine, {}, {});
        expectValid(from);
        StrandSet other;
        other = std::move(from);
        EXPECT_EQ(other.strandCount(), 1u);
    }
    StrandSet& self = to;
    to = std::move(self);
    EXPECT_EQ(to.contentHash(), hash);
    to = self;
    EXPECT_EQ(to.contentHash(), hash);
}

TEST(StrandSet, SharesPointsAndChannelsOfAnotherSetOfTheSameLayout) {
    const StrandSet from = makeTuft({.strands = 30, .seed = 1});
    StrandSet to = makeTuft({.strands = 30, .seed = 2, .channels = false});
    const StrandSet::Extent extent = from.extent();
    to.extent();
    to.sharePoints(from);
    to.shareWidths(from);
    EXPECT_TRUE(to.sharesPoints(from) && to.sharesWidths(from));
    EXPECT_EQ(to.extent(), extent);
    EXPECT_TRUE(to.copyStrandChannel("clumpId", from));
    EXPECT_TRUE(to.copyPointChannel("share", from));
    EXPECT_EQ(to.strandChannel("clumpId"), from.strandChannel("clumpId"));  // the same array
    EXPECT_TRUE(to.strandChannels().at("clumpId").discrete);
    EXPECT_EQ(to.strandChannelDefault("clumpId"), -1.0f);
    EXPECT_FALSE(to.copyStrandChannel("absent", from));

    StrandSet other = makeTuft({.strands = 29});
    const std::uint64_t before = other.contentHash();
    EXPECT_THROW(other.sharePoints(from), std::invalid_argument);
    EXPECT_THROW(other.shareWidths(from), std::invalid_argument);
    EXPECT_FALSE(other.copyStrandChannel("tone", from));
    EXPECT_FALSE(other.copyPointChannel("share", from));
    EXPECT_EQ(other.contentHash(), before);
}

TEST(StrandSet, OneThreadMayDropItsCopyWhileAnotherWrites) {
    for (int round = 0; round < 200; ++round) {
        StrandSet set = makeTuft({.strands = 8});
        const Vec3f before = set.points()[0];
        std::thread reader([copy = StrandSet(set), before]() mutable {
            EXPECT_EQ(copy.points()[0], before);
            copy = StrandSet();
        });
        set.mutablePoints()[0] += Vec3f{1, 1, 1};
        reader.join();
        EXPECT_NE(set.points()[0], before);
    }
}

TEST(StrandSet, WriteAccessMayBeAskedForInsideALoop) {
    const StrandSet original = makeTuft({.strands = 2000});
    StrandSet set = original;
    set.extent();
    parallelRange(0, set.strandCount(), 16, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            set.mutableStrandChannel("tone", 0.0f)[s] = float(s);
            const std::size_t first = std::size_t(set.offsets()[s]);
            for (std::size_t i = 0; i < set.pointCountOf(s); ++i)
                set.mutablePoints()[first + i] = {float(s), 0, 0};
        }
    });
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        EXPECT_EQ(set.strandChannel("tone")->at(s), float(s));
        EXPECT_EQ(set.pointsOf(s).back().x, float(s));
    }
    EXPECT_EQ(set.extent().max, (Vec3f{1999, 0, 0}));
    EXPECT_EQ(original.contentHash(), makeTuft({.strands = 2000}).contentHash());
}

TEST(StrandSet, AllocatesForTheStrandsOfAnother) {
    const StrandSet tuft = makeTuft({.strands = 50, .uneven = true});
    std::vector<std::uint64_t> counts;
    for (std::size_t s = 0; s < tuft.strandCount(); ++s) counts.push_back(s % 4);
    StrandSet set;
    set.mutablePointChannel("share", 0.5f);
    set.allocateFor(tuft, counts);
    EXPECT_TRUE(set.sharesIds(tuft) && set.sharesRoots(tuft));
    for (std::size_t s = 0; s < counts.size(); ++s) EXPECT_EQ(set.pointCountOf(s), counts[s]);
    EXPECT_TRUE(set.validate());
    EXPECT_EQ(set.pointChannel("share")->back(), 0.5f);
    counts.pop_back();
    EXPECT_THROW(set.allocateFor(tuft, counts), std::invalid_argument);
    EXPECT_EQ(set.strandCount(), 50u) << "left as it was";
}

// --- The pool ----------------------------------------------------------------------------------

TEST(ToArrayPool, RecyclesBigArraysOfTheExactSize) {
    using Pool = ToArrayPool<Vec3f>;
    constexpr std::size_t kBig = Pool::kMinBytes / sizeof(Vec3f) + 1;
    const void* recycled = nullptr;
    {
        StrandSet set;
        set.allocateUniform(1, kBig);
        recycled = set.points().data();
    }
    EXPECT_EQ(Pool::instance().acquire(kBig + 1), nullptr);
    StrandSet set;
    set.allocateUniform(1, kBig);
    EXPECT_EQ(set.points().data(), recycled);
    EXPECT_TRUE(std::ranges::all_of(set.points(), [](Vec3f p) { return p == Vec3f{}; }));
}

TEST(ToArrayPool, HoldsTheTwoYoungestAndNoSmallArrays) {
    using Pool = ToArrayPool<float>;
    Pool pool;
    const std::size_t big = Pool::kMinBytes / sizeof(float);
    for (std::size_t i = 0; i < 3; ++i) pool.release(std::make_unique<std::vector<float>>(big + i));
    EXPECT_EQ(pool.size(), 2u);
    EXPECT_EQ(pool.acquire(big), nullptr);
    EXPECT_NE(pool.acquire(big + 1), nullptr);
    EXPECT_NE(pool.acquire(big + 2), nullptr);
    pool.release(std::make_unique<std::vector<float>>(big - 1));
    EXPECT_EQ(pool.size(), 0u);
    EXPECT_EQ(pool.acquire(big - 1), nullptr);

    const std::size_t before = ToArrayPool<Vec3f>::instance().size();
    { const StrandSet small = makeTuft({.strands = 2000, .pointsPerStrand = 16}); }
    EXPECT_EQ(ToArrayPool<Vec3f>::instance().size(), before);
}

// --- Appending and taking parts ----------------------------------------------------------------

class StrandSetParts : public testing::TestWithParam<std::uint64_t> {
protected:
    const StrandSet tuft =
        makeTuft({.strands = 3000, .seed = GetParam(), .uneven = true, .degenerate = true});
};
INSTANTIATE_TEST_SUITE_P(Seeds, StrandSetParts, testing::Range<std::uint64_t>(0, 8));

TEST_P(StrandSetParts, AppendingTheTwoHalvesGivesTheWhole) {
    std::vector<std::uint32_t> front(1234), back(tuft.strandCount() - front.size());
    std::iota(front.begin(), front.end(), 0u);
    std::iota(back.begin(), back.end(), std::uint32_t(front.size()));
    StrandSet whole = tuft.subset(front);
    const StrandSet rest = tuft.subset(back);
    whole.append(rest);
    expectValid(whole);
    EXPECT_EQ(whole.contentHash(), tuft.contentHash());
    EXPECT_EQ(rest.contentHash(), tuft.subset(back).contentHash());

    StrandSet fromNothing;
    fromNothing.append(tuft);
    EXPECT_EQ(fromNothing.contentHash(), tuft.contentHash());
    EXPECT_TRUE(fromNothing.strandChannels().at("clumpId").discrete);
    whole.append(StrandSet());
    EXPECT_EQ(whole.contentHash(), tuft.contentHash());
}

TEST_P(StrandSetParts, AppendsItself) {
    StrandSet twice = tuft;
    twice.append(twice);
    expectValid(twice);
    StrandSet expected = tuft;
    expected.append(
        makeTuft({.strands = 3000, .seed = GetParam(), .uneven = true, .degenerate = true}));
    EXPECT_EQ(twice.contentHash(), expected.contentHash());
}

TEST_P(StrandSetParts, SubsetKeepsStrandsWhole) {
    SplitMix random(GetParam());
    std::vector<std::uint32_t> indices(1700);  // any order, repeats, runs of neighbours
    for (std::size_t k = 0; k < indices.size(); ++k)
        indices[k] = k > 0 && indices[k - 1] + 1 < tuft.strandCount() && random.nextFloat() < 0.7f
                         ? indices[k - 1] + 1
                         : std::uint32_t(random.nextU64() % tuft.strandCount());
    const StrandSet part = tuft.subset(indices);
    expectValid(part);
    ASSERT_EQ(part.strandCount(), indices.size());
    const std::vector<float>&share = *part.pointChannel("share"),
          &shareBefore = *tuft.pointChannel("share");
    for (std::size_t k = 0; k < indices.size(); ++k) {
        const std::size_t s = indices[k];
        EXPECT_EQ(part.ids()[k], tuft.ids()[s]);
        EXPECT_EQ(part.roots()[k], tuft.roots()[s]);
        EXPECT_TRUE(std::ranges::equal(part.pointsOf(k), tuft.pointsOf(s)));
        EXPECT_EQ(part.strandChannel("tone")->at(k), tuft.strandChannel("tone")->at(s));
        for (std::size_t i = 0; i < part.pointCountOf(k); ++i) {
            EXPECT_EQ(part.widths()[part.offsets()[k] + i], tuft.widths()[tuft.offsets()[s] + i]);
            EXPECT_EQ(share[part.offsets()[k] + i], shareBefore[tuft.offsets()[s] + i]);
        }
    }
    EXPECT_TRUE(part.strandChannels().at("clumpId").discrete);
}

TEST_P(StrandSetParts, ThinningKeepsNestedSubsets) {
    const StrandSet half = tuft.thinned(0.5f), quarter = tuft.thinned(0.25f);
    EXPECT_EQ(half.thinned(0.25f).contentHash(), quarter.contentHash());
    EXPECT_NEAR(double(half.strandCount()), 1500.0, 120.0);
    for (const std::uint64_t id : quarter.ids()) EXPECT_LT(unitHash(id), 0.25f);
    EXPECT_EQ(arraysNotShared(tuft.thinned(1.0f), tuft), 0u);  // nothing to copy
    EXPECT_EQ(tuft.thinned(0.0f).strandCount(), 0u);
    EXPECT_EQ(tuft.thinned(std::numeric_limits<float>::quiet_NaN()).strandCount(), 0u);
    expectValid(tuft.thinned(0.0f));
}

TEST_P(StrandSetParts, GivesTheSameBitsOnOneThreadAndOnMany) {
    StrandSet one, many;
    StrandSet::Extent oneExtent, manyExtent;
    runWithThreads(1, [&] { oneExtent = (one = tuft.thinned(0.6f)).extent(); });
    runWithThreads(8, [&] { manyExtent = (many = tuft.thinned(0.6f)).extent(); });
    EXPECT_EQ(one.contentHash(), many.contentHash());
    EXPECT_EQ(oneExtent, manyExtent);
}

TEST(StrandSetAppend, PadsChannelsThatOneSideLacks) {
    StrandSet a, b;
    a.addStrand(1, kLine, {}, {});
    b.addStrand(2, std::span(kLine).first(2), {}, {});
    a.mutableStrandChannel("mine", 1.0f)[0] = 10.0f;
    a.mutablePointChannel("minePoint", 2.0f)[1] = 20.0f;
    b.mutableStrandChannel("theirs", 3.0f)[0] = 30.0f;
    b.mutablePointChannel("theirsPoint", 4.0f)[1] = 40.0f;
    a.mutableStrandChannel("both", 5.0f);
    b.mutableStrandChannel("both", 6.0f);
    a.append(b);
    expectValid(a);
    using Values = std::vector<float>;
    EXPECT_EQ(*a.strandChannel("mine"), (Values{10, 1}));
    EXPECT_EQ(*a.pointChannel("minePoint"), (Values{2, 20, 2, 2, 2}));
    EXPECT_EQ(*a.strandChannel("theirs"), (Values{3, 30}));
    EXPECT_EQ(a.strandChannelDefault("theirs"), 3.0f);
    EXPECT_EQ(*a.pointChannel("theirsPoint"), (Values{4, 4, 4, 4, 40}));
    EXPECT_EQ(*a.strandChannel("both"), (Values{5, 6}));
    EXPECT_EQ(a.strandChannelDefault("both"), 5.0f);
}

TEST(StrandSetAppend, SpreadsStrandValuesIntoPointChannels) {
    StrandSet a, b;
    a.addStrand(1, kLine, {}, {});
    a.addStrand(3, std::span(kLine).first(1), {}, {});
    b.addStrand(2, std::span(kLine).first(2), {}, {});
    a.mutablePointChannel("x", 1.0f);
    b.mutableStrandChannel("x", 2.0f);
    a.mutableStrandChannel("y", 3.0f)[1] = 4.0f;
    b.mutablePointChannel("y", 5.0f);
    a.append(b);
    expectValid(a);
    using Values = std::vector<float>;
    EXPECT_EQ(*a.pointChannel("x"), (Values{1, 1, 1, 1, 2, 2}));
    EXPECT_EQ(*a.pointChannel("y"), (Values{3, 3, 3, 4, 5, 5}));
    EXPECT_EQ(*a.strandChannel("x"), (Values{2, 2, 2}));  // strand channels pad only
    EXPECT_EQ(*a.strandChannel("y"), (Values{3, 4, 3}));
}

TEST(StrandSetAppend, JoinsLayers) {
    const auto card = std::make_shared<CardMesh>(), other = std::make_shared<CardMesh>();
    StrandSet a, b, bare;
    a.instances = std::make_shared<Instances>(std::vector<std::uint64_t>{1});
    b.instances = std::make_shared<Instances>(std::vector<std::uint64_t>{2});
    a.cards = {card};
    b.cards = {card, other};
    b.featherLayers = {std::make_shared<FeatherLayer>()};
    StrandSet joined = a;
    joined.append(b);
    EXPECT_EQ(joined.instances->contentHash(), Instances({1, 2}).contentHash());
    EXPECT_EQ(joined.cards, (std::vector<std::shared_ptr<const CardMesh>>{card, other}));
    EXPECT_EQ(joined.featherLayers, b.featherLayers);
    bare.append(b);
    EXPECT_EQ(bare.instances, b.instances);
    a.append(a);
    EXPECT_EQ(a.instances->contentHash(), Instances({1}).contentHash());
    EXPECT_EQ(b.subset({}).instances, b.instances);
    EXPECT_EQ(b.subset({}).cards, b.cards);
}

TEST(StrandSetSubset, RefusesIndicesOutOfRange) {
    const StrandSet set = makeTuft({.strands = 3});
    try {
        set.subset(std::vector<std::uint32_t>{0, 3});
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(),
                     "StrandSet::subset: strand 3 of 3, give indices below the strand count");
    }
}

// --- Channels ----------------------------------------------------------------------------------

TEST(StrandSetChannels, AnswerForAbsentNames) {
    StrandSet set = makeTuft({.strands = 4});
    EXPECT_EQ(set.strandChannel("absent"), nullptr);
    EXPECT_EQ(set.pointChannel("tone"), nullptr);
    EXPECT_EQ(set.strandChannelDefault("absent"), 0.0f);
    EXPECT_EQ(set.pointChannelDefault("share"), 0.25f);
    EXPECT_FALSE(set.removePointChannel("absent"));
    set.setStrandChannelDiscrete("absent");
    EXPECT_EQ(set.strandChannelNames(), (std::vector<std::string>{"clumpId", "tone"}));
    EXPECT_TRUE(set.removeStrandChannel("tone"));
    EXPECT_EQ(set.strandChannel("tone"), nullptr);
    EXPECT_EQ(set.mutableStrandChannel("clumpId", 77.0f).size(), 4u);
    EXPECT_EQ(set.strandChannelDefault("clumpId"), -1.0f);  // an existing channel keeps its own
}

// --- Extent ------------------------------------------------------------------------------------

StrandSet::Extent plainExtent(const StrandSet& set) {
    StrandSet::Extent extent;
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        extent.longest = std::max(extent.longest, polylineLength(set.pointsOf(s)));
        for (const Vec3f p : set.pointsOf(s)) {
            extent.min = componentMin(extent.min, p);
            extent.max = componentMax(extent.max, p);
            extent.finite = extent.finite && isFinite(p);
        }
    }
    return extent;
}

TEST(StrandSetExtent, CoversAllPointsAndFollowsWrites) {
    StrandSet set = makeTuft({.strands = 5000, .uneven = true, .degenerate = true});
    EXPECT_EQ(set.extent(), plainExtent(set));
    const StrandSet copy = set;
    set.mutablePoints()[777] = {100, -100, 50};
    EXPECT_EQ(set.extent(), plainExtent(set));
    EXPECT_EQ(copy.extent(), plainExtent(copy));
    set.addStrand(1, std::vector<Vec3f>{{0, 500, 0}}, {}, {});
    EXPECT_EQ(set.extent().max.y, 500.0f);
    set.append(makeTuft({.strands = 10, .radius = 2000.0f}));
    EXPECT_EQ(set.extent(), plainExtent(set));
}

TEST(StrandSetExtent, TellsPointsThatAreNotNumbers) {
    for (const float bad :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
          -std::numeric_limits<float>::infinity()})
        for (int axis = 0; axis < 3; ++axis) {
            StrandSet set = makeTuft({.strands = 5000});
            set.mutablePoints()[33'333][axis] = bad;
            EXPECT_FALSE(set.extent().finite);
        }
}

TEST(StrandSetExtent, AfterAChangeEqualsTheFullOne) {
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        SplitMix random(seed);
        const StrandSet before = makeTuft({.strands = 9000, .pointsPerStrand = 4, .seed = seed});
        if (seed % 4 != 0) before.extent();  // else there is nothing to start from
        StrandSet after = before;
        std::vector<std::uint32_t> changed(random.nextU64() % 20);
        for (std::uint32_t& s : changed) s = std::uint32_t(random.nextU64() % 9000);
        if (seed % 3 != 0) std::sort(changed.begin(), changed.end());
        const std::span<Vec3f> points = after.mutablePoints();
        for (const std::uint32_t s : changed)
            for (std::size_t i = 0; i < 4; ++i) points[s * 4 + i] *= random.nextRange(0.0f, 3.0f);
        EXPECT_EQ(after.extentAfter(before, changed), plainExtent(after));
        EXPECT_EQ(after.extent(), plainExtent(after));

        StrandSet moved = after;  // and once more from chunks that were carried over
        moved.mutablePoints()[8999 * 4] = {-70, 0, 0};
        EXPECT_EQ(moved.extentAfter(after, std::vector<std::uint32_t>{8999}), plainExtent(moved));
    }
}

TEST(StrandSetExtent, AfterAChangeOfLayoutIsComputedAnew) {
    const StrandSet before = makeTuft({.strands = 3000});
    before.extent();
    StrandSet other = makeTuft({.strands = 2999, .seed = 5});
    EXPECT_EQ(other.extentAfter(before, {}), plainExtent(other));
    StrandSet shifted = before;  // as many strands and points, cut elsewhere
    shifted.mutableOffsets()[1] += 3;
    EXPECT_EQ(shifted.extentAfter(before, {}), plainExtent(shifted));
    StrandSet moved = before;
    moved.mutablePoints()[0] = {-500, 0, 0};
    EXPECT_EQ(moved.extentAfter(before, std::vector<std::uint32_t>{4'000'000'000u}),
              plainExtent(moved));
}

TEST(StrandSetExtent, MayBeAskedForFromManyThreads) {
    const StrandSet set = makeTuft({.strands = 6000, .pointsPerStrand = 3});
    const StrandSet::Extent expected = plainExtent(set);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            EXPECT_EQ(set.extent(), expected);
            const StrandSet copy = set;  // NOLINT: the copy is the test
            EXPECT_EQ(copy.extent(), expected);
        });
    for (std::thread& thread : threads) thread.join();
}

// --- Comparing and checking --------------------------------------------------------------------

TEST(StrandSetHash, SeesEveryPartButCardsAndFlags) {
    const StrandSet set = makeTuft({.strands = 20});
    const auto differs = [&](auto&& change) {
        StrandSet other = set;
        change(other);
        return other.contentHash() != set.contentHash();
    };
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutableWidths()[40] += 1e-7f; }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutablePoints()[40].z += 1e-3f; }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutableIds()[19] ^= 1; }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutableRoots()[0].v += 0.1f; }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutableOffsets()[3] += 1; }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutableStrandChannel("tone", 0)[1] += 1; }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.mutablePointChannel("new", 0); }));
    EXPECT_TRUE(differs([](StrandSet& s) { s.removeStrandChannel("tone"); }));
    EXPECT_TRUE(differs([](StrandSet& s) {
        s.instances = std::make_shared<Instances>(std::vector<std::uint64_t>{1});
    }));
    EXPECT_FALSE(differs([](StrandSet& s) { s.cards.push_back(std::make_shared<CardMesh>()); }));
    EXPECT_FALSE(differs([](StrandSet& s) { s.setStrandChannelDiscrete("tone"); }));
}

TEST(StrandSetHash, CombinesInTheDocumentedOrder) {
    StrandSet set;
    set.addStrand(5, std::vector<Vec3f>{{1, 2, 3}}, std::vector<float>{0.5f}, {-1, 0.25f, 0.75f});
    set.mutableStrandChannel("b", 2.0f);
    set.mutableStrandChannel("a", 1.0f);
    set.mutablePointChannel("c", 3.0f);
    std::uint64_t h = mix64(1);
    h = hashCombine(hashCombine(h, std::uint64_t(5)), std::uint64_t(1));
    h = hashCombine(hashCombine(hashCombine(h, -1), 0.25f), 0.75f);
    for (const float x : {1.0f, 2.0f, 3.0f, 0.5f}) h = hashCombine(h, x);
    h = hashCombine(hashCombine(h, "a"), 1.0f);
    h = hashCombine(hashCombine(h, "b"), 2.0f);
    h = hashCombine(hashCombine(h, "c"), 3.0f);
    EXPECT_EQ(set.contentHash(), h);
}

TEST(StrandSetLayout, IsTheSameForEqualIdsAndCounts) {
    const StrandSet a = makeTuft({.strands = 20});
    StrandSet b = makeTuft({.strands = 20});
    b.mutablePoints()[0] = {};
    EXPECT_TRUE(a.sameLayout(b));
    StrandSet c = b;
    c.mutableIds()[3] ^= 1;
    EXPECT_FALSE(a.sameLayout(c));
    EXPECT_FALSE(a.sameLayout(makeTuft({.strands = 20, .pointsPerStrand = 9})));
    EXPECT_FALSE(a.sameLayout(makeTuft({.strands = 19})));
}

TEST(StrandSetValidate, NamesTheFirstBrokenRule) {
    const auto errorOf = [](auto&& change) {
        StrandSet set = makeTuft({.strands = 4, .pointsPerStrand = 5});
        change(set.mutableOffsets());
        std::string error;
        EXPECT_FALSE(set.validate(&error));
        EXPECT_FALSE(set.validate());
        return error;
    };
    EXPECT_EQ(errorOf([](auto offsets) { offsets[0] = 1; }), "offsets must start at 0");
    EXPECT_EQ(errorOf([](auto offsets) { offsets[4] = 21; }), "last offset must equal pointCount");
    EXPECT_EQ(errorOf([](auto offsets) { offsets[2] = 4; }), "offsets must be non-decreasing");
    EXPECT_EQ(errorOf([](auto offsets) { offsets[0] = 1, offsets[2] = 30; }),
              "offsets must start at 0");
}

TEST(StrandSetSize, CountsEveryArray) {
    const StrandSet set = makeTuft({.strands = 10, .pointsPerStrand = 4});
    EXPECT_EQ(set.byteSize(), 10u * (8 + 12) + 11 * 8 + 40 * (12 + 4) + 10 * 4 * 2 + 40 * 4);
}

}  // namespace
}  // namespace corvelle
