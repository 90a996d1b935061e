#pragma once

#include <memory>

#include "operators/strandOperator.h"

namespace corvelle {

/// What turns strands toward a direction, segment by segment.
struct TowardSettings {
    const char* direction = nullptr;  ///< the node's vector param; a zero vector turns nothing
    const char* strength = nullptr;   ///< its number param, negative ones taken for 0
    float most = 1.0f;                ///< greater strengths are taken for it
    Ramp profile;                     ///< of the strength along the length; the product to 0..1
    ScalpPtr surface;                 ///< to lay the direction on at the root; null: as it is
};

/// The work of it, its fields bound; null where nothing turns.
std::unique_ptr<StrandWork> towardWork(const Operator& node, const EvalContext& context,
                                       const StrandSet& strands, TowardSettings settings);

}  // namespace corvelle
