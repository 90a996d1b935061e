#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "expr/expressionMap.h"

namespace corvelle {

/// "expression '<text>': <message> at position <n>", with the line and column too for a text of
/// several lines. Positions, lines and columns count bytes from 1.
ExpressionError expressionErrorAt(std::string_view text, std::size_t offset,
                                  std::string_view message);

struct ExpressionToken {
    enum class Kind { End, Number, Name, Dollar, Quoted, Symbol };
    Kind kind = Kind::End;
    /// The name, the name after '$', what is between the quotes, or the symbol; empty at the end.
    std::string_view text;
    std::string_view written;  ///< all of it, as it stands in the text
    std::size_t offset = 0;
    float number = 0.0f;
    bool closed = true;  ///< quotes: their end was found
    bool is(std::string_view symbol) const { return kind == Kind::Symbol && text == symbol; }
};

/// Cuts a text into tokens, one ahead. Views into the text given: keep it alive.
class ExpressionLexer {
public:
    /// Throws ExpressionError, as `advance` does, for a number that cannot be read.
    explicit ExpressionLexer(std::string_view text);

    const ExpressionToken& token() const { return token_; }
    /// Goes on to the next token.
    void advance();
    /// The first byte behind the token before this one.
    std::size_t endOfLast() const { return endOfLast_; }
    std::string_view text() const { return text_; }
    [[noreturn]] void fail(std::size_t offset, std::string_view message) const;

private:
    void skipBlanks();
    void readNumber();
    void readQuoted();
    std::size_t nameEnd(std::size_t from) const;
    char at(std::size_t offset) const { return offset < text_.size() ? text_[offset] : '\0'; }
    void take(ExpressionToken::Kind kind, std::size_t skipped, std::size_t end);

    std::string_view text_;
    std::size_t next_ = 0;
    std::size_t endOfLast_ = 0;
    ExpressionToken token_;
};

}  // namespace corvelle
