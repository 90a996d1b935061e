#include "operators/previewStrands.h"

#include <numeric>

namespace corvelle {

std::vector<std::uint32_t> previewStrands(const StrandSet& strands) {
    std::vector<std::uint32_t> marked;
    if (const std::vector<float>* marks = strands.strandChannel("_preview"))
        for (std::size_t s = 0; s < marks->size(); ++s)
            if ((*marks)[s] >= 0.5f) marked.push_back(std::uint32_t(s));
    if (!marked.empty()) return marked;
    marked.resize(strands.strandCount());
    std::iota(marked.begin(), marked.end(), 0u);
    return marked;
}

}  // namespace corvelle
