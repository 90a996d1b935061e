#include "hosts/blender/helper/base64.h"

#include <array>
#include <cstdint>

namespace corvelle {
namespace {

constexpr std::string_view kLetters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr auto kValues = [] {
    std::array<std::int8_t, 256> values{};
    values.fill(-1);
    for (std::size_t i = 0; i < kLetters.size(); ++i)
        values[static_cast<unsigned char>(kLetters[i])] = std::int8_t(i);
    return values;
}();

}  // namespace

std::string base64FromBytes(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t held = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t word = 0;
        for (std::size_t k = 0; k < 3; ++k)
            word = word << 8 | (k < held ? static_cast<unsigned char>(bytes[i + k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k)
            text += k <= held ? kLetters[word >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

std::optional<std::string> bytesFromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    text.remove_suffix(padding);
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 3);
    std::uint32_t word = 0;
    int bits = 0;
    for (const char c : text) {
        const std::int8_t value = kValues[static_cast<unsigned char>(c)];
        if (value < 0) return std::nullopt;
        word = word << 6 | std::uint32_t(value);
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        bytes += static_cast<char>(word >> bits & 255);
    }
    // What is left over of the last letter is zero in every text that was made of bytes.
    if (bits >= 6 || (word & ((1u << bits) - 1)) != 0) return std::nullopt;
    return bytes;
}

}  // namespace corvelle
