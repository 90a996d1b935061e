#include "model/surfaceJson.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace corvelle {

namespace {

using Json = nlohmann::json;

constexpr std::int64_t kVersion = 1;

[[noreturn]] void fail(const std::string& text) { throw std::invalid_argument(text); }

}  // namespace

std::string_view trimmedText(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

void checkVersion(const Json& document, const std::string& what) {
    const auto found = document.find("version");
    if (found == document.end()) return;
    if (!found->is_number_integer()) fail(what + " version is a whole number");
    const bool newer = found->is_number_unsigned()
                           ? found->get<std::uint64_t>() > std::uint64_t(kVersion)
                           : found->get<std::int64_t>() > kVersion;
    if (newer) fail(what + " version is newer than this Corvelle supports");
    if (found->get<std::int64_t>() < 1) fail(what + " version is not valid, write 1");
}

float readFloat32(const Json& value, const std::string& owner, const char* key) {
    const double number = value.is_number() ? value.get<double>() : 2e39;
    if (!(std::abs(number) < 0x1.ffffffp+127))
        fail(owner + ": '" + key + "' holds no 32-bit float");
    return float(number);
}

std::int32_t readIndex(const Json& value, const std::string& owner, const char* what) {
    const bool whole =
        value.is_number_unsigned()
            ? value.get<std::uint64_t>() <= std::uint64_t(std::numeric_limits<std::int32_t>::max())
            : value.is_number_integer() && value.get<std::int64_t>() >= -1;
    if (!whole) fail(owner + ": " + what + " is a whole number from -1 to 2147483647");
    return std::int32_t(value.get<std::int64_t>());
}

}  // namespace corvelle
