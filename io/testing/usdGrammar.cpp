#include "io/testing/usdGrammar.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <set>
#include <stdexcept>

namespace corvelle {

namespace {

struct TypeRow {
    const char* name;
    std::size_t width;
    enum { Float, Whole, Token } kind;
    double lo = 0.0, hi = 0.0;
};
const TypeRow kTypes[] = {
    {"int", 1, TypeRow::Whole, -2147483648.0, 2147483647.0},
    {"int64", 1, TypeRow::Whole, -9.3e18, 9.3e18},
    {"float", 1, TypeRow::Float},
    {"float2", 2, TypeRow::Float},
    {"float3", 3, TypeRow::Float},
    {"point3f", 3, TypeRow::Float},
    {"normal3f", 3, TypeRow::Float},
    {"color3f", 3, TypeRow::Float},
    {"texCoord2f", 2, TypeRow::Float},
    {"quath", 4, TypeRow::Float},
    {"token", 1, TypeRow::Token},
};

bool isStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isPart(char c) { return isStart(c) || (c >= '0' && c <= '9'); }
bool isIdentifier(std::string_view name) {
    return !name.empty() && isStart(name.front()) && std::ranges::all_of(name, isPart);
}

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    UsdLayer layer() {
        constexpr std::string_view kHead = "#usda 1.0\n";
        if (!text_.starts_with(kHead)) fail("no head");
        at_ = kHead.size();
        UsdLayer layer;
        if (peek() == '(') metadata(layer.metadata);
        while (peek() != '\0') prim(layer.root);
        return layer;
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        const auto line =
            1 + std::count(text_.begin(),
                           text_.begin() + std::ptrdiff_t(std::min(at_, text_.size())), '\n');
        throw std::runtime_error("line " + std::to_string(line) + ": " + what);
    }
    char peek() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n')) ++at_;
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool take(char c) {
        if (peek() != c) return false;
        ++at_;
        return true;
    }
    void need(char c) {
        if (!take(c)) fail(std::string("expected ") + c);
    }
    std::string word() {
        peek();
        const std::size_t from = at_;
        while (at_ < text_.size() && (isPart(text_[at_]) || text_[at_] == ':')) ++at_;
        if (from == at_) fail("expected a word");
        return std::string(text_.substr(from, at_ - from));
    }
    bool takeWord(std::string_view wanted) {
        peek();
        if (!text_.substr(at_).starts_with(wanted)) return false;
        const std::size_t end = at_ + wanted.size();
        if (end < text_.size() && isPart(text_[end])) return false;
        at_ = end;
        return true;
    }
    std::string quoted() {
        need('"');
        std::string out;
        for (;;) {
            if (at_ >= text_.size()) fail("a string without an end");
            const char c = text_[at_++];
            if (c == '"') return out;
            if (static_cast<unsigned char>(c) < 0x20) fail("a control character in a string");
            if (c != '\\') {
                out += c;
                continue;
            }
            if (at_ >= text_.size()) fail("a string without an end");
            const char escaped = text_[at_++];
            if (escaped != 'n' && escaped != '"' && escaped != '\\') fail("an unknown escape");
            out += escaped == 'n' ? '\n' : escaped;
        }
    }
    std::string numberText() {
        peek();
        const std::size_t from = at_;
        while (at_ < text_.size() &&
               (isPart(text_[at_]) || text_[at_] == '+' || text_[at_] == '-' || text_[at_] == '.'))
            ++at_;
        if (from == at_) fail("expected a number");
        return std::string(text_.substr(from, at_ - from));
    }
    double number() {
        const std::string text = numberText();
        if (text == "nan" || text == "inf" || text == "-inf")
            return text == "nan" ? std::numeric_limits<double>::quiet_NaN()
                                 : std::copysign(std::numeric_limits<double>::infinity(),
                                                 text[0] == '-' ? -1.0 : 1.0);
        double value = 0.0;
        const auto end = std::from_chars(text.data(), text.data() + text.size(), value);
        if (end.ec != std::errc() || end.ptr != text.data() + text.size())
            fail("no number: " + text);
        return value;
    }
    void element(const TypeRow& type, UsdValues& out) {
        if (type.kind == TypeRow::Whole) {
            const std::string text = numberText();
            std::int64_t value = 0;
            const auto end = std::from_chars(text.data(), text.data() + text.size(), value);
            if (end.ec != std::errc() || end.ptr != text.data() + text.size())
                fail("no whole number of 64 bits: " + text);
            if (double(value) < type.lo || double(value) > type.hi)
                fail("out of the type's range: " + text);
            out.wholes.push_back(value);
            out.numbers.push_back(double(value));
        } else if (type.width == 1) {
            out.numbers.push_back(number());
        } else {
            need('(');
            for (std::size_t i = 0; i < type.width; ++i) {
                if (i > 0) need(',');
                out.numbers.push_back(number());
            }
            need(')');
        }
        ++out.count;
    }
    UsdValues array(const TypeRow& type) {
        UsdValues out;
        need('[');
        if (take(']')) return out;
        do element(type, out);
        while (take(','));
        need(']');
        return out;
    }
    void metadata(std::map<std::string, std::string>& out) {
        need('(');
        while (!take(')')) {
            const std::string key = word();
            need('=');
            if (!out.try_emplace(key, peek() == '"' ? quoted() : numberText()).second)
                fail("metadata twice: " + key);
        }
    }
    void relationship(UsdPrim& prim) {
        const std::string name = word();
        need('=');
        need('[');
        std::vector<std::string>& targets = prim.relationships[name];
        std::set<std::string> seen;
        while (!take(']')) {
            if (!targets.empty()) need(',');
            need('<');
            std::string path;
            while (at_ < text_.size() && text_[at_] != '>') path += text_[at_++];
            need('>');
            std::size_t from = 0;
            while (from < path.size()) {
                if (path[from] != '/') fail("a path that is not absolute: " + path);
                const std::size_t to = std::min(path.find('/', from + 1), path.size());
                if (!isIdentifier(std::string_view(path).substr(from + 1, to - from - 1)))
                    fail("a bad path: " + path);
                from = to;
            }
            if (!seen.insert(path).second) fail("a target twice: " + path);
            targets.push_back(path);
        }
    }
    void attribute(UsdPrim& prim) {
        const bool uniform = takeWord("uniform");
        std::string typeName = word();
        const bool isArray = take('[');
        if (isArray) need(']');
        const auto type = std::ranges::find(
            kTypes, typeName, [](const TypeRow& row) { return std::string(row.name); });
        if (type == std::end(kTypes)) fail("an unknown type: " + typeName);
        const std::string name = word();
        std::string_view rest = name;
        while (!rest.empty()) {
            const std::size_t colon = std::min(rest.find(':'), rest.size());
            if (!isIdentifier(rest.substr(0, colon))) fail("a bad name: " + name);
            rest = colon == rest.size() ? std::string_view() : rest.substr(colon + 1);
        }
        UsdAttributeText& attribute = prim.attributes[name];
        if (!attribute.type.empty() && attribute.type != typeName)
            fail("another type before: " + name);
        attribute.type = typeName;
        attribute.width = type->width;
        if (take('.')) {
            if (uniform || word() != "timeSamples") fail("expected timeSamples");
            if (!attribute.samples.empty()) fail("samples twice: " + name);
            need('=');
            need('{');
            while (!take('}')) {
                const double time = number();
                if (!attribute.samples.empty() && !(time > attribute.samples.back().first))
                    fail("times that do not rise: " + name);
                need(':');
                attribute.samples.emplace_back(time, array(*type));
                need(',');
            }
            return;
        }
        if (take('=')) {
            if (type->kind == TypeRow::Token)
                attribute.token = quoted();
            else if (isArray)
                attribute.value = array(*type);
            else
                element(*type, attribute.value);
        }
        if (peek() == '(') {
            std::map<std::string, std::string> about;
            metadata(about);
            attribute.interpolation = about["interpolation"];
        }
    }
    void prim(UsdPrim& parent) {
        if (!takeWord("def")) fail("expected a prim");
        auto fresh = std::make_unique<UsdPrim>();
        fresh->type = word();
        fresh->name = quoted();
        fresh->path = parent.path + "/" + fresh->name;
        if (!isIdentifier(fresh->name)) fail("no identifier: " + fresh->name);
        if (parent.child(fresh->name)) fail("a prim twice: " + fresh->path);
        if (peek() == '(') metadata(fresh->metadata);
        need('{');
        UsdPrim& made = *fresh;
        parent.children.push_back(std::move(fresh));
        while (!take('}')) {
            if (text_.substr(at_).starts_with("def "))
                prim(made);
            else if (takeWord("rel"))
                relationship(made);
            else
                attribute(made);
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

// ---- rules --------------------------------------------------------------------------------------

using Faults = std::vector<std::string>;

std::size_t countAt(const UsdPrim& prim, const char* name, std::size_t sample) {
    const auto found = prim.attributes.find(name);
    if (found == prim.attributes.end()) return 0;
    const UsdAttributeText& attribute = found->second;
    if (attribute.samples.empty()) return attribute.value.count;
    return attribute.samples[std::min(sample, attribute.samples.size() - 1)].second.count;
}

/// The numbers of an attribute at a sample; null when it has none.
const std::vector<double>* numbersAt(const UsdPrim& prim, const char* name, std::size_t sample) {
    const auto found = prim.attributes.find(name);
    if (found == prim.attributes.end()) return nullptr;
    const UsdAttributeText& attribute = found->second;
    if (attribute.samples.empty()) return &attribute.value.numbers;
    return &attribute.samples[std::min(sample, attribute.samples.size() - 1)].second.numbers;
}

void oneClock(const UsdPrim& prim, const UsdLayer&, Faults& faults) {
    const std::vector<std::pair<double, UsdValues>>* first = nullptr;
    for (const auto& [name, attribute] : prim.attributes) {
        if (attribute.samples.empty()) continue;
        if (!first) first = &attribute.samples;
        const bool same = std::ranges::equal(
            attribute.samples, *first, {}, [](const auto& s) { return s.first; },
            [](const auto& s) { return s.first; });
        if (!same) faults.push_back(name + " has other times");
    }
}

void lengths(const UsdPrim& prim, const UsdLayer&, Faults& faults) {
    const char *uniform, *vertex;
    if (prim.type == "BasisCurves")
        uniform = "curveVertexCounts", vertex = "points";
    else if (prim.type == "Mesh")
        uniform = "faceVertexCounts", vertex = "points";
    else if (prim.type == "PointInstancer")
        uniform = "positions", vertex = "positions";
    else
        return;
    for (const auto& [name, attribute] : prim.attributes)
        for (std::size_t s = 0; s < attribute.samples.size(); ++s) {
            const std::size_t count = attribute.samples[s].second.count;
            if (name.starts_with("primvars:") && attribute.interpolation.empty())
                faults.push_back(name + " without interpolation");
            if (attribute.interpolation == "vertex" && count != countAt(prim, vertex, s))
                faults.push_back(name + " is not one per vertex");
            if (attribute.interpolation == "uniform" && count != countAt(prim, uniform, s))
                faults.push_back(name + " is not one per curve or face");
        }
    for (std::size_t s = 0; s < prim.attributes.begin()->second.samples.size(); ++s) {
        if (prim.type == "PointInstancer") {
            for (const char* name : {"protoIndices", "orientations", "scales"})
                if (countAt(prim, name, s) != countAt(prim, "positions", s))
                    faults.push_back(std::string(name) + " is not one per instance");
            continue;
        }
        double total = 0.0;
        for (const double count : *numbersAt(prim, uniform, s)) {
            total += count;
            if (count < 2) faults.push_back("a curve or face of fewer than 2 points");
        }
        const char* corners = prim.type == "Mesh" ? "faceVertexIndices" : "points";
        if (total != double(countAt(prim, corners, s))) faults.push_back("counts do not add up");
    }
}

void extents(const UsdPrim& prim, const UsdLayer&, Faults& faults) {
    if (prim.type != "BasisCurves" && prim.type != "Mesh" && prim.type != "PointInstancer") return;
    const auto extent = prim.attributes.find("extent");
    if (extent == prim.attributes.end()) {
        if (!prim.attributes.empty() && prim.attributes.begin()->second.samples.size() > 0)
            faults.push_back("no extent");
        return;
    }
    const char* points = prim.type == "PointInstancer" ? "positions" : "points";
    const std::size_t samples = std::max<std::size_t>(extent->second.samples.size(), 1);
    for (std::size_t s = 0; s < samples; ++s) {
        const auto& box = *numbersAt(prim, "extent", s);
        if (box.size() != 6) {
            faults.push_back("an extent of other than two corners");
            continue;
        }
        const auto& places = *numbersAt(prim, points, s);
        for (std::size_t i = 0; i < places.size(); ++i)
            if (places[i] < box[i % 3] || places[i] > box[3 + i % 3]) {
                faults.push_back("a point outside of the extent");
                break;
            }
    }
}

void strandIds(const UsdPrim& prim, const UsdLayer&, Faults& faults) {
    if (prim.type != "BasisCurves" || prim.attributes.size() <= 2) return;
    const auto whole = prim.attributes.find("primvars:strandId"),
               low = prim.attributes.find("primvars:strandIdLow"),
               high = prim.attributes.find("primvars:strandIdHigh");
    if (whole == prim.attributes.end() || low == prim.attributes.end() ||
        high == prim.attributes.end())
        return faults.push_back("no strand ids");
    for (std::size_t s = 0; s < whole->second.samples.size(); ++s) {
        const auto &w = whole->second.samples[s].second.wholes,
                   &l = low->second.samples[s].second.wholes,
                   &h = high->second.samples[s].second.wholes;
        for (std::size_t i = 0; i < w.size(); ++i)
            if (std::uint64_t(w[i]) !=
                (std::uint64_t(std::uint32_t(h[i])) << 32 | std::uint32_t(l[i])))
                return faults.push_back("low and high ids are not the id's");
    }
}

void rotations(const UsdPrim& prim, const UsdLayer&, Faults& faults) {
    const auto found = prim.attributes.find("orientations");
    if (found == prim.attributes.end()) return;
    for (const auto& [time, values] : found->second.samples)
        for (std::size_t i = 0; i + 3 < values.numbers.size(); i += 4) {
            double squares = 0.0;
            for (std::size_t k = 0; k < 4; ++k)
                squares += values.numbers[i + k] * values.numbers[i + k];
            if (std::abs(std::sqrt(squares) - 1.0) > 1e-3)
                return faults.push_back("a rotation that is not unit");
        }
}

void prototypes(const UsdPrim& prim, const UsdLayer& layer, Faults& faults) {
    if (prim.type != "PointInstancer") return;
    const auto found = prim.relationships.find("prototypes");
    if (found == prim.relationships.end()) return faults.push_back("no prototypes");
    for (const std::string& target : found->second)
        if (!layer.at(target)) faults.push_back("no prim " + target);
    for (const auto& [time, values] : prim.attributes.at("protoIndices").samples)
        for (const std::int64_t index : values.wholes)
            if (index < 0 || std::size_t(index) >= found->second.size())
                return faults.push_back("a prototype index out of range");
}

void linearCurves(const UsdPrim& prim, const UsdLayer&, Faults& faults) {
    if (prim.type != "BasisCurves") return;
    const auto is = [&](const char* name, const char* value) {
        const auto found = prim.attributes.find(name);
        return found != prim.attributes.end() && found->second.token == value;
    };
    if (!is("type", "linear") || !is("wrap", "nonperiodic"))
        faults.push_back("not linear and nonperiodic");
}

struct Rule {
    const char* consumer;
    void (*check)(const UsdPrim&, const UsdLayer&, Faults&);
};
constexpr Rule kRules[] = {
    {"hosts", oneClock},         {"renderers", lengths},   {"hosts", extents},
    {"renderers", strandIds},    {"renderers", rotations}, {"hosts", prototypes},
    {"renderers", linearCurves},
};

void check(const UsdPrim& prim, const UsdLayer& layer, Faults& out) {
    for (const Rule& rule : kRules) {
        Faults faults;
        if (!prim.attributes.empty()) rule.check(prim, layer, faults);
        for (const std::string& fault : faults)
            out.push_back(std::string(rule.consumer) + ": " + prim.path + ": " + fault);
    }
    for (const auto& child : prim.children) check(*child, layer, out);
}

}  // namespace

const UsdPrim* UsdPrim::child(std::string_view wanted) const {
    const auto found = std::ranges::find(
        children, wanted, [](const auto& prim) { return std::string_view(prim->name); });
    return found == children.end() ? nullptr : found->get();
}

const UsdPrim* UsdLayer::at(const std::string& path) const {
    const UsdPrim* prim = &root;
    for (std::size_t from = 1; prim && from <= path.size();) {
        const std::size_t to = std::min(path.find('/', from), path.size());
        prim = prim->child(std::string_view(path).substr(from, to - from));
        from = to + 1;
    }
    return prim;
}

UsdLayer parseUsd(std::string_view text) { return Parser(text).layer(); }

std::vector<std::string> usdFaults(const UsdLayer& layer) {
    Faults faults;
    const auto named = layer.metadata.find("defaultPrim");
    if (named == layer.metadata.end() || !layer.root.child(named->second))
        faults.push_back("hosts: the default prim is not there");
    for (const char* key : {"metersPerUnit", "upAxis", "framesPerSecond", "timeCodesPerSecond"})
        if (!layer.metadata.contains(key)) faults.push_back(std::string("hosts: no ") + key);
    for (const auto& prim : layer.root.children) check(*prim, layer, faults);
    return faults;
}

}  // namespace corvelle
