#include "model/floatText.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace corvelle {

namespace {

constexpr double kPowers[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11};

constexpr auto kDigitPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = char('0' + i / 10);
        pairs[2 * i + 1] = char('0' + i % 10);
    }
    return pairs;
}();

/// digits / 10^decimals, from its last digit to its first, up to `end`; where it begins.
char* printFixed(char* end, std::uint64_t digits, int decimals) {
    char* p = end;
    const auto pair = [&](std::uint64_t value) {
        p -= 2;
        std::memcpy(p, kDigitPairs.data() + 2 * value, 2);
    };
    const auto digit = [&] {
        *--p = char('0' + digits % 10);
        digits /= 10;
    };
    const bool fraction = decimals > 0;
    for (; decimals >= 2; decimals -= 2, digits /= 100) pair(digits % 100);
    if (decimals > 0) digit();
    if (fraction) *--p = '.';
    do digit();
    while (digits > 0);
    return p;
}

/// The numbers that most files are made of: `value` in [0.001, 100000), where fixed text is never
/// longer than scientific. 10^k is exact times a float here, so the nearest decimal of each length
/// is known for sure, and so is whether it lies nearer to `value` than half a step between floats.
/// Null where that is too close to call, or the steps differ below and above.
char* printPlain(char* end, float value) {
    const auto bits = std::bit_cast<std::uint32_t>(value);
    if ((bits & 0x7fffffu) == 0) return nullptr;
    int decimals = 4;  // nine digits, which are always enough
    for (float limit = 1e4f; value < limit && decimals < 11; limit /= 10.0f) ++decimals;
    const double halfStep =
        std::bit_cast<double>(std::uint64_t((bits >> 23) - 127 - 24 + 1023) << 52);
    constexpr double kDoubt = 0x1p-20;

    std::uint64_t best = 0;
    int bestDecimals = -1;
    while (decimals >= 0) {
        const double scaled = double(value) * kPowers[decimals],
                     reach = halfStep * kPowers[decimals];
        auto digits = std::uint64_t(scaled + 0.5);
        const double off = std::abs(double(digits) - scaled);
        if (off > reach * (1.0 + kDoubt)) break;
        if (off >= reach * (1.0 - kDoubt) || off == 0.5) return nullptr;
        for (; decimals > 0 && digits % 10 == 0; digits /= 10) --decimals;
        best = digits;
        bestDecimals = decimals--;
    }
    return bestDecimals < 0 ? nullptr : printFixed(end, best, bestDecimals);
}

}  // namespace

void appendFloat32(std::string& out, float value) {
    if (value == 0.0f) {
        out += std::signbit(value) ? "-0.0" : "0";
        return;
    }
    char text[48];
    if (const float size = std::abs(value); size >= 0.001f && size < 1e5f) {
        char* const end = text + sizeof text;
        if (char* first = printPlain(end, size)) {
            if (value < 0.0f) *--first = '-';
            out.append(first, end);
            return;
        }
    }
    char* end = std::to_chars(text, text + sizeof text, value).ptr;
    double read = 0.0;
    std::from_chars(text, end, read);
    if (std::bit_cast<std::uint32_t>(float(read)) != std::bit_cast<std::uint32_t>(value))
        end = std::to_chars(text, text + sizeof text, double(value)).ptr;
    out.append(text, end);
}

}  // namespace corvelle
