#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "expr/mapSource.h"
#include "model/ramp.h"
#include "model/vec3f.h"

namespace corvelle {

/// The value of a param. Every number is a double; whole ones are marked in the spec.
using ParamValue = std::variant<bool, double, std::string, Vec3f, Ramp, MapSource>;

std::uint64_t paramHash(const ParamValue& value);
/// "bool", "float", "string", "vec3", "ramp" or "map".
const char* paramKind(const ParamValue& value);

/// A param is shown, or measured, so when another param has one of these values (as JSON text
/// without quotes: "uvGrid", "true", "2").
struct ParamCondition {
    std::string param;
    std::vector<std::string> values;
    std::string unit;  ///< for `unitWhen`
};

/// One declared param: all that a host can show or set. Declared in tables, in panel order.
struct ParamSpec {
    std::string name;
    ParamValue defaultValue = 0.0;  ///< its kind is the param's
    std::string description;
    bool mappable = false;          ///< may be fed per strand; also when the description says "(mappable"
    std::string unit;               ///< length, width, fraction, density, perLength, seconds, angle, turns, color, pixels
    std::vector<std::string> choices;
    std::optional<bool> animatable;  ///< absent: floats that are not whole, bools and vec3
    std::string group;
    bool advanced = false;
    bool worldDirection = false;
    bool vectorExpression = false;
    std::optional<double> softMin, softMax;  ///< the slider's range, never a clamp
    std::vector<ParamCondition> showWhen;    ///< all must hold
    std::vector<ParamCondition> unitWhen;
    bool whole = false;
    std::optional<double> min, max;  ///< getters clamp to these

    bool isMappable() const {
        return mappable || description.find("(mappable") != std::string::npos;
    }
    bool perPoint() const { return description.find("per point") != std::string::npos && isMappable(); }
    bool isAnimatable() const;
    const char* kind() const;  ///< "bool", "float", "string", "vec3", "ramp"
};

}  // namespace corvelle
