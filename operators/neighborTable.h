#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "model/partLines.h"
#include "model/strandSet.h"

namespace corvelle {

/// Which strands count as neighbours of one.
struct NeighborSettings {
    std::size_t count = 4;  ///< at most, 1 to NeighborTable::kMost
    float maxDistance = std::numeric_limits<float>::infinity();  ///< cm, between roots
    /// Strand channels whose value neighbours share. One that is empty, or that the strands lack,
    /// is not asked.
    std::string regionChannel, clumpChannel;
    std::shared_ptr<const PartLines> parts;  ///< never across one; null: not asked
};

struct NeighborChannels;

/// The nearest strands of every strand of a set, by the straight distance between their first
/// points, of those that every preview holds and other than the strand itself; at equal distances
/// the lower id comes first. So a strand has the same neighbours in a thinned view. Strands without
/// a point, or with a first one that is no number, have none and are nobody's.
///
/// Where parts leave out near ones, no more than the nearest kMostLooked strands are looked at.
/// Immutable once made; any thread may read. The build is parallel, its result the same on any
/// number of threads. Cost: O(n log n).
class NeighborTable {
public:
    static constexpr std::size_t kMost = 16;
    static constexpr std::size_t kMostLooked = 128;
    NeighborTable(const StrandSet& strands, const NeighborSettings& settings);

    /// Nearest first: indices of strands.
    std::span<const std::uint32_t> of(std::size_t strand) const {
        return std::span(neighbors_).subspan(strand * count_, found_[strand]);
    }
    /// All strands, those with neighbours in common mostly close together.
    std::span<const std::uint32_t> order() const { return order_; }
    /// What batches of the order read: near strands have much the same neighbours, so each batch
    /// lists them once.
    class Batches {
    public:
        static constexpr std::size_t kSize = 256;
        /// The strands of a batch, places [batch kSize, ...) of the order, and then their
        /// neighbours that are not among them.
        std::span<const std::uint32_t> strands(std::size_t batch) const {
            return std::span(strands_).subspan(starts_[batch], starts_[batch + 1] - starts_[batch]);
        }
        /// The neighbours of the strand at a place of the order, by where the batch lists them.
        std::span<const std::uint32_t> of(std::size_t place) const {
            return std::span(neighbors_).subspan(place * count_, found_[place]);
        }

    private:
        friend NeighborTable;
        std::size_t count_ = 0;
        std::vector<std::size_t> starts_;
        std::vector<std::uint32_t> strands_, neighbors_;
        std::vector<std::uint8_t> found_;
    };
    /// Made when first asked for.
    const Batches& batches() const;
    /// The strands that `strand` is a neighbour of, ascending. Turned about when first asked for.
    std::span<const std::uint32_t> neighborsTo(std::size_t strand) const;
    /// True when a table of these strands, which differ from the ones it was made of in the listed
    /// ones at most, would be the same. `settings` are those it was made with.
    bool fits(const StrandSet& strands, std::span<const std::uint32_t> changed,
              const NeighborSettings& settings) const;
    /// The same for strands that may all differ.
    bool fits(const StrandSet& strands, const NeighborSettings& settings) const;

private:
    bool knows(const StrandSet& strands, const NeighborChannels& channels, std::size_t s) const;
    struct Group;
    struct Picker;

    std::size_t count_ = 0;
    std::vector<std::uint32_t> neighbors_;  ///< [strands][count_]
    std::vector<std::uint8_t> found_;       ///< [strands]
    std::vector<std::uint32_t> order_;      ///< [strands]
    /// [strands] what of the strands the table is made from; groups_ empty: all of group 0.
    std::vector<std::uint64_t> ids_, groups_;
    std::vector<Vec3f> roots_;
    std::vector<std::uint8_t> marked_;
    mutable std::once_flag batched_, turned_;
    mutable Batches batches_;
    mutable std::vector<std::uint32_t> toOffsets_, to_;
};

/// Keeps the last table made, by what it was made from. Guarded by a mutex of its own, which is not
/// held while a table is made.
class NeighborCache {
public:
    std::shared_ptr<const NeighborTable> table(const StrandSet& strands,
                                               const NeighborSettings& settings);
    /// The kept one, when it fits strands of which the listed ones changed; else null. Looks at
    /// these alone.
    std::shared_ptr<const NeighborTable> kept(const StrandSet& strands,
                                              std::span<const std::uint32_t> changed,
                                              const NeighborSettings& settings) const;
    void copyFrom(const NeighborCache& other);

private:
    struct Held {
        std::uint64_t settingsKey = 0;
        std::shared_ptr<const NeighborTable> table;
    };
    Held held() const;
    mutable std::mutex mutex_;
    Held held_;
};

}  // namespace corvelle
