#pragma once

#include <cstdint>
#include <span>

#include "graph/field.h"
#include "model/strandSet.h"

namespace corvelle {

/// Mixes two sets of equal layout (count, ids, points per strand) by a weight per strand or point:
/// 0 or less keeps the bits of `before`, 1 or more those of `after`, between them each float is
/// before + (after - before) * weight. Roots and channels of ids and flags switch at 0.5; values per
/// strand take the strand's weight; a channel that one side lacks reads its default there. Layers
/// (instances, cards, feathers) are `after`'s. Arrays that both sides share stay shared.
///
/// `weight` must be bound to `before`, which it is sampled on. Throws std::invalid_argument
/// "blendStrands: the layouts differ" and std::bad_alloc. Parallel over strands.
StrandSet blendStrands(const StrandSet& before, const StrandSet& after, const FieldValue& weight);

/// The same result from an earlier one: `previous` is what blendStrands gave when all strands but the
/// `dirty` ones (ascending) had the bits and weights they have now.
StrandSet blendStrands(const StrandSet& before, const StrandSet& after, const FieldValue& weight,
                       const StrandSet& previous, std::span<const std::uint32_t> dirty);

/// The mix of `count` floats by one weight strictly between 0 and 1. Equal bits stay those bits.
void mixFloats(const float* before, const float* after, float weight, float* out, std::size_t count);

}  // namespace corvelle
