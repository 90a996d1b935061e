#include "graph/checkIncremental.h"

#include <algorithm>

#include "graph/strandDiff.h"

namespace corvelle {

namespace {

constexpr const char* kLayoutChanged =
    "it says only some strands changed, but the set's layout did";
constexpr const char* kStrandsDiffer = "its strands differ from a full evaluation's";

/// The first strand outside the list that differs between two sets of strands; empty for none.
std::string firstUnlisted(const StrandSet& made, const StrandSet& other,
                          const StrandChanges& changes) {
    const std::optional<StrandPairs> pairs = StrandPairs::of(made, other);
    if (!pairs) return kLayoutChanged;
    if (!changes.strands.empty() && changes.strands.back() >= made.strandCount())
        return "it lists a strand past the set's end";
    auto listed = changes.strands.begin();
    for (std::size_t s = 0; s < made.strandCount(); ++s) {
        while (listed != changes.strands.end() && *listed < s) ++listed;
        const bool isListed = listed != changes.strands.end() && *listed == s;
        if (!isListed && pairs->strandDiffers(s))
            return "strand " + std::to_string(s) + " changed but is not listed as changed";
    }
    return {};
}

std::string checkStrands(const StrandSet& made, const StrandSet& full, const StrandSet* previous,
                         const StrandChangesPtr& changes) {
    if (made.contentHash() != full.contentHash()) {
        if (!isList(changes)) return kStrandsDiffer;
        const std::string reason = firstUnlisted(made, full, *changes);
        return reason.empty() ? kStrandsDiffer : reason;
    }
    return isList(changes) && previous ? firstUnlisted(made, *previous, *changes) : std::string();
}

std::string checkGuides(const GuideSet& made, const GuideSet& full, const GuideSet* previous,
                        const StrandChangesPtr& changes) {
    if (made.contentHash() != full.contentHash())
        return "its guides differ from a full evaluation's";
    if (!isList(changes) || !previous) return {};
    const StrandChangesPtr truth = guideDiff(*previous, made);
    if (!truth) return "it says only some guides changed, but the set's ids did";
    for (const std::uint32_t g : truth->strands)
        if (!std::binary_search(changes->strands.begin(), changes->strands.end(), g))
            return "guide " + std::to_string(g) + " changed but is not listed as changed";
    return {};
}

}  // namespace

std::string checkIncremental(const NodeValue& incremental, const NodeValue& full,
                             const NodeValue& previous, const StrandChangesPtr& changes) {
    if (std::string_view(nodeValueWord(incremental)) != nodeValueWord(full))
        return "it made another kind of value than a full evaluation";
    if (const auto* made = std::get_if<GuidesPtr>(&incremental); made && *made) {
        const auto* old = std::get_if<GuidesPtr>(&previous);
        return checkGuides(**made, *std::get<GuidesPtr>(full), old ? old->get() : nullptr, changes);
    }
    if (const auto* made = std::get_if<StrandsPtr>(&incremental); made && *made) {
        const auto* old = std::get_if<StrandsPtr>(&previous);
        return checkStrands(**made, *std::get<StrandsPtr>(full), old ? old->get() : nullptr,
                            changes);
    }
    return {};
}

}  // namespace corvelle
