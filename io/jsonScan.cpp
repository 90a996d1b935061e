#include "io/jsonScan.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <system_error>

#include <nlohmann/json.hpp>

namespace corvelle {

namespace {

constexpr std::size_t kLongSpan = 64;

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Walkers over a text that ends with a zero byte: each takes the place of its first character and
// gives the one behind its last, or null for a text that is not JSON.

const char* skipBlanks(const char* p) {
    while (isBlank(*p)) ++p;
    return p;
}

/// One character of UTF-8 above the ASCII ones: no long forms, surrogates or numbers past 10ffff.
const char* checkWide(const char* p) {
    const auto byte = [&](int i) { return static_cast<unsigned char>(p[i]); };
    const auto follows = [&](int i, unsigned low = 0x80, unsigned high = 0xbf) {
        return byte(i) >= low && byte(i) <= high;
    };
    const unsigned lead = byte(0);
    if (lead >= 0xc2 && lead <= 0xdf) return follows(1) ? p + 2 : nullptr;
    if (lead >= 0xe0 && lead <= 0xef) {
        const bool second = lead == 0xe0   ? follows(1, 0xa0)
                            : lead == 0xed ? follows(1, 0x80, 0x9f)
                                           : follows(1);
        return second && follows(2) ? p + 3 : nullptr;
    }
    if (lead >= 0xf0 && lead <= 0xf4) {
        const bool second = lead == 0xf0   ? follows(1, 0x90)
                            : lead == 0xf4 ? follows(1, 0x80, 0x8f)
                                           : follows(1);
        return second && follows(2) && follows(3) ? p + 4 : nullptr;
    }
    return nullptr;
}

/// Four hexadecimal digits; -1 for none.
int hexUnit(const char* p) {
    int unit = 0;
    for (int i = 0; i < 4; ++i) {
        const char c = p[i];
        int digit = 0;
        if (isDigit(c))
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return -1;
        unit = 16 * unit + digit;
    }
    return unit;
}

/// The escape whose backslash stands at `p`.
const char* checkEscape(const char* p) {
    if (p[1] == 'u') {
        const int unit = hexUnit(p + 2);
        if (unit < 0 || (unit >= 0xdc00 && unit <= 0xdfff)) return nullptr;
        if (unit < 0xd800 || unit > 0xdbff) return p + 6;
        if (p[6] != '\\' || p[7] != 'u') return nullptr;
        const int low = hexUnit(p + 8);
        return low >= 0xdc00 && low <= 0xdfff ? p + 12 : nullptr;
    }
    return p[1] != '\0' && std::string_view("\"\\/bfnrt").find(p[1]) != std::string_view::npos
               ? p + 2
               : nullptr;
}

/// From the opening quote to behind the closing one.
const char* checkString(const char* p) {
    for (++p;;) {
        const auto c = static_cast<unsigned char>(*p);
        if (c == '"') return p + 1;
        if (c < 0x20) return nullptr;
        if (c == '\\')
            p = checkEscape(p);
        else
            p = c < 0x80 ? p + 1 : checkWide(p);
        if (!p) return nullptr;
    }
}

const char* checkNumber(const char* p) {
    const char* const first = p;
    if (*p == '-') ++p;
    if (!isDigit(*p)) return nullptr;
    if (*p == '0')
        ++p;
    else
        while (isDigit(*p)) ++p;
    if (*p == '.') {
        if (!isDigit(*++p)) return nullptr;
        while (isDigit(*p)) ++p;
    }
    const bool exponent = *p == 'e' || *p == 'E';
    if (exponent) {
        ++p;
        if (*p == '+' || *p == '-') ++p;
        if (!isDigit(*p)) return nullptr;
        while (isDigit(*p)) ++p;
    }
    // Only here can a number be past the range of doubles.
    constexpr int kSafeDigits = 300;
    if (exponent || p - first > kSafeDigits) {
        double value = 0.0;
        if (std::from_chars(first, p, value).ec == std::errc::result_out_of_range &&
            std::isinf(std::strtod(std::string(first, p).c_str(), nullptr)))
            return nullptr;
    }
    return p;
}

const char* checkWord(const char* p) {
    for (const std::string_view word : {"true", "false", "null"})
        if (std::strncmp(p, word.data(), word.size()) == 0) return p + word.size();
    return nullptr;
}

/// Says why the library refuses a text, without keeping anything of it.
class FaultFinder final : public nlohmann::json_sax<nlohmann::json> {
public:
    std::string message;
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::json::exception& error) override {
        message = error.what();
        return false;
    }
};

}  // namespace

JsonScan::JsonScan(const std::string& text, int deepest) : text_(text) {
    if (check(std::size_t(deepest))) return;
    root_ = {};
    extents_.clear();
    if (fault_.any()) return;
    FaultFinder finder;
    nlohmann::json::sax_parse(text, &finder);
    fault_.what = finder.message.empty() ? "malformed" : finder.message;
}

bool JsonScan::check(std::size_t deepest) {
    struct Open {
        std::size_t begin;
        std::size_t extent;  ///< its place in extents_, kept free for it
        bool object;
    };
    const char* const start = text_.c_str();
    const auto place = [&](const char* p) { return std::size_t(p - start); };
    std::array<Open, std::size_t(kDeepestJson)> open;
    std::size_t depth = 0;

    const char* p = start;
    if (text_.starts_with("\xef\xbb\xbf")) p += 3;
    p = skipBlanks(p);
    const char* const first = p;
    // The members' names and what stands between values; false where the text is not JSON.
    const auto name = [&] {
        if (*p != '"' || !(p = checkString(p))) return false;
        p = skipBlanks(p);
        if (*p != ':') return false;
        p = skipBlanks(p + 1);
        return true;
    };
    for (;;) {
        // A value begins here.
        bool closed = true;
        if (*p == '{' || *p == '[') {
            if (depth == deepest) {
                fault_.what = "nested deeper than " + std::to_string(deepest);
                return false;
            }
            open[depth++] = {place(p), extents_.size(), *p == '{'};
            extents_.push_back({place(p), 0});
            const char end = *p == '{' ? '}' : ']';
            p = skipBlanks(p + 1);
            closed = *p == end;
            if (!closed && end == '}' && !name()) return false;
        } else if (*p == '"') {
            p = checkString(p);
        } else if (*p == '-' || isDigit(*p)) {
            p = checkNumber(p);
        } else {
            p = checkWord(p);
        }
        if (!p) return false;
        if (!closed) continue;
        // A value has ended: close what ends with it, up to the next one.
        bool next = false;
        while (!next) {
            p = skipBlanks(p);
            if (depth == 0) {
                root_ = Span(first, std::size_t(p - first));
                while (!root_.empty() && isBlank(root_.back())) root_.remove_suffix(1);
                return place(p) == text_.size();
            }
            const Open& inside = open[depth - 1];
            if (*p == ',') {
                p = skipBlanks(p + 1);
                if (inside.object && !name()) return false;
                next = true;
            } else if (*p == (inside.object ? '}' : ']')) {
                ++p;
                --depth;
                if (place(p) - inside.begin > kLongSpan)
                    extents_[inside.extent].end = place(p);
                else
                    extents_.resize(inside.extent);  // short, and so is all inside
            } else {
                return false;
            }
        }
    }
}

std::size_t JsonScan::skip(std::size_t at) const {
    const char* const start = text_.c_str();
    const char* p = start + at;
    const auto stringEnd = [](const char* q) {
        for (++q; *q != '"'; ++q)
            if (*q == '\\') ++q;
        return q + 1;
    };
    if (*p == '"') return std::size_t(stringEnd(p) - start);
    if (*p == '{' || *p == '[') {
        const auto found =
            std::lower_bound(extents_.begin(), extents_.end(), at,
                             [](const Extent& e, std::size_t b) { return e.begin < b; });
        if (found != extents_.end() && found->begin == at) return found->end;
        int depth = 0;
        do {
            if (*p == '"') {
                p = stringEnd(p);
                continue;
            }
            depth += *p == '{' || *p == '[';
            depth -= *p == '}' || *p == ']';
            ++p;
        } while (depth > 0);
        return std::size_t(p - start);
    }
    while (*p != ',' && *p != ']' && *p != '}' && *p != '\0' && !isBlank(*p)) ++p;
    return std::size_t(p - start);
}

std::vector<JsonScan::Span> JsonScan::elements(Span array) const {
    std::vector<Span> out;
    std::size_t at = std::size_t(array.data() - text_.data()) + 1;
    const auto blanks = [&] { return std::size_t(skipBlanks(text_.c_str() + at) - text_.c_str()); };
    for (at = blanks(); text_[at] != ']'; at = blanks()) {
        if (text_[at] == ',') {
            ++at;
            continue;
        }
        const std::size_t end = skip(at);
        out.emplace_back(text_.data() + at, end - at);
        at = end;
    }
    return out;
}

JsonScan::Object JsonScan::members(Span object) const {
    Object out;
    std::size_t at = std::size_t(object.data() - text_.data()) + 1;
    const auto blanks = [&] { return std::size_t(skipBlanks(text_.c_str() + at) - text_.c_str()); };
    for (at = blanks(); text_[at] != '}'; at = blanks()) {
        if (text_[at] == ',') {
            ++at;
            continue;
        }
        std::size_t end = skip(at);
        std::string name = jsonString({text_.data() + at, end - at});
        at = end;
        at = blanks() + 1;  // past the colon
        at = blanks();
        end = skip(at);
        out.insert_or_assign(std::move(name), Span(text_.data() + at, end - at));
        at = end;
    }
    return out;
}

std::string jsonString(JsonScan::Span value) {
    if (value.find('\\') == std::string_view::npos)
        return std::string(value.substr(1, value.size() - 2));
    return nlohmann::json::parse(value).get<std::string>();
}

namespace {

/// Prints a checked value the way the library does. Members are printed where they stand, and put
/// into order when their object ends.
class Compactor {
public:
    explicit Compactor(std::string_view value) : p_(value.data()), end_(p_ + value.size()) {
        out_.reserve(value.size());
    }
    std::string run() {
        value();
        return std::move(out_);
    }

private:
    struct Member {
        std::string name;
        std::size_t begin, end;  ///< in out_
    };

    // Recurses as deep as checked text nests.
    void value() {
        blanks();
        switch (*p_) {
            case '{':
                return object();
            case '[':
                return array();
            case '"':
                return string();
            case 't':
                return word(4);
            case 'f':
                return word(5);
            case 'n':
                return word(4);
            default:
                return number();
        }
    }

    void blanks() {
        while (p_ != end_ && isBlank(*p_)) ++p_;
    }
    void word(std::size_t size) {
        out_.append(p_, size);
        p_ += size;
    }

    std::string_view stringText() {
        const char* const first = p_;
        for (++p_; *p_ != '"'; ++p_)
            if (*p_ == '\\') ++p_;
        ++p_;
        return {first, std::size_t(p_ - first)};
    }
    void string() {
        const std::string_view text = stringText();
        if (text.find('\\') == std::string_view::npos)
            out_ += text;  // nothing that is printed otherwise
        else
            out_ += nlohmann::json::parse(text).dump();
    }

    void number() {
        const char* const first = p_;
        bool whole = true;
        for (; p_ != end_ &&
               (isDigit(*p_) || *p_ == '-' || *p_ == '+' || *p_ == '.' || *p_ == 'e' || *p_ == 'E');
             ++p_)
            whole = whole && (isDigit(*p_) || *p_ == '-');
        constexpr std::ptrdiff_t kSafeDigits = 18;  // fits 64 bits with any sign
        if (whole && p_ - first <= kSafeDigits && *first != '-') {
            out_.append(first, p_);
            return;
        }
        if (whole) {
            out_ += nlohmann::json::parse(std::string_view(first, std::size_t(p_ - first))).dump();
            return;
        }
        double value = 0.0;
        if (std::from_chars(first, p_, value).ec != std::errc())
            value = std::strtod(std::string(first, p_).c_str(), nullptr);  // nearly zero
        char text[64];
        out_.append(text, nlohmann::detail::to_chars(text, text + sizeof text, value));
    }

    void array() {
        out_ += '[';
        ++p_;
        for (blanks(); *p_ != ']'; blanks()) {
            if (*p_ == ',') {
                out_ += ',';
                ++p_;
            }
            value();
        }
        ++p_;
        out_ += ']';
    }

    void object() {
        const std::size_t start = out_.size() + 1;
        std::vector<Member> members;
        bool sorted = true;
        out_ += '{';
        ++p_;
        for (blanks(); *p_ != '}'; blanks()) {
            if (*p_ == ',') {
                out_ += ',';
                ++p_;
                blanks();
            }
            const std::size_t begin = out_.size();
            const char* const name = p_;
            string();
            Member member{jsonString({name, std::size_t(p_ - name)}), begin, 0};
            blanks();
            ++p_;
            out_ += ':';
            value();
            member.end = out_.size();
            sorted = sorted && (members.empty() || members.back().name < member.name);
            members.push_back(std::move(member));
        }
        ++p_;
        if (!sorted) putInOrder(members, start);
        out_ += '}';
    }

    void putInOrder(std::vector<Member>& members, std::size_t start) {
        std::stable_sort(members.begin(), members.end(),
                         [](const Member& a, const Member& b) { return a.name < b.name; });
        std::string ordered;
        ordered.reserve(out_.size() - start);
        for (std::size_t i = 0; i < members.size(); ++i) {
            if (i + 1 < members.size() && members[i + 1].name == members[i].name) continue;
            if (!ordered.empty()) ordered += ',';
            ordered.append(out_, members[i].begin, members[i].end - members[i].begin);
        }
        out_.resize(start);
        out_ += ordered;
    }

    const char* p_;
    const char* end_;
    std::string out_;
};

}  // namespace

std::string compactJson(JsonScan::Span value) { return Compactor(value).run(); }

}  // namespace corvelle
