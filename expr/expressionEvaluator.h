#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "expr/expressionProgram.h"
#include "expr/namedMap.h"
#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

inline constexpr std::uint64_t kNoPoint = ~std::uint64_t(0);

/// A channel as a binding resolved it: one value per strand or per point; null reads 0.
struct BoundChannel {
    const float* values = nullptr;
    bool perPoint = false;
};

/// A map, and the channel that carries its values on the strands, read instead where it is bound.
struct BoundMap {
    const NamedMap* map = nullptr;
    BoundChannel layer;
};

/// What all strands share.
struct ExpressionTables {
    std::span<const BoundChannel> channels;  ///< by channel index
    std::span<const BoundMap> maps;          ///< by map index
    std::span<const StrandRoot> roots;       ///< by strand (or place) index
};

/// One strand, or one point of it, for the single evaluator.
struct StrandRecord {
    std::array<float, kExpressionVariableCount> variables{};  ///< those the program reads
    std::uint64_t id = 0;
    std::uint32_t strand = 0;
    std::uint64_t point = kNoPoint;  ///< in the point channels
    Vec3f rootPosition;              ///< read with maps only
    const ExpressionTables* tables = nullptr;
};

/// Results are finite. No allocation; safe from parallel bodies.
float evaluate(const ExpressionProgram& program, const StrandRecord& record);
Vec3f evaluateVector(const ExpressionProgram& program, const StrandRecord& record);

/// The value of operations that read no variable, channel or map; one number. Their stack depth is
/// kMaxExpressionStack at most.
float evaluateConstant(std::span<const ExpressionOp> operations, const std::vector<Ramp>& curves);

/// Lanes for the batch evaluator: strands or points side by side. Arrays hold one element a lane;
/// those a program does not read may be null.
struct ExpressionBatch {
    std::size_t lanes = 0;
    std::array<const float*, kExpressionVariableCount> variables{};
    const std::uint32_t* strands = nullptr;  ///< into the tables
    const std::uint64_t* points = nullptr;   ///< into the point channels, or kNoPoint
    bool strandsInOrder = false;             ///< each is one more than that of the lane before
    bool pointsInOrder = false;
    const std::uint64_t* ids = nullptr;
    const Vec3f* rootPositions = nullptr;
    const ExpressionTables* tables = nullptr;
};

/// Runs every operation over all lanes before the next: one dispatch per operation and batch, plain
/// loops over arrays within. The bits are those of `evaluate`. The stack is `stackDepth` rows of
/// `stride` floats, `stride` at least `lanes`; the result is in its first row (or first three).
void evaluateBatch(const ExpressionProgram& program, const ExpressionBatch& batch, float* stack,
                   std::size_t stride);

}  // namespace corvelle
