#include <bit>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

#include "hosts/blender/helper/answerPool.h"
#include "hosts/blender/helper/arrayReader.h"
#include "hosts/blender/helper/hostPoints.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr std::uint64_t kMebibyte = 1024 * 1024;

TEST(AnswerPool, MakesARegionWithRoomToGrowAndKeepsItWhileItServes) {
    AnswerPool pool("poolTestA");
    EXPECT_FALSE(pool.region());
    pool.prepare(3 * kMebibyte);
    const std::string first = pool.region().name();
    EXPECT_EQ(first, regionName("poolTestA", 1));
    EXPECT_EQ(pool.region().size(), 5 * kMebibyte) << "half as much again, in whole MiB";

    for (const std::uint64_t bytes : {0 * kMebibyte, 5 * kMebibyte, 1 * kMebibyte}) {
        pool.prepare(bytes);
        EXPECT_EQ(pool.region().name(), first);
    }
    pool.prepare(5 * kMebibyte + 1);
    EXPECT_EQ(pool.region().name(), regionName("poolTestA", 2));
    EXPECT_EQ(pool.serial(), 2u);
    EXPECT_THROW(SharedRegion::open(first), std::runtime_error) << "the old one is gone";
}

TEST(AnswerPool, EmptyAnswerHasARegionToo) {
    AnswerPool pool("poolTestB");
    pool.prepare(0);
    EXPECT_EQ(pool.region().size(), 1u);
    EXPECT_EQ(writeFloats(pool, {})["shape"], Json::array({0}));
}

TEST(AnswerPool, AlignsArraysAndRefusesWhatDoesNotFit) {
    AnswerPool pool("poolTestC");
    EXPECT_THROW(pool.allocate(1, 4, "<f4", {1}), std::logic_error) << "not prepared";
    pool.prepare(1000);
    EXPECT_EQ(pool.allocate(3, 1, "<f4", {3}).reference["offset"], 0);
    EXPECT_EQ(pool.used(), 3u);
    EXPECT_EQ(pool.allocate(16, 4, "<f4", {16}).reference["offset"], 64);
    EXPECT_EQ(pool.used(), 128u);
    const std::uint64_t rest = pool.region().size() - 128;
    for (const std::uint64_t count : {rest + 1, ~std::uint64_t{0}, ~std::uint64_t{0} / 8 + 1}) {
        try {
            pool.allocate(count, count == rest + 1 ? 1 : 8, "<f4", {count});
            ADD_FAILURE() << "took " << count;
        } catch (const std::logic_error& error) {
            EXPECT_STREQ(error.what(), "an answer outgrew its shared memory");
        }
    }
    EXPECT_EQ(pool.allocate(rest, 1, "<f4", {rest}).reference["offset"], 128);
    EXPECT_NO_THROW(pool.prepare(1000));
    EXPECT_EQ(pool.used(), 0u);
}

TEST(AnswerPool, ThatCannotGrowIsEmptyAndServesAgain) {
    AnswerPool pool("poolTestD");
    pool.prepare(100);
    EXPECT_THROW(pool.prepare(~std::uint64_t{0}), std::runtime_error);
    EXPECT_FALSE(pool.region());
    EXPECT_THROW(writeFloats(pool, std::vector<float>{1}), std::logic_error);
    pool.prepare(100);
    EXPECT_EQ(pool.region().name(), regionName("poolTestD", 3)) << "no name comes back";
}

TEST(AnswerPool, ArraysComeBackAsTheyWereWritten) {
    AnswerPool pool("poolTestE");
    const std::size_t count = 200'000;  // several chunks
    std::vector<float> floats(count * 2);
    std::vector<std::uint64_t> ids(count);
    std::vector<std::int64_t> offsets(count);
    std::vector<std::int32_t> counts(count);
    for (std::size_t i = 0; i < count; ++i) {
        floats[i] = float(i) * 0.25f;
        ids[i] = i * 0x9e3779b97f4a7c15u;
        offsets[i] = -std::int64_t(i);
        counts[i] = std::int32_t(i % 7) - 3;
    }
    pool.prepare(AnswerPool::bytesOf(count * 2, 4) + AnswerPool::bytesOf(count, 8) * 2 +
                 AnswerPool::bytesOf(count, 4));
    const Json floatsReference = writeFloats(pool, floats, 2);
    const Json idsReference = writeIds(pool, ids);
    const Json offsetsReference = writeLongs(pool, offsets);
    const Json countsReference = writeInts(pool, counts);
    EXPECT_EQ(floatsReference["shape"], Json::array({count, 2}));
    EXPECT_EQ(idsReference["shape"], Json::array({count}));
    EXPECT_EQ(floatsReference["dtype"], "<f4");
    EXPECT_EQ(idsReference["dtype"], "<u8");
    EXPECT_EQ(offsetsReference["dtype"], "<i8");
    EXPECT_EQ(countsReference["dtype"], "<i4");

    OpenedRegions opened;
    EXPECT_EQ(readFloats(floatsReference, "floats", 2, opened), floats);
    EXPECT_EQ(readIds(idsReference, "ids", opened), ids);
    EXPECT_EQ(readInts(countsReference, "counts", 1, opened), counts);
    const SharedRegion& region = opened.open(pool.region().name());
    std::vector<std::int64_t> read(count);
    region.read(offsetsReference["offset"], std::as_writable_bytes(std::span(read)));
    EXPECT_EQ(read, offsets);
}

class AnswerPoolPoints : public testing::TestWithParam<SceneSpace> {};
INSTANTIATE_TEST_SUITE_P(Spaces, AnswerPoolPoints,
                         testing::Values(SceneSpace("Z", 1.0), SceneSpace("Y", 0.01),
                                         SceneSpace("Z", 0.0254), SceneSpace("Y", 3.0),
                                         SceneSpace("Z", 0.01), SceneSpace("Z", 0.025),
                                         SceneSpace("Z", 1e-30), SceneSpace("Z", 1e6)));

TEST_P(AnswerPoolPoints, AreEachTurnedToTheHostOnAnyNumberOfThreads) {
    const SceneSpace& space = GetParam();
    std::vector<Vec3f> points(200'003);  // not a multiple of any step
    for (std::size_t i = 0; i < points.size(); ++i)
        points[i] = {float(i) * 0.37f, -float(i % 101) / 3.0f, 1.0f / float(i + 1)};
    const auto write = [&](bool groomSpace) {
        AnswerPool pool("poolTestF");
        pool.prepare(AnswerPool::bytesOf(points.size(), sizeof(Vec3f)));
        const Json reference = writePoints(pool, points, space, groomSpace);
        EXPECT_EQ(reference["shape"], Json::array({points.size(), 3}));
        OpenedRegions opened;
        return readFloats(reference, "points", 3, opened);
    };
    std::vector<float> want;
    for (const Vec3f point : points) {
        const Vec3f host = space.pointToHost(point);
        want.insert(want.end(), {host.x, host.y, host.z});
    }
    runWithThreads(1, [&] { EXPECT_EQ(write(false), want); });
    runWithThreads(8, [&] { EXPECT_EQ(write(false), want); });
    const std::vector<float> own = write(true);
    EXPECT_EQ(std::memcmp(own.data(), points.data(), points.size() * sizeof(Vec3f)), 0);
}

TEST_P(AnswerPoolPoints, HaveTheBitsOfASingleOneWhateverTheFloats) {
    const SceneSpace& space = GetParam();
    // A stride through all floats: zeros, subnormals, infinities and not-a-numbers of either sign.
    constexpr std::uint32_t kStride = 4099;  // prime
    std::vector<Vec3f> points(std::size_t((std::uint64_t(1) << 32) / kStride / 3));
    std::uint32_t bits = 0;
    for (Vec3f& point : points)
        for (int axis = 0; axis < 3; ++axis, bits += kStride)
            point[axis] = std::bit_cast<float>(bits);
    std::vector<Vec3f> want(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) want[i] = space.pointToHost(points[i]);
    std::vector<Vec3f> got(points.size());
    pointsToHost(points, space, got.data());
    std::size_t differ = 0;
    for (std::size_t i = 0; i < points.size(); ++i)
        differ += std::memcmp(&got[i], &want[i], sizeof(Vec3f)) != 0;
    EXPECT_EQ(differ, 0u);

    std::vector<float> lengths(&points[0].x, &points[0].x + 3 * points.size()), wantLengths;
    lengths.resize(lengths.size() - 1);  // not a multiple of any step
    for (const float length : lengths) wantLengths.push_back(space.lengthToHost(length));
    lengthsToHost(lengths, space, lengths.data());
    EXPECT_EQ(std::memcmp(lengths.data(), wantLengths.data(), lengths.size() * sizeof(float)), 0);
}

}  // namespace
}  // namespace corvelle
