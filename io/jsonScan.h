#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace corvelle {

/// Nesting that JSON texts of a groom may have: printers and copies of them recurse.
inline constexpr int kDeepestJson = 512;

/// A text that is no JSON. `what` is the JSON library's message, or "nested deeper than 512".
struct JsonFault {
    std::string what;
    bool any() const { return !what.empty(); }
};

/// A JSON text, checked once and then read by its places in it, so that an array of numbers goes
/// straight from text to its own memory, with no node in between. Takes what the JSON library
/// takes (a byte order mark too) and refuses what it refuses, in its words.
///
/// The text stays the caller's, and must not change while this lives.
/// Memory: 24 bytes for every array or object that is longer than 64 characters.
class JsonScan {
public:
    /// A value's text, from its first character to its last.
    using Span = std::string_view;
    /// The members of an object by name; of a name that comes twice, the last.
    using Object = std::map<std::string, Span, std::less<>>;

    /// Checks the text, see `fault`. Cost: one pass. `deepest`: the nesting it may have, at most
    /// kDeepestJson.
    explicit JsonScan(const std::string& text, int deepest = kDeepestJson);
    const JsonFault& fault() const { return fault_; }
    Span root() const { return root_; }  ///< empty with a fault

    // Of spans of this text. Cost: that of the small values in it; large ones are jumped over.
    Object members(Span object) const;             ///< `object` must be one
    std::vector<Span> elements(Span array) const;  ///< `array` must be one

    static bool isObject(Span value) { return !value.empty() && value.front() == '{'; }
    static bool isArray(Span value) { return !value.empty() && value.front() == '['; }
    static bool isNull(Span value) { return value == "null"; }

private:
    struct Extent {
        std::size_t begin, end;
    };
    bool check(std::size_t deepest);
    std::size_t skip(std::size_t at) const;

    const std::string& text_;
    Span root_;
    JsonFault fault_;
    std::vector<Extent> extents_;  ///< of long arrays and objects, by where they begin
};

/// The bytes that the JSON library's parse and print of a checked value would give (no blanks, keys
/// ascending), without the tree. `value` is a span of a JsonScan without fault.
std::string compactJson(JsonScan::Span value);

/// What a string's text means. `value` is a string's span.
std::string jsonString(JsonScan::Span value);

}  // namespace corvelle
