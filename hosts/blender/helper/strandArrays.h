#pragma once

#include <string>
#include <vector>

#include "hosts/blender/helper/answerPool.h"
#include "model/scalpMesh.h"
#include "model/strandSet.h"

namespace corvelle {

/// Which attributes an evaluate request asks for.
struct AttributeRequest {
    bool all = false;
    std::vector<std::string> names;
    bool wants(const std::string& name) const;
    friend bool operator==(const AttributeRequest&, const AttributeRequest&) = default;
};
/// Throws RequestError (bad_request): "attributes must be a list of names or \"all\"",
/// "attributes must name attributes".
AttributeRequest readAttributes(const Json& request);

/// The strand part of an evaluate answer.
struct StrandAnswer {
    Json arrays;
    Json available;  ///< list of {name, scope, components}
    Json missing;    ///< names asked for that do not exist
};

/// What a pool last wrote: asked for the same again, the arrays still lie there.
struct StrandAnswerCache {
    StrandsPtr strands;
    ScalpPtr scalp;
    SceneSpace space;
    bool groomSpace = false;
    AttributeRequest attributes;
    StrandAnswer answer;
};

/// Writes a strand set's arrays into the pool, each straight from the engine's array. `strands` null
/// counts as an empty set; `scalp` may be null. A question equal to the cached one writes nothing.
const StrandAnswer& writeStrands(AnswerPool& pool, StrandAnswerCache& cache, const StrandsPtr& strands,
                                 const ScalpPtr& scalp, const SceneSpace& space, bool groomSpace,
                                 const AttributeRequest& attributes);

}  // namespace corvelle
