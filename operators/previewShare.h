#pragma once

#include <cstddef>

namespace corvelle {

/// What the share of strands grown for an evaluation follows from.
struct PreviewRequest {
    double strands = 0.0;             ///< of the full groom, estimated
    std::size_t pointsPerStrand = 9;  ///< that the graph makes downstream
    float density = 1.0f;             ///< preview density: 1 is all of them
    double pointBudget = 0.0;         ///< points the preview may hold; 0: no limit
    bool previewAll = false;          ///< every strand, whatever the density
};

struct PreviewShare {
    float share = 1.0f;   ///< strands whose unitHash(id) is below this are grown
    float always = 1.0f;  ///< strands below this are in every preview of the groom
};

/// Works out the share. Small grooms are never thinned; big ones keep at least the share that
/// leaves about 5,000 to 10,000 strands, and never below 3 %.
/// Throws: GraphError when the preview, or the whole, would hold more points than memory does.
PreviewShare previewShare(const PreviewRequest& request);

}  // namespace corvelle
