#include "operators/previewShare.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "graph/graphError.h"

namespace corvelle {

namespace {

constexpr double kNeverThinned = 5000.0;  ///< strands
constexpr double kLeastShare = 0.03;
constexpr double kMaxPreviewPoints = 60e6;
constexpr double kMaxPoints = 400e6;

double alwaysShare(const PreviewRequest& request) {
    if (request.previewAll || request.strands <= kNeverThinned) return 1.0;
    int exponent = 0;  // strands / kNeverThinned = m 2^exponent, m in [0.5, 1): floor(log2) is one less
    std::frexp(request.strands / kNeverThinned, &exponent);
    const double halved = std::ldexp(1.0, -(exponent - 1));
    return halved > kLeastShare ? halved : kLeastShare;
}

}  // namespace

PreviewShare previewShare(const PreviewRequest& request) {
    const double points = request.strands * double(request.pointsPerStrand);
    const double density = std::isnan(request.density) ? 1.0 : double(request.density);
    double wanted = request.previewAll ? std::max(1.0, density) : density;
    if (request.pointBudget > 0.0 && wanted * points > request.pointBudget)
        wanted = request.pointBudget / points;

    const double always = alwaysShare(request);
    const double share = wanted >= 1.0 ? 1.0 : std::max(always, wanted);

    char text[200];
    if (request.pointBudget <= 0.0 && density < 1.0 && share * points > kMaxPreviewPoints) {
        std::snprintf(text, sizeof text,
                      "Scatter: the preview would have %.0fM points (%.0fk strands x %zu): lower the "
                      "preview density, density or the Resample's segments",
                      share * points / 1e6, share * request.strands / 1e3, request.pointsPerStrand);
        throw GraphError(text);
    }
    if (share * points > kMaxPoints) {
        std::snprintf(text, sizeof text,
                      "Scatter: %.0fM points (strands x %zu) is more than memory holds: lower the "
                      "density or the Resample's segments",
                      share * points / 1e6, request.pointsPerStrand);
        throw GraphError(text);
    }
    return {.share = float(share), .always = float(always)};
}

}  // namespace corvelle
