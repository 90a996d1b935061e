#pragma once

#include <bit>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "expr/expressionMap.h"
#include "model/strandSet.h"

namespace corvelle::testing_ {

inline std::uint32_t bitsOf(float x) { return std::bit_cast<std::uint32_t>(x); }

/// Three strands: the first goes from (1, 2, 3) up by 1 and then over by 2 along x.
inline StrandSet threeStrands() {
    StrandSet set;
    const std::vector<Vec3f> bent = {{1, 2, 3}, {1, 3, 3}, {3, 3, 3}};
    const std::vector<Vec3f> straight = {{0, 0, 0}, {0, 0, 2}};
    const std::vector<Vec3f> dot = {{5, 5, 5}, {5, 5, 5}};
    set.addStrand(11, bent, {}, {});
    set.addStrand(22, straight, {}, {});
    set.addStrand(33, dot, {}, {});
    return set;
}

inline std::vector<std::uint32_t> allOf(const StrandSet& set) {
    std::vector<std::uint32_t> all(set.strandCount());
    std::iota(all.begin(), all.end(), 0u);
    return all;
}

/// The value on the first of three strands, which both evaluators must agree on.
inline float valueOf(const std::string& text, const ExpressionEnvironment& environment = {}) {
    static const StrandSet set = threeStrands();
    const ExpressionMap map(text, environment, true);
    const ExpressionMap::Bound bound = map.bind(set, environment);
    const float single = bound.strand(0);
    std::vector<float> batch(set.strandCount());
    bound.strands(allOf(set), batch);
    EXPECT_EQ(bitsOf(single), bitsOf(batch[0])) << text;
    return single;
}
inline Vec3f vectorOf(const std::string& text, const ExpressionEnvironment& environment = {}) {
    static const StrandSet set = threeStrands();
    const ExpressionMap map(text, environment, true, ExpressionMap::Shape::Vector);
    const ExpressionMap::Bound bound = map.bind(set, environment);
    const Vec3f single = bound.strandVector(0);
    std::vector<Vec3f> batch(set.strandCount());
    bound.strandVectors(allOf(set), batch);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(bitsOf(single[k]), bitsOf(batch[0][k])) << text;
    return single;
}

/// What compiling says, or "" when it compiles.
inline std::string errorOf(const std::string& text, bool perPointAllowed = true,
                           ExpressionMap::Shape wanted = ExpressionMap::Shape::Number,
                           const ExpressionEnvironment& environment = {}) {
    try {
        const ExpressionMap map(text, environment, perPointAllowed, wanted);
    } catch (const ExpressionError& error) {
        return error.what();
    }
    return "";
}

}  // namespace corvelle::testing_
