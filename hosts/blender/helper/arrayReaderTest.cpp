#include <cstring>
#include <functional>
#include <limits>
#include <random>

#include <gmock/gmock.h>

#include "hosts/blender/helper/arrayReader.h"
#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string failureOf(const std::function<void()>& read) {
    try {
        read();
    } catch (const RequestError& error) {
        return error.code() + ": " + error.what();
    }
    return "";
}

class ArrayReader : public testing::Test {
protected:
    // Puts values into a fresh region and refers to them.
    template <class T>
    Json refer(const std::vector<T>& values, const char* dtype, Json shape = nullptr,
               std::size_t offset = 0) {
        const std::string name = regionName("readerTest", serial_++);
        regions_.push_back(SharedRegion::create(name, offset + values.size() * sizeof(T)));
        if (!values.empty())
            std::memcpy(regions_.back().bytes().data() + offset, values.data(),
                        values.size() * sizeof(T));
        if (shape.is_null()) shape = Json::array({values.size()});
        return {{"shm", name}, {"dtype", dtype}, {"shape", shape}, {"offset", offset}};
    }
    std::string floatsFailure(const Json& value, std::size_t components = 1) {
        return failureOf([&] { readFloats(value, "points", components, opened); });
    }
    std::string intsFailure(const Json& value) {
        return failureOf([&] { readInts(value, "counts", 1, opened); });
    }

    OpenedRegions opened;

private:
    static inline std::uint32_t serial_ = 0;
    std::vector<SharedRegion> regions_;
};

TEST_F(ArrayReader, ListsMayNestAsTheyPlease) {
    EXPECT_THAT(readFloats(Json::parse("[1, [2.5, [3]], []]"), "a", 1, opened),
                ElementsAre(1.0f, 2.5f, 3.0f));
    EXPECT_EQ(readInts(Json::parse("[[1,2,3],[4,5,6]]"), "a", 3, opened),
              readInts(Json::parse("[1,2,3,4,5,6]"), "a", 3, opened));
    EXPECT_THAT(readUints(Json::array(), "a", 3, opened), IsEmpty());
}

TEST_F(ArrayReader, ListsOfOtherThingsThanNumbersAreRefused) {
    for (const char* text : {"[1, \"2\"]", "[true]", "[[null]]", "[{}]"}) {
        const Json value = Json::parse(text);
        EXPECT_EQ(floatsFailure(value), "bad_request: points holds something that is not a number");
        EXPECT_EQ(intsFailure(value), "bad_request: counts holds something that is not a number");
    }
    EXPECT_EQ(intsFailure(Json::parse("[1, 2.0]")),
              "bad_request: counts holds a fraction where an integer goes");
    for (const char* text : {"5", "\"points\"", "true", "null"})
        EXPECT_EQ(floatsFailure(Json::parse(text)),
                  "bad_request: points must be a list or a shared memory reference");
}

TEST_F(ArrayReader, IntegersNarrowToTheirLowBits) {
    const Json list = Json::parse("[-1, 4294967297, 18446744073709551615, -4294967295]");
    EXPECT_THAT(readInts(list, "a", 1, opened), ElementsAre(-1, 1, -1, 1));
    EXPECT_THAT(readUints(list, "a", 1, opened), ElementsAre(4294967295u, 1u, 4294967295u, 1u));
    const std::vector<std::int64_t> wide = {-1, 4294967297, 7};
    EXPECT_THAT(readInts(refer(wide, "<i8"), "a", 1, opened), ElementsAre(-1, 1, 7));
}

TEST_F(ArrayReader, FloatsInMemoryAreCutTowardsZeroAndSaturate) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<double> values = {1.9, -1.9, 1e30, -1e30, nan};
    EXPECT_THAT(readInts(refer(values, "<f8"), "a", 1, opened),
                ElementsAre(1, -1, 2147483647, -2147483647 - 1, 0));
    EXPECT_THAT(readUints(refer(values, "<f8"), "a", 1, opened),
                ElementsAre(1u, 0u, 4294967295u, 0u, 0u));
}

TEST_F(ArrayReader, EveryDtypeGivesTheSameNumbers) {
    const std::vector<float> want = {0, 1, 2, 70000};
    const auto check = [&]<class T>(T, const char* dtype) {
        const std::vector<T> values(want.begin(), want.end());
        EXPECT_EQ(readFloats(refer(values, dtype), "a", 1, opened), want) << dtype;
        EXPECT_THAT(readInts(refer(values, dtype), "a", 1, opened), ElementsAre(0, 1, 2, 70000));
        EXPECT_THAT(readUints(refer(values, dtype, nullptr, 3), "a", 1, opened),
                    ElementsAre(0u, 1u, 2u, 70000u))
            << "at an odd offset";
    };
    check(float(), "<f4");
    check(double(), "<f8");
    check(std::int32_t(), "<i4");
    check(std::uint32_t(), "<u4");
    check(std::int64_t(), "<i8");
    check(std::uint64_t(), "<u8");
}

TEST_F(ArrayReader, LongArraysComeWholeThroughTheChunks) {
    std::mt19937 random(5);
    std::vector<double> values(300'001);
    for (double& value : values) value = double(random()) / 7.0;
    const std::vector<float> read = readFloats(refer(values, "<f8"), "a", 1, opened);
    EXPECT_EQ(read, std::vector<float>(values.begin(), values.end()));
    EXPECT_EQ(readFloats(refer(read, "<f4"), "a", 1, opened), read);
}

TEST_F(ArrayReader, ShapeAndComponentsMustAgree) {
    const std::vector<float> values(40, 1.0f);
    EXPECT_EQ(readFloats(refer(values, "<f4", {12}), "points", 3, opened).size(), 12u);
    EXPECT_EQ(readFloats(refer(values, "<f4", {4, 3}), "points", 3, opened).size(), 12u);
    EXPECT_THAT(readFloats(refer(values, "<f4", {0}), "points", 3, opened), IsEmpty());
    EXPECT_EQ(floatsFailure(refer(values, "<f4", {10, 4}), 3),
              "bad_request: points has 4 components, not 3");
    EXPECT_EQ(floatsFailure(refer(values, "<f4", {13}), 3),
              "bad_request: points holds 13 values: not a multiple of 3");
    EXPECT_EQ(floatsFailure(Json::parse("[1, 2]"), 3),
              "bad_request: points holds 2 values: not a multiple of 3");
    for (const char* bad : {"[]", "5", "\"5\"", "{}"})
        EXPECT_EQ(floatsFailure(refer(values, "<f4", Json::parse(bad))),
                  "bad_request: points: shape must be a list");
    for (const char* bad : {"[-1]", "[1.0]", "[\"1\"]", "[1, null]", "[[1]]"})
        EXPECT_EQ(floatsFailure(refer(values, "<f4", Json::parse(bad))),
                  "bad_request: points: shape holds a bad size");
}

TEST_F(ArrayReader, ReferenceNamesWhatIsWrongWithIt) {
    Json value = refer(std::vector<float>(4, 1.0f), "<f4");
    const auto with = [&](const char* key, Json field) {
        Json changed = value;
        changed[key] = std::move(field);
        return changed;
    };
    EXPECT_EQ(floatsFailure(with("shm", nullptr)), "bad_request: missing \"shm\"");
    EXPECT_EQ(floatsFailure(with("shm", 5)), "bad_request: \"shm\" must be a string");
    EXPECT_EQ(floatsFailure(with("dtype", "<f2")),
              "bad_request: dtype \"<f2\" is not one of <f4 <f8 <i4 <u4 <i8 <u8");
    EXPECT_EQ(floatsFailure(with("offset", -1)), "bad_request: points: a negative offset");
    EXPECT_EQ(floatsFailure(with("offset", "0")), "bad_request: \"offset\" must be a number");
    EXPECT_EQ(floatsFailure(with("shape", nullptr)), "bad_request: missing \"shape\"");
    EXPECT_EQ(floatsFailure(with("shm", "no such")),
              "shared_memory: bad shared memory name 'no such'");
    EXPECT_THAT(floatsFailure(with("shm", "corvelle_none")),
                testing::StartsWith("shared_memory: no shared memory named 'corvelle_none' ("));
    EXPECT_EQ(readFloats(with("dtype", nullptr), "a", 1, opened).size(), 4u) << "<f4 by default";
    EXPECT_EQ(readFloats(with("offset", 4.9), "a", 1, opened).size(), 4u) << "cut to 4";
}

TEST_F(ArrayReader, NothingIsReadBehindTheEndOfARegion) {
    const Json value = refer(std::vector<float>(4, 1.0f), "<f4");
    const std::string past = "bad_request: points runs past the end of shared memory '" +
                             value["shm"].get<std::string>() + "'";
    const auto at = [&](Json offset, Json shape) {
        Json changed = value;
        changed["offset"] = std::move(offset);
        changed["shape"] = std::move(shape);
        return changed;
    };
    EXPECT_EQ(readFloats(at(0, {1024}), "a", 1, opened).size(), 1024u) << "the page is its size";
    EXPECT_EQ(readFloats(at(4096, {0}), "a", 1, opened).size(), 0u);
    EXPECT_EQ(floatsFailure(at(0, {1025})), past);
    EXPECT_EQ(floatsFailure(at(4097, {0})), past);
    EXPECT_EQ(floatsFailure(at(1e300, {1})), past);
    EXPECT_EQ(floatsFailure(at(18446744073709551615u, {1})), past);
    EXPECT_EQ(floatsFailure(at(0, {18446744073709551615u})), past);
    // Products that come round: 2^64 is 0 and 2^64 + 4 is 4 in 64 bits.
    EXPECT_EQ(floatsFailure(at(0, {4294967296u, 4294967296u})), past);
    EXPECT_EQ(floatsFailure(at(0, {4u, 4611686018427387905u})), past);
    EXPECT_EQ(readFloats(at(0, {4294967296u, 4294967296u, 0}), "a", 1, opened).size(), 0u);
}

TEST_F(ArrayReader, NoInfinityAndNoNanGetsIn) {
    const std::string refused = "bad_request: points holds a NaN or an infinity";
    EXPECT_EQ(floatsFailure(Json::parse("[1, 1e300]")), refused);
    EXPECT_EQ(floatsFailure(Json::parse("[[1], [-1e39]]")), refused);
    for (const float bad :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
          -std::numeric_limits<float>::infinity()})
        for (const std::size_t place : {0, 5, 99}) {
            std::vector<float> values(100, 1.0f);
            values[place] = bad;
            EXPECT_EQ(floatsFailure(refer(values, "<f4")), refused) << place;
        }
    EXPECT_EQ(floatsFailure(refer(std::vector<double>{1e300}, "<f8")), refused);
    const float largest = std::numeric_limits<float>::max();
    EXPECT_THAT(
        readFloats(refer(std::vector<float>{largest, 1e-45f, -0.0f}, "<f4"), "a", 1, opened),
        ElementsAre(largest, 1e-45f, -0.0f));
}

TEST_F(ArrayReader, IdsKeepAllTheirBitsAndAreNeverNegative) {
    const std::uint64_t large = 18446744073709551615u;
    const auto failure = [&](const Json& value) {
        return failureOf([&] { readIds(value, "ids", opened); });
    };
    EXPECT_THAT(readIds(Json::array({0, large, 7}), "ids", opened), ElementsAre(0u, large, 7u));
    EXPECT_THAT(readIds(refer(std::vector<std::uint64_t>{large, 1}, "<u8"), "ids", opened),
                ElementsAre(large, 1u));
    EXPECT_THAT(readIds(refer(std::vector<std::uint32_t>{4294967295u}, "<u4"), "ids", opened),
                ElementsAre(4294967295u));

    const std::string negative = "bad_request: a guide ID is a positive integer";
    EXPECT_EQ(failure(Json::array({1, -1})), negative);
    EXPECT_EQ(failure(refer(std::vector<std::int32_t>{1, -1}, "<i4")), negative);
    EXPECT_EQ(failure(refer(std::vector<std::int64_t>{-1}, "<i8")), negative);
    const std::string fraction = "bad_request: ids holds a fraction where an integer goes";
    EXPECT_EQ(failure(Json::array({1.5})), fraction);
    EXPECT_EQ(failure(refer(std::vector<float>{1}, "<f4")), fraction);
    EXPECT_EQ(failure(refer(std::vector<double>{1}, "<f8")), fraction);
}

TEST_F(ArrayReader, RegionsOfARequestAreOpenedOnce) {
    const Json value = refer(std::vector<float>{1, 2}, "<f4");
    const std::string name = value["shm"];
    const SharedRegion& first = opened.open(name);
    EXPECT_EQ(&opened.open(name), &first);
}

}  // namespace
}  // namespace corvelle
