#include "model/floatText.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>

namespace corvelle {

void appendFloat32(std::string& out, float value) {
    if (value == 0.0f) {
        out += std::signbit(value) ? "-0.0" : "0";
        return;
    }
    char text[48];
    char* end = std::to_chars(text, text + sizeof text, value).ptr;
    double read = 0.0;
    std::from_chars(text, end, read);
    if (std::bit_cast<std::uint32_t>(float(read)) != std::bit_cast<std::uint32_t>(value))
        end = std::to_chars(text, text + sizeof text, double(value)).ptr;
    out.append(text, end);
}

}  // namespace corvelle
