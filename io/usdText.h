#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "model/vec3f.h"

namespace corvelle {

// The values and names of a USD text layer. All append without a locale.

/// The shortest text that reads back as the same float32; "nan", "inf", "-inf" for what is no
/// number.
void appendUsd(std::string& out, float value);
void appendUsd(std::string& out, double value);
void appendUsd(std::string& out, std::int32_t value);
void appendUsd(std::string& out, std::int64_t value);
void appendUsd(std::string& out, const Vec2f& value);  ///< (x, y)
void appendUsd(std::string& out, const Vec3f& value);
/// A rotation (w, x, y, z) as a quath: made unit, then rounded to half floats; no length, or one
/// that is no number, is the identity.
void appendUsdRotation(std::string& out, const std::array<float, 4>& value);

/// A text between double quotes: \ and " escaped, a line feed as \n, other controls as a space.
std::string usdQuoted(std::string_view text);

/// A name as an identifier: letters, digits and _ stay, all else (each byte) becomes _; a leading
/// digit, or nothing at all, gets a _ in front.
std::string usdIdentifier(std::string_view name);
/// The same, not in `taken`: "_2", "_3" and so on behind it where it is; added to `taken`.
std::string usdIdentifier(std::string_view name, std::set<std::string, std::less<>>& taken);

}  // namespace corvelle
