#include "expr/expressionLexer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

#include "expr/nameChars.h"

namespace corvelle {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

/// The bytes of one character of UTF-8 text, so that messages do not cut it.
std::size_t characterSize(std::string_view text, std::size_t offset) {
    std::size_t end = offset + 1;
    if (static_cast<unsigned char>(text[offset]) >= 0xc0)
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) ++end;
    return end - offset;
}

/// Whether decimal digits that no double holds are too small for one, rather than too large.
bool isTiny(std::string_view digits) {
    long long exponent = 0;
    const std::size_t e = digits.find_first_of("eE");
    if (e != std::string_view::npos) {
        const std::string_view written = digits.substr(e + 1 + (digits[e + 1] == '+' ? 1 : 0));
        const auto [end, error] =
            std::from_chars(written.data(), written.data() + written.size(), exponent);
        if (error != std::errc()) return written.front() == '-';
    }
    const std::string_view mantissa = digits.substr(0, e);
    const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
    const std::size_t first = mantissa.find_first_of("123456789");
    if (first == std::string_view::npos) return true;
    const long long scale =
        first < point ? (long long)(point - first) : -(long long)(first - point);
    return scale + std::clamp(exponent, -1'000'000'000'000ll, 1'000'000'000'000ll) < 0;
}

}  // namespace

ExpressionError expressionErrorAt(std::string_view text, std::size_t offset,
                                  std::string_view message) {
    offset = std::min(offset, text.size());
    std::string out = "expression '";
    out.append(text).append("': ").append(message);
    out.append(" at position ").append(std::to_string(offset + 1));
    if (text.find('\n') != std::string_view::npos) {
        const std::string_view before = text.substr(0, offset);
        const auto lines = std::count(before.begin(), before.end(), '\n');
        const std::size_t lineStart = before.rfind('\n') + 1;  // npos + 1 is 0
        out.append(" (line ").append(std::to_string(lines + 1));
        out.append(", column ").append(std::to_string(offset - lineStart + 1)).append(")");
    }
    std::replace(out.begin(), out.end(), '\0', ' ');  // would end the message
    return ExpressionError(out);
}

ExpressionLexer::ExpressionLexer(std::string_view text) : text_(text) { advance(); }

void ExpressionLexer::fail(std::size_t offset, std::string_view message) const {
    throw expressionErrorAt(text_, offset, message);
}

void ExpressionLexer::skipBlanks() {
    while (next_ < text_.size()) {
        if (isBlank(text_[next_])) {
            ++next_;
        } else if (text_[next_] == '#' || (text_[next_] == '/' && at(next_ + 1) == '/')) {
            next_ = std::min(text_.find('\n', next_), text_.size());
        } else {
            return;
        }
    }
}

std::size_t ExpressionLexer::nameEnd(std::size_t from) const {
    while (from < text_.size() && isNameChar(text_[from])) ++from;
    return from;
}

void ExpressionLexer::take(ExpressionToken::Kind kind, std::size_t skipped, std::size_t end) {
    token_.kind = kind;
    token_.text = text_.substr(next_ + skipped, end - next_ - skipped);
    token_.written = text_.substr(next_, end - next_);
    next_ = end;
}

void ExpressionLexer::readNumber() {
    const char* begin = text_.data() + next_;
    const char* end = text_.data() + text_.size();
    double value = 0.0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    if (error == std::errc::result_out_of_range && isTiny({begin, std::size_t(stop - begin)}))
        value = 0.0;
    else if (error != std::errc())
        fail(next_, "bad number");
    token_.number = float(value);
    if (!std::isfinite(token_.number)) fail(next_, "bad number");
    take(ExpressionToken::Kind::Number, 0, std::size_t(stop - text_.data()));
}

void ExpressionLexer::readQuoted() {
    const std::size_t close = text_.find(text_[next_], next_ + 1);
    token_.closed = close != std::string_view::npos;
    const std::size_t end = token_.closed ? close + 1 : text_.size();
    take(ExpressionToken::Kind::Quoted, 1, end);
    if (token_.closed) token_.text.remove_suffix(1);
}

void ExpressionLexer::advance() {
    endOfLast_ = next_;
    skipBlanks();
    token_ = {};
    token_.offset = next_;
    if (next_ >= text_.size()) return;
    const char c = text_[next_];
    if (isDigit(c) || (c == '.' && isDigit(at(next_ + 1)))) return readNumber();
    if (isNameStart(c)) return take(ExpressionToken::Kind::Name, 0, nameEnd(next_));
    if (c == '$') return take(ExpressionToken::Kind::Dollar, 1, nameEnd(next_ + 1));
    if (c == '"' || c == '\'') return readQuoted();
    const bool withEquals = (c == '<' || c == '>' || c == '=' || c == '!') && at(next_ + 1) == '=';
    take(ExpressionToken::Kind::Symbol, 0, next_ + (withEquals ? 2 : characterSize(text_, next_)));
}

}  // namespace corvelle
