#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvelle {

// A reader of USD text layers for tests: as strict as the strictest consumer. It refuses what any
// of them refuses: names that are no identifiers, prims or relationship targets named twice, raw
// line feeds in strings, numbers out of the range of their type, unknown types.

/// The values of one attribute at one time: all numbers, tuple after tuple.
struct UsdValues {
    std::vector<double> numbers;
    std::vector<std::int64_t> wholes;  ///< the same of whole types, exact
    std::size_t count = 0;             ///< elements of the array
};

struct UsdAttributeText {
    std::string type, interpolation;
    std::size_t width = 1;  ///< numbers in an element
    std::vector<std::pair<double, UsdValues>> samples;
    UsdValues value;  ///< without samples
    std::string token;
};

struct UsdPrim {
    std::string type, name, path;
    std::map<std::string, UsdAttributeText> attributes;
    std::map<std::string, std::vector<std::string>> relationships;
    std::map<std::string, std::string> metadata;
    std::vector<std::unique_ptr<UsdPrim>> children;
    const UsdPrim* child(std::string_view wanted) const;
};

struct UsdLayer {
    std::map<std::string, std::string> metadata;  ///< strings without their quotes, numbers as text
    UsdPrim root;
    const UsdPrim* at(const std::string& path) const;
};

/// Throws std::runtime_error with the line of the first fault.
UsdLayer parseUsd(std::string_view text);

/// What consumers ask of a layer beyond its grammar, by a table of rules: "<consumer>: <prim>:
/// <what>".
std::vector<std::string> usdFaults(const UsdLayer& layer);

}  // namespace corvelle
