#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace corvelle {

/// A JSON value as this process keeps it: objects are ordered maps, so keys go out ascending.
using Json = nlohmann::json;

// Readers of a request's fields. For all of them a key that holds null counts as absent, and so
// does every key of a value that is no object. All failures are RequestErrors of code bad_request,
// and nothing else is thrown.

/// The field, or null if it is absent.
const Json* findField(const Json& object, std::string_view key);

/// Throws: "missing \"<key>\"".
const Json& requireField(const Json& object, std::string_view key);

/// Throws: as requireField; "\"<key>\" must be a string".
const std::string& requireString(const Json& object, std::string_view key);

/// Throws: "\"<key>\" must be true or false".
bool optionalBool(const Json& object, std::string_view key, bool otherwise);

/// Integers and fractions alike.
/// Throws: "\"<key>\" must be a number"; "\"<key>\" must be finite".
double optionalNumber(const Json& object, std::string_view key, double otherwise);
/// The same for what is kept as a float.
float optionalFloat(const Json& object, std::string_view key, float otherwise);

/// Throws: "\"<key>\" must be a string".
std::string optionalString(const Json& object, std::string_view key, std::string_view otherwise);

}  // namespace corvelle
