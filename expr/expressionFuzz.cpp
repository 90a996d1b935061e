#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "expr/expressionMap.h"
#include "model/testing/tuft.h"

// Any bytes: the first chooses how they are compiled, the rest are the text (up to a zero byte, and
// behind it the JSON of `$` variables). A text compiles or says why not; what compiles gives finite
// values, the same from both evaluators.

namespace {

using namespace corvelle;

class FlatMap final : public NamedMap {
public:
    float at(const StrandRoot&, Vec3f p, MapComponent) const override { return p.x; }
    Color4f colorAt(const StrandRoot&, Vec3f p) const override { return {p.x, p.y, p.z, 1.0f}; }
    std::string channel() const override { return "share"; }
    std::uint64_t hash() const override { return 1; }
};

void require(bool condition) {
    if (!condition) std::abort();
}

bool sameFinite(float a, float b) {
    return std::isfinite(a) && std::memcmp(&a, &b, sizeof(float)) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > 20'000) return 0;
    static const StrandSet set =
        makeTuft({.strands = 5, .pointsPerStrand = 5, .uneven = true, .degenerate = true});
    const std::uint8_t mode = data[0];
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1), json;
    if (const std::size_t zero = text.find('\0'); zero != std::string::npos) {
        json = text.substr(zero + 1);
        text.resize(zero);
    }
    const auto shape = mode & 2 ? ExpressionMap::Shape::Vector : ExpressionMap::Shape::Number;
    try {
        ExpressionEnvironment environment;
        environment.findMap = [](const std::string& name) -> NamedMapPtr {
            return name == "m" ? std::make_shared<FlatMap>() : nullptr;
        };
        environment.variables = expressionVariables(json);
        const ExpressionMap map(text, environment, mode & 1, shape);
        const ExpressionMap::Bound bound = map.bind(set, environment);
        std::vector<std::uint32_t> strands;
        for (std::uint32_t s = 0; s < set.strandCount(); ++s) strands.push_back(s);
        std::vector<Vec3f> points(set.pointCount());
        bound.pointVectors(strands, points);
        for (const std::uint32_t s : strands)
            for (std::size_t p = 0; p < set.pointCountOf(s); ++p) {
                const Vec3f single = bound.pointVector(s, p);
                const Vec3f batch = points[std::size_t(set.offsets()[s]) + p];
                for (int c = 0; c < 3; ++c) require(sameFinite(single[c], batch[c]));
            }
    } catch (const ExpressionError& error) {
        require(error.what()[0] != '\0');
    }
    return 0;
}
