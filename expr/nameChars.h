#pragma once

namespace corvelle {

// The letters of names, by hand: the C library's classes of characters follow the locale.

constexpr bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isNameChar(char c) { return isNameStart(c) || isDigit(c); }

}  // namespace corvelle
