#include "tools/guideCandidates.h"

#include <algorithm>
#include <unordered_map>

#include "tools/selection.h"

namespace corvelle {
namespace {

/// Who is kept from the brush.
class Gate {
public:
    explicit Gate(const BrushToolSettings& settings)
        : settings_(settings),
          masked_(settings.mode != BrushMode::Paint ||
                  settings.attribute != settings.freezeAttribute) {}

    bool frozen(const Guide& guide) const {
        return settings_.frozen && settings_.frozen->contains(guide.id);
    }
    float selected(const Guide& guide) const {
        if (!settings_.selectedOnly || !settings_.selectionWeights) return 1.0f;
        const auto found = settings_.selectionWeights->find(guide.id);
        return found != settings_.selectionWeights->end() ? std::min(found->second, 1.0f) : 0.0f;
    }
    /// What the freeze mask leaves.
    float unmasked(const Guide& guide) const {
        const auto found = guide.attributes.find(settings_.freezeAttribute);
        if (!masked_ || found == guide.attributes.end()) return 1.0f;
        return 1.0f - std::clamp(found->second, 0.0f, 1.0f);
    }

private:
    const BrushToolSettings& settings_;
    bool masked_;
};

}  // namespace

std::vector<GuideCandidate> guideCandidates(const GuideHierarchy& hierarchy,
                                            const BrushToolSettings& settings,
                                            const std::set<std::string>& hidden,
                                            const std::function<float(int)>& levelStrength) {
    const Gate gate(settings);
    const auto strengthOf = [&](int level) { return levelStrength ? levelStrength(level) : 1.0f; };
    const std::set<std::uint32_t> inPlay =
        groupsInPlay(hierarchy, settings.level, settings.group, hidden);
    const std::set<std::uint32_t> hiddenGroups = hiddenGroupIds(hierarchy, hidden);
    std::vector<GuideCandidate> out;
    std::unordered_map<std::uint64_t, float> handedDown;  // by id: what followers get
    const std::span<const GuidePtr> guides = hierarchy.guides();
    const auto offer = [&](std::uint32_t index, float scale, int level) {
        const Guide& guide = *guides[index];
        scale *= gate.unmasked(guide) * strengthOf(level);
        if (scale > 0.0f && !gate.frozen(guide)) out.push_back({guide.id, scale, index});
    };
    for (std::uint32_t i = 0; i < guides.size(); ++i) {
        const Guide& guide = *guides[i];
        if (!inPlay.contains(guide.group)) continue;
        const float scale = gate.selected(guide);
        if (!(scale > 0.0f) || gate.frozen(guide)) continue;
        const std::size_t before = out.size();
        offer(i, scale, settings.level);
        if (settings.propagate && out.size() > before)
            handedDown.emplace(guide.id, scale * gate.unmasked(guide));
    }
    if (handedDown.empty()) return out;
    for (int level = settings.level + 1; level <= hierarchy.deepestLevel(); ++level) {
        for (std::uint32_t i = 0; i < guides.size(); ++i) {
            const Guide& guide = *guides[i];
            if (guide.parent == 0 || hierarchy.depthOf(guide.group) != level) continue;
            const auto parent = handedDown.find(guide.parent);
            if (parent == handedDown.end()) continue;
            const float scale = parent->second;
            handedDown.emplace(guide.id, scale);
            if (!hiddenGroups.contains(guide.group)) offer(i, scale, level);
        }
    }
    return out;
}

std::vector<GuideCandidate> guideCandidates(StrokeHost& host, const BrushToolSettings& settings) {
    const std::shared_ptr<const GuideHierarchy> hierarchy = host.editHierarchy();
    if (!hierarchy) return {};
    return guideCandidates(*hierarchy, settings, host.hiddenGroups(),
                           [&](int level) { return host.levelStrength(level); });
}

}  // namespace corvelle
