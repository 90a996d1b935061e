#include "io/numberText.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <system_error>

#include "model/floatText.h"

namespace corvelle {

namespace {

constexpr std::size_t kPrintGrain = 8192;                 // numbers of one piece of text
constexpr std::size_t kReadBytes = std::size_t(1) << 18;  // text of one reading task

void appendNumber(std::string& out, float value) { appendFloat32(out, value); }
template <class Integer>
void appendNumber(std::string& out, Integer value) {
    char text[16];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

template <class Value>
void appendArray(std::string& out, std::span<const Value> values) {
    out += '[';
    appendInOrder(out, values.size(), kPrintGrain, [&](std::size_t i, std::string& text) {
        if (i > 0) text += ',';
        appendNumber(text, values[i]);
    });
    out += ']';
}

/// The number at `p`, which ends before `end`; p moves behind it. False where there is none.
bool readDouble(const char*& p, const char* end, double& value) {
    const auto [behind, error] = std::from_chars(p, end, value);
    if (error == std::errc::result_out_of_range)  // checked text: nearly zero
        value = std::strtod(std::string(p, behind).c_str(), nullptr);
    else if (error != std::errc())
        return false;
    p = behind;
    return true;
}

NumberFault readOne(const char*& p, const char* end, float& out) {
    if (*p == 'n') {
        p += 4;
        out = 0.0f;
        return NumberFault::None;
    }
    double value = 0.0;
    if (!readDouble(p, end, value)) return NumberFault::NotANumber;
    // From half a step above the largest float on, rounding gives an infinity.
    if (!(std::abs(value) < 0x1.ffffffp+127)) return NumberFault::OutOfRange;
    out = float(value);
    return NumberFault::None;
}

NumberFault readOne(const char*& p, const char* end, std::int32_t& out) {
    const auto [behind, error] = std::from_chars(p, end, out);
    const bool fraction = behind != end && (*behind == '.' || *behind == 'e' || *behind == 'E');
    if (error == std::errc() && !fraction) {
        p = behind;
        return NumberFault::None;
    }
    double value = 0.0;
    if (!readDouble(p, end, value)) return NumberFault::NotANumber;
    value = std::trunc(value);
    using Limits = std::numeric_limits<std::int32_t>;
    if (!(value >= Limits::min() && value <= Limits::max())) return NumberFault::OutOfRange;
    out = std::int32_t(value);
    return NumberFault::None;
}

bool isSeparator(char c) { return c == ',' || c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

/// Where the tasks of a reading begin in the array's text, and with which element.
struct Cut {
    std::size_t at = 0, element = 0;
};

std::vector<Cut> cutArray(std::string_view text) {
    const std::size_t tasks = text.size() / kReadBytes + 1;
    std::vector<Cut> cuts(tasks + 1);
    for (std::size_t t = 1; t < tasks; ++t) {
        const std::size_t comma = text.find(',', t * kReadBytes);
        cuts[t].at =
            std::max(cuts[t - 1].at, comma == std::string_view::npos ? text.size() : comma);
    }
    cuts[tasks].at = text.size();
    parallelRange(0, tasks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t)
            cuts[t + 1].element =
                std::size_t(std::count(text.begin() + std::ptrdiff_t(cuts[t].at),
                                       text.begin() + std::ptrdiff_t(cuts[t + 1].at), ','));
    });
    // A task begins at the comma before its first element; the first one has none.
    for (std::size_t t = 1; t <= tasks; ++t) cuts[t].element += cuts[t - 1].element;
    for (std::size_t t = 1; t <= tasks; ++t) cuts[t].element += 1;
    return cuts;
}

template <class Value>
NumberFault readArray(const NumberArray& array, Value* out) {
    if (array.count == 0) return NumberFault::None;
    const std::string_view text = array.text.substr(1, array.text.size() - 2);
    const std::vector<Cut> cuts = cutArray(text);
    std::vector<NumberFault> faults(cuts.size() - 1, NumberFault::None);
    parallelRange(0, faults.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const char* p = text.data() + cuts[t].at;
            const char* const last = text.data() + cuts[t + 1].at;
            std::size_t i = cuts[t].element;
            for (;;) {
                while (p != last && isSeparator(*p)) ++p;
                if (p == last) break;
                // Text with other things than numbers may hold more commas than elements.
                if (i == array.count) faults[t] = NumberFault::NotANumber;
                if (faults[t] == NumberFault::None) faults[t] = readOne(p, last, out[i++]);
                if (faults[t] != NumberFault::None) break;
            }
        }
    });
    for (const NumberFault fault : faults)
        if (fault != NumberFault::None) return fault;
    return NumberFault::None;
}

}  // namespace

std::size_t firstNonFinite(std::span<const float> values) {
    const auto found =
        std::find_if(values.begin(), values.end(), [](float v) { return !std::isfinite(v); });
    return std::size_t(found - values.begin());
}

void appendFloatArray(std::string& out, std::span<const float> values) { appendArray(out, values); }
void appendIntArray(std::string& out, std::span<const std::int32_t> values) {
    appendArray(out, values);
}
void appendIntArray(std::string& out, std::span<const std::uint32_t> values) {
    appendArray(out, values);
}

NumberArray numberArray(const JsonScan& scan, JsonScan::Span array) {
    const JsonScan::Span inside = array.substr(1, array.size() - 2);
    for (const char other : {'"', '[', '{'})
        if (inside.find(other) != JsonScan::Span::npos) return {array, scan.elements(array).size()};
    if (std::all_of(inside.begin(), inside.end(), isSeparator)) return {array, 0};
    return {array, std::size_t(std::count(inside.begin(), inside.end(), ',')) + 1};
}

NumberFault readNumbers(const NumberArray& array, float* out) { return readArray(array, out); }
NumberFault readNumbers(const NumberArray& array, std::int32_t* out) {
    return readArray(array, out);
}

}  // namespace corvelle
