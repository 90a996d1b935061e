#include "tools/guideBoxes.h"

#include <algorithm>
#include <utility>

#include "tools/mortonCode.h"

namespace corvelle {
GuideBox boxOf(std::span<const Vec3f> points) {
    if (points.empty()) return {};
    GuideBox box{points[0], points[0]};
    for (const Vec3f& p : points) {
        box.low = componentMin(box.low, p);
        box.high = componentMax(box.high, p);
    }
    return box;
}

GuideBoxes::GuideBoxes(std::span<const GuideBox> boxes) : slotOf_(boxes.size()) {
    if (boxes.empty()) return;
    GuideBox all = boxes[0];
    for (const GuideBox& box : boxes) {
        all.low = componentMin(all.low, box.low);
        all.high = componentMax(all.high, box.high);
    }
    std::vector<std::pair<std::uint32_t, std::uint32_t>> order(boxes.size());
    for (std::uint32_t i = 0; i < order.size(); ++i) {
        const Vec3f middle = (boxes[i].low + boxes[i].high) * 0.5f;
        std::uint32_t code = 0;
        for (int k = 0; k < 3; ++k) {
            const float span = all.high[k] - all.low[k];
            const float share = span > 0.0f ? (middle[k] - all.low[k]) / span : 0.0f;
            code |= mortonSpread(std::uint32_t(std::clamp(share * 1023.0f, 0.0f, 1023.0f))) << k;
        }
        order[i] = {code, i};
    }
    std::sort(order.begin(), order.end());
    levels_.emplace_back();
    for (std::uint32_t slot = 0; slot < order.size(); ++slot) {
        itemAt_.push_back(order[slot].second);
        slotOf_[order[slot].second] = slot;
        levels_[0].push_back(boxes[order[slot].second]);
    }
    while (levels_.back().size() > kBranch) {
        const std::size_t level = levels_.size();
        levels_.emplace_back((levels_.back().size() + kBranch - 1) / kBranch);
        for (std::uint32_t node = 0; node < levels_[level].size(); ++node)
            levels_[level][node] = joined(level, node);
    }
}

GuideBox GuideBoxes::joined(std::size_t level, std::uint32_t node) const {
    const std::vector<GuideBox>& below = levels_[level - 1];
    const std::size_t begin = std::size_t(node) * kBranch;
    GuideBox out = below[begin];
    for (std::size_t i = begin + 1; i < std::min(begin + kBranch, below.size()); ++i) {
        out.low = componentMin(out.low, below[i].low);
        out.high = componentMax(out.high, below[i].high);
    }
    return out;
}

void GuideBoxes::update(std::uint32_t item, const GuideBox& box) {
    levels_[0][slotOf_[item]] = box;
    stale_.push_back(slotOf_[item]);
}

void GuideBoxes::refit() {
    // Neighbours share most of what lies above them.
    for (std::size_t level = 1; level < levels_.size() && !stale_.empty(); ++level) {
        for (std::uint32_t& node : stale_) node /= kBranch;
        std::sort(stale_.begin(), stale_.end());
        stale_.erase(std::unique(stale_.begin(), stale_.end()), stale_.end());
        for (const std::uint32_t node : stale_) levels_[level][node] = joined(level, node);
    }
    stale_.clear();
}

void GuideBoxes::visit(const BrushStamp& stamp, std::size_t level, std::uint32_t node,
                       std::vector<std::uint32_t>& out) const {
    const GuideBox& box = levels_[level][node];
    if (level == 0) {
        if (stamp.reaches(box.low, box.high)) out.push_back(itemAt_[node]);
        return;
    }
    if (!stamp.mayReachWithin(box.low, box.high)) return;
    const std::uint32_t begin = node * kBranch;
    const auto end = std::min(begin + kBranch, std::uint32_t(levels_[level - 1].size()));
    for (std::uint32_t child = begin; child < end; ++child) visit(stamp, level - 1, child, out);
}

void GuideBoxes::reached(const BrushStamp& stamp, std::vector<std::uint32_t>& out) const {
    out.clear();
    if (levels_.empty()) return;
    for (std::uint32_t node = 0; node < levels_.back().size(); ++node)
        visit(stamp, levels_.size() - 1, node, out);
    std::sort(out.begin(), out.end());
}

}  // namespace corvelle
