#include <gtest/gtest.h>

#include "hosts/blender/helper/base64.h"
#include "model/hash.h"

namespace corvelle {
namespace {

TEST(Base64, IsTheOneOfTheStandard) {
    const std::pair<const char*, const char*> cases[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(base64FromBytes(bytes), text);
        EXPECT_EQ(bytesFromBase64(text), bytes);
    }
}

TEST(Base64, KeepsAnyBytes) {
    SplitMix random(5);
    for (std::size_t size = 0; size < 300; ++size) {
        std::string bytes;
        for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(random.nextU64());
        EXPECT_EQ(bytesFromBase64(base64FromBytes(bytes)), bytes);
    }
}

TEST(Base64, RefusesOtherTexts) {
    for (const char* text : {"Z", "Zg", "Zg=", "Zg=a", "Z===", "====", "Zh==", "Zm9=", "Zm 9",
                             "Zm9v\n", "Zm9v====", "Zm-_", "Zg==Zg=="})
        EXPECT_EQ(bytesFromBase64(text), std::nullopt) << text;
}

}  // namespace
}  // namespace corvelle
