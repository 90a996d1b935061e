#include "graph/paramValue.h"

#include "model/hash.h"

namespace corvelle {

namespace {

constexpr const char* kKinds[] = {"bool", "float", "string", "vec3", "ramp", "map"};
static_assert(std::variant_size_v<ParamValue> == std::size(kKinds));

}  // namespace

const char* paramKind(const ParamValue& value) { return kKinds[value.index()]; }

std::uint64_t paramHash(const ParamValue& value) {
    const std::uint64_t h = mix64(value.index());
    struct Visitor {
        std::uint64_t h;
        std::uint64_t operator()(bool v) const { return hashCombine(h, v); }
        std::uint64_t operator()(double v) const { return hashCombine(h, v); }
        std::uint64_t operator()(const std::string& v) const {
            return hashText(h, v);
        }
        std::uint64_t operator()(Vec3f v) const {
            return hashCombine(hashCombine(hashCombine(h, v.x), v.y), v.z);
        }
        std::uint64_t operator()(const Ramp& v) const { return hashCombine(h, v.hash()); }
        std::uint64_t operator()(const MapSource& v) const { return hashCombine(h, v.hash()); }
    };
    return std::visit(Visitor{h}, value);
}

const char* ParamSpec::kind() const { return paramKind(defaultValue); }

bool ParamSpec::isAnimatable() const {
    if (animatable) return *animatable;
    if (std::holds_alternative<double>(defaultValue)) return !whole;
    return std::holds_alternative<bool>(defaultValue) ||
           std::holds_alternative<Vec3f>(defaultValue);
}

}  // namespace corvelle
