#include <functional>
#include <limits>

#include <gmock/gmock.h>

#include "hosts/blender/helper/request.h"
#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

// The code and text that a read fails with; "" if it does not.
std::string failureOf(const std::function<void()>& read) {
    try {
        read();
    } catch (const RequestError& error) {
        return error.code() + ": " + error.what();
    }
    return "";
}

TEST(Request, FieldThatHoldsNullIsAbsentForEveryReader) {
    const Json request = Json::parse(R"({"a": null})");
    for (const char* key : {"a", "b"}) {
        const std::string missing = "bad_request: missing \"" + std::string(key) + "\"";
        EXPECT_EQ(failureOf([&] { requireField(request, key); }), missing);
        EXPECT_EQ(failureOf([&] { requireString(request, key); }), missing);
        EXPECT_EQ(findField(request, key), nullptr);
        EXPECT_TRUE(optionalBool(request, key, true));
        EXPECT_EQ(optionalNumber(request, key, 2.5), 2.5);
        EXPECT_EQ(optionalString(request, key, "x"), "x");
    }
}

TEST(Request, ValueThatIsNoObjectHasNoFields) {
    for (const Json& value : {Json(5), Json::array({1}), Json("a"), Json()}) {
        EXPECT_EQ(optionalNumber(value, "a", 7.0), 7.0);
        EXPECT_EQ(failureOf([&] { requireField(value, "a"); }), "bad_request: missing \"a\"");
    }
}

TEST(Request, ReadersTakeTheirTypeAlone) {
    const Json request =
        Json::parse(R"({"yes": true, "one": 1, "half": 0.5, "text": "t", "list": []})");
    EXPECT_TRUE(optionalBool(request, "yes", false));
    EXPECT_EQ(optionalNumber(request, "one", 0), 1.0);
    EXPECT_EQ(optionalNumber(request, "half", 0), 0.5);
    EXPECT_EQ(requireString(request, "text"), "t");
    EXPECT_EQ(optionalString(request, "text", ""), "t");

    EXPECT_EQ(failureOf([&] { optionalBool(request, "one", false); }),
              "bad_request: \"one\" must be true or false");
    EXPECT_EQ(failureOf([&] { optionalNumber(request, "yes", 0); }),
              "bad_request: \"yes\" must be a number");
    EXPECT_EQ(failureOf([&] { optionalString(request, "half", ""); }),
              "bad_request: \"half\" must be a string");
    EXPECT_EQ(failureOf([&] { requireString(request, "list"); }),
              "bad_request: \"list\" must be a string");
}

TEST(Request, NumberThatIsNotFiniteIsRefused) {
    for (const double value :
         {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN()}) {
        const Json request = {{"a", value}};
        EXPECT_EQ(failureOf([&] { optionalNumber(request, "a", 0); }),
                  "bad_request: \"a\" must be finite");
    }
}

}  // namespace
}  // namespace corvelle
