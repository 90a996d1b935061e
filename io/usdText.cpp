#include "io/usdText.h"

#include <charconv>
#include <cmath>

#include <Imath/half.h>

#include "model/floatText.h"

namespace corvelle {

namespace {

template <class T>
void appendShortest(std::string& out, T value) {
    char text[48];
    out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

template <class T>
bool appendNoNumber(std::string& out, T value) {
    if (std::isfinite(value)) return false;
    out += std::isnan(value) ? "nan" : value < 0 ? "-inf" : "inf";
    return true;
}

}  // namespace

void appendUsd(std::string& out, float value) {
    if (!appendNoNumber(out, value)) appendFloat32(out, value);
}
void appendUsd(std::string& out, double value) {
    if (!appendNoNumber(out, value)) appendShortest(out, value);
}
void appendUsd(std::string& out, std::int32_t value) { appendShortest(out, value); }
void appendUsd(std::string& out, std::int64_t value) { appendShortest(out, value); }

void appendUsd(std::string& out, const Vec2f& value) {
    out += '(';
    appendUsd(out, value.x);
    out += ", ";
    appendUsd(out, value.y);
    out += ')';
}

void appendUsd(std::string& out, const Vec3f& value) {
    out += '(';
    appendUsd(out, value.x);
    out += ", ";
    appendUsd(out, value.y);
    out += ", ";
    appendUsd(out, value.z);
    out += ')';
}

void appendUsdRotation(std::string& out, const std::array<float, 4>& value) {
    double squares = 0.0;
    for (const float v : value) squares += double(v) * v;
    const double length = std::sqrt(squares);
    const bool good = std::isfinite(length) && length > 0.0;
    for (std::size_t i = 0; i < 4; ++i) {
        out += i == 0 ? "(" : ", ";
        const double unit = good ? value[i] / length : i == 0 ? 1.0 : 0.0;
        appendUsd(out, float(Imath::half(float(unit))));
    }
    out += ')';
}

std::string usdQuoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c;
    }
    return out + '"';
}

std::string usdIdentifier(std::string_view name) {
    std::string out;
    for (const char c : name) {
        const bool digit = c >= '0' && c <= '9';
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || digit;
        if (digit && out.empty()) out += '_';
        out += plain ? c : '_';
    }
    return out.empty() ? "_" : out;
}

std::string usdIdentifier(std::string_view name, std::set<std::string, std::less<>>& taken) {
    const std::string wanted = usdIdentifier(name);
    std::string free = wanted;
    for (int i = 2; !taken.insert(free).second; ++i) free = wanted + "_" + std::to_string(i);
    return free;
}

}  // namespace corvelle
