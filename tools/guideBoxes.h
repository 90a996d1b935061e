#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/vec3f.h"
#include "tools/brushWeight.h"

namespace corvelle {

struct GuideBox {
    Vec3f low, high;
};
GuideBox boxOf(std::span<const Vec3f> points);

/// The boxes of a stroke's guides in a tree of eights, laid out by place (Morton order), so that a
/// stamp looks at boxes in proportion to what it reaches. Boxes follow guides that move; the order
/// stays.
class GuideBoxes {
public:
    GuideBoxes() = default;
    explicit GuideBoxes(std::span<const GuideBox> boxes);
    std::size_t size() const { return slotOf_.size(); }
    /// Takes an item's new box in; `refit` before the next question.
    void update(std::uint32_t item, const GuideBox& box);
    void refit();
    /// The items whose boxes the stamp reaches, ascending.
    void reached(const BrushStamp& stamp, std::vector<std::uint32_t>& out) const;

private:
    static constexpr std::uint32_t kBranch = 8;
    void visit(const BrushStamp& stamp, std::size_t level, std::uint32_t node,
               std::vector<std::uint32_t>& out) const;
    GuideBox joined(std::size_t level, std::uint32_t node) const;

    std::vector<std::uint32_t> itemAt_, slotOf_;
    std::vector<std::uint32_t> stale_;           ///< nodes of the level being fitted
    std::vector<std::vector<GuideBox>> levels_;  ///< [0]: by slot; each next one an eighth of it
};

}  // namespace corvelle
