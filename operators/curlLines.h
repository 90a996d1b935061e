#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "model/scalpMesh.h"
#include "model/strandSet.h"
#include "operators/curlShape.h"

namespace corvelle {

/// Which strands curl together: those of one clump, by its number in a channel.
///
/// A clump's middle follows from the strands that every preview holds, so that a thinned set has
/// the curls of the whole. Strands without a clump (a number below 0, or one whose clump has no
/// such strand) curl on their own.
class CurlGroups {
public:
    CurlGroups() = default;
    /// numbers [strands].
    CurlGroups(const StrandSet& strands, std::span<const float> numbers);
    std::size_t size() const { return values_.size(); }
    /// The group of a strand, -1 for none.
    std::int32_t of(std::size_t strand) const { return groupOf_.empty() ? -1 : groupOf_[strand]; }
    float number(std::size_t group) const { return values_[group]; }
    /// The strands that the middle follows from, ascending.
    std::span<const std::uint32_t> coreOf(std::size_t group) const {
        return part(core_, coreOffsets_, group);
    }
    std::span<const std::uint32_t> membersOf(std::size_t group) const {
        return part(members_, memberOffsets_, group);
    }
    bool isCore(std::uint32_t strand) const;

private:
    static std::span<const std::uint32_t> part(const std::vector<std::uint32_t>& list,
                                               const std::vector<std::size_t>& offsets,
                                               std::size_t group) {
        return std::span(list).subspan(offsets[group], offsets[group + 1] - offsets[group]);
    }
    std::vector<float> values_;  ///< ascending
    std::vector<std::int32_t> groupOf_;
    std::vector<std::size_t> coreOffsets_, memberOffsets_;
    std::vector<std::uint32_t> core_, members_;
};

/// The center lines of groups: their mean curves at even shares of the length, with the frames that
/// ride on them and the turns along them.
class CurlLines {
public:
    CurlLines() = default;
    /// `wanted` [groups]: the lines to make; empty: all.
    CurlLines(const StrandSet& strands, const CurlGroups& groups,
              std::span<const std::uint8_t> wanted, const ScalpMesh* scalp,
              const CurlSettings& settings);
    const CurlDraws& draws(std::size_t group) const { return lines_[group].draws; }
    float length(std::size_t group) const { return lines_[group].length; }
    /// Over the whole line.
    float turns(std::size_t group) const { return turns_[lines_[group].turnsEnd - 1]; }
    float turnsAt(std::size_t group, float share) const;

    /// What is to be read at even shares of one line: turns and frames, from the root to the tip.
    struct View {
        std::span<const float> turns;       ///< 2 or more
        std::span<const CurlFrame> frames;  ///< 2 or more
    };
    View view(std::size_t group) const {
        const Line& line = lines_[group];
        return {std::span(turns_).subspan(line.turnsBegin, line.turnsEnd - line.turnsBegin),
                std::span(frames_).subspan(line.begin, line.end - line.begin)};
    }

private:
    struct Line {
        std::size_t begin = 0, end = 0;            ///< in `frames_`
        std::size_t turnsBegin = 0, turnsEnd = 0;  ///< in `turns_`
        float length = 0.0f;
        CurlDraws draws;
    };
    std::vector<Line> lines_;
    std::vector<CurlFrame> frames_;
    std::vector<float> turns_;
};

}  // namespace corvelle
