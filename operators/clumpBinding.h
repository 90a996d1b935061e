#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/partLines.h"
#include "model/pointIndex.h"
#include "model/strandSet.h"

namespace corvelle {

/// The centers of clumps. Arrays [clumps], by ascending id.
struct ClumpCenters {
    std::vector<std::uint64_t> ids;
    std::vector<Vec3f> positions;  ///< of their roots
    std::vector<float> regions;    ///< empty: strands of any region are gathered
    std::size_t size() const { return ids.size(); }
};

/// What keeps strands and clumps apart.
struct ClumpBounds {
    const std::vector<float>* strandRegions = nullptr;  ///< [strands]; null: none
    const PartLines* parts = nullptr;                   ///< null: none
};

/// Centers as strands look for them: the nearest of the same region on the same side of all parts.
class ClumpFinder {
public:
    ClumpFinder(const ClumpCenters& centers, const PartLines* parts);
    /// -1 for none. `region` counts only where the centers have regions.
    std::int32_t nearest(Vec3f position, float region) const;
    /// The nearest centers of center `of`'s region and side, itself left out; returns how many.
    std::size_t neighborsOf(std::size_t of, std::span<std::uint32_t> out) const;

private:
    struct Group {
        float region = 0.0f;
        std::vector<std::uint32_t> centers;
        PointIndex index;
    };
    const Group* groupOf(float region) const;
    /// Calls take(center) for the group's centers that no part separates from `position`, nearest
    /// first, until it returns false.
    template <class Take>
    void visit(const Group& group, Vec3f position, std::size_t first, Take&& take) const;

    const ClumpCenters& centers_;
    const PartLines* parts_;
    std::vector<Group> groups_;  ///< by ascending region; one for all without regions
};

/// Which clump each strand belongs to.
/// Shapes: clumpOf [strands], -1 for none; reach [clumps]; memberOffsets [clumps + 1], members
///         ascending within a clump.
struct ClumpBinding {
    std::vector<std::int32_t> clumpOf;
    /// How far the clump's strands are rooted from its center, cm: the farthest of the strands that
    /// every preview holds, at least half the way to the nearest other center.
    std::vector<float> reach;
    std::vector<std::size_t> memberOffsets{0};
    std::vector<std::uint32_t> members;
    std::span<const std::uint32_t> membersOf(std::size_t clump) const {
        return std::span(members).subspan(memberOffsets[clump],
                                          memberOffsets[clump + 1] - memberOffsets[clump]);
    }
};

/// Cost: O(strands log clumps), parallel; a strand's clump depends on its own root alone.
ClumpBinding bindClumps(const StrandSet& strands, std::span<const std::uint32_t> core,
                        const ClumpCenters& centers, const ClumpBounds& bounds);

/// The clumps' numbers as a channel holds them: 24 mixed bits of the id, other ones where those are
/// taken by a lower id. Whole, 0 and up, each once. ids ascend.
std::vector<float> clumpNumbers(std::span<const std::uint64_t> ids);

}  // namespace corvelle
