#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "io/jsonScan.h"
#include "model/hash.h"

namespace corvelle {
namespace {

using nlohmann::json;

std::string libraryFault(const std::string& text) {
    try {
        const json parsed = json::parse(text);
        return "";
    } catch (const json::exception& error) {
        return error.what();
    }
}

TEST(JsonScan, TakesAndRefusesWhatTheLibraryDoesInItsWords) {
    const std::vector<std::string> texts = {"",
                                            " ",
                                            "1",
                                            "-",
                                            "01",
                                            "1.",
                                            ".5",
                                            "1e",
                                            "1e5",
                                            "1E+05",
                                            "-0",
                                            "-0.0",
                                            "1e400",
                                            "-1e-400",
                                            "18446744073709551615",
                                            "18446744073709551616",
                                            "-9223372036854775808",
                                            "-9223372036854775809",
                                            "123456789012345678901234567890",
                                            "tru",
                                            "true",
                                            "nul",
                                            "null ",
                                            "[",
                                            "]",
                                            "[]",
                                            "[ ]",
                                            "[,]",
                                            "[1,]",
                                            "[1 2]",
                                            "[1,2]",
                                            "{",
                                            "{}",
                                            "{ }",
                                            "{,}",
                                            "{\"a\"}",
                                            "{\"a\":}",
                                            "{\"a\":1,}",
                                            "{a:1}",
                                            "{\"a\":1 \"b\":2}",
                                            "{\"a\":{\"b\":[1,{}]}}",
                                            "[[[]]]",
                                            "[1]]",
                                            "\"",
                                            "\"a",
                                            "\"\\\"",
                                            "\"\\x\"",
                                            "\"\\u12\"",
                                            "\"\\u00e5\"",
                                            "\"\\ud83d\\ude00\"",
                                            "\"\\ud83d\"",
                                            "\"\\ude00\"",
                                            "\"\\ud83d\\u0041\"",
                                            "\"\n\"",
                                            "\"\x7f\"",
                                            "\"\xc3\xa5\"",
                                            "\"\xc3\"",
                                            "\"\xc0\x80\"",
                                            "\"\xed\xa0\x80\"",
                                            "\"\xf4\x90\x80\x80\"",
                                            "\"\xf0\x9f\x98\x80\"",
                                            "\"\xe2\x82\"",
                                            "\xef\xbb\xbf[1]",
                                            "\xef\xbb[1]",
                                            "// a\n1",
                                            "NaN",
                                            "\v1",
                                            "[1]\n\t\r ",
                                            std::string(400, '9'),
                                            "0." + std::string(400, '3')};
    for (const std::string& text : texts) {
        const JsonScan scan(text);
        EXPECT_EQ(scan.fault().what, libraryFault(text)) << text;
        if (!scan.fault().any()) {
            EXPECT_EQ(compactJson(scan.root()), json::parse(text).dump()) << text;
        }
    }
    const std::string zero("[1]\0", 4);
    EXPECT_TRUE(JsonScan(zero).fault().any());
}

TEST(JsonScan, RefusesTextThatNestsTooDeep) {
    const auto nested = [](int depth) {
        return std::string(std::size_t(depth), '[') + std::string(std::size_t(depth), ']');
    };
    EXPECT_FALSE(JsonScan(nested(512)).fault().any());
    EXPECT_EQ(JsonScan(nested(513)).fault().what, "nested deeper than 512");
    EXPECT_EQ(JsonScan(std::string(10'000'000, '[')).fault().what, "nested deeper than 512");
}

/// A JSON text with blanks, escapes, keys in any order, some twice.
std::string madeText(SplitMix& random, int depth) {
    const auto below = [&](std::size_t n) { return std::size_t(random.nextU64() % n); };
    const auto blank = [&] { return std::string(below(3), " \n\t"[below(3)]); };
    const std::vector<std::string> names = {"\"b\"", "\"a\"",         "\"\\u0062\"", "\"a b\"",
                                            "\"\"",  "\"\\\"q\\\\\"", "\"å\""};
    switch (below(depth > 5 ? 3 : 5)) {
        case 0:
            return std::vector<std::string>{"true", "false", "null", "-0",
                                            "1E2",  "0.10",  "-12",  "1e-7"}[below(8)];
        case 1:
            return names[below(names.size())];
        case 2:
            return std::to_string(random.nextU64());
        case 3: {
            std::string text = "[" + blank();
            for (std::size_t n = below(12), i = 0; i < n; ++i)
                text += (i ? blank() + "," + blank() : "") + madeText(random, depth + 1);
            return text + blank() + "]";
        }
        default: {
            std::string text = "{" + blank();
            for (std::size_t n = below(6), i = 0; i < n; ++i)
                text += (i ? "," + blank() : "") + names[below(names.size())] + blank() + ":" +
                        blank() + madeText(random, depth + 1);
            return text + blank() + "}";
        }
    }
}

TEST(JsonScan, FindsEveryMemberAndElementThatTheLibraryFinds) {
    std::size_t objects = 0;
    for (std::uint64_t seed = 0; seed < 2000; ++seed) {
        SplitMix random(seed);
        const std::string text = madeText(random, 0);
        const JsonScan scan(text);
        ASSERT_EQ(scan.fault().what, "") << text;
        const json library = json::parse(text);
        ASSERT_EQ(compactJson(scan.root()), library.dump()) << text;
        if (JsonScan::isObject(scan.root())) {
            ++objects;
            const JsonScan::Object members = scan.members(scan.root());
            ASSERT_EQ(members.size(), library.size()) << text;
            for (const auto& [name, value] : members)
                ASSERT_EQ(json::parse(value), library.at(name)) << text;
        } else if (JsonScan::isArray(scan.root())) {
            const auto elements = scan.elements(scan.root());
            ASSERT_EQ(elements.size(), library.size()) << text;
            for (std::size_t i = 0; i < elements.size(); ++i)
                ASSERT_EQ(json::parse(elements[i]), library.at(i)) << text;
        }
    }
    EXPECT_GT(objects, 300u);
}

}  // namespace
}  // namespace corvelle
