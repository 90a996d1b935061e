#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/strandSet.h"

namespace corvelle {

/// What the caller of an evaluation asks for.
struct EvaluateOptions {
    float density = 1.0f;        ///< share of the strands, 0 to 1
    float sculptDensity = 1.0f;  ///< a further factor while a stroke is under way
    double pointBudget = 0.0;    ///< limit on preview points; 0: none
    std::string viewNode;        ///< show this node's strands; empty: the output's
    double seconds = 0.0;
    bool preview = false;        ///< a viewport evaluation
    bool deferTools = false;
    bool computeBounds = true;
};

struct EvaluationMessage {
    std::string text;
    bool error = false;
    friend bool operator==(const EvaluationMessage&, const EvaluationMessage&) = default;
};

/// What an evaluation gave. The strands are shared and immutable: they stay good after the next one.
struct EvaluationResult {
    StrandsPtr strands;     ///< what the host sees; null when there are none
    StrandsPtr rawStrands;  ///< while following: as evaluated on the rest scalp
    std::uint64_t serial = 0;       ///< names this result; 0 is none
    std::uint64_t changesBase = 0;  ///< the serial that `changes` counts from
    StrandChangesPtr changes;       ///< null: not known, everything
    float density = 1.0f;           ///< the share used
    std::string viewNode;           ///< the node shown; empty: the output
    bool viewIsScatter = false;
    bool following = false;
    Vec3f boundsMin, boundsMax;  ///< groom space, strands and guides
    bool hasBounds = false;
    std::uint64_t displayRevision = 0, strandRevision = 0, guideRevision = 0;
    std::vector<std::string> errors;
    std::vector<EvaluationMessage> messages;
};

}  // namespace corvelle
