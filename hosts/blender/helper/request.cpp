#include "hosts/blender/helper/request.h"

#include <cmath>

#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

[[noreturn]] void failField(std::string_view key, std::string_view rule) {
    failRequest("bad_request", "\"" + std::string(key) + "\" " + std::string(rule));
}

const std::string& stringOf(const Json& value, std::string_view key) {
    if (!value.is_string()) failField(key, "must be a string");
    return value.get_ref<const std::string&>();
}

}  // namespace

const Json* findField(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

const Json& requireField(const Json& object, std::string_view key) {
    const Json* value = findField(object, key);
    if (!value) failRequest("bad_request", "missing \"" + std::string(key) + "\"");
    return *value;
}

const std::string& requireString(const Json& object, std::string_view key) {
    return stringOf(requireField(object, key), key);
}

bool optionalBool(const Json& object, std::string_view key, bool otherwise) {
    const Json* value = findField(object, key);
    if (!value) return otherwise;
    if (!value->is_boolean()) failField(key, "must be true or false");
    return value->get<bool>();
}

double optionalNumber(const Json& object, std::string_view key, double otherwise) {
    const Json* value = findField(object, key);
    if (!value) return otherwise;
    if (!value->is_number()) failField(key, "must be a number");
    const double number = value->get<double>();
    if (!std::isfinite(number)) failField(key, "must be finite");
    return number;
}

float optionalFloat(const Json& object, std::string_view key, float otherwise) {
    const auto number = float(optionalNumber(object, key, double(otherwise)));
    if (!std::isfinite(number)) failField(key, "must be finite");
    return number;
}

std::string optionalString(const Json& object, std::string_view key, std::string_view otherwise) {
    const Json* value = findField(object, key);
    return value ? stringOf(*value, key) : std::string(otherwise);
}

}  // namespace corvelle
