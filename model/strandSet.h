#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/sharedArray.h"
#include "model/strandLayers.h"
#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

/// Which strands an operator touched. `all`, like a null pointer to this, means every strand;
/// otherwise `strands` lists indices, ascending, without repeats. Also used for guides of a
/// GuideSet.
struct StrandChanges {
    bool all = false;
    std::vector<std::uint32_t> strands;
};
using StrandChangesPtr = std::shared_ptr<const StrandChanges>;

/// An extra array of floats with a name: one value per strand or per point.
struct Channel {
    SharedArray<float> values;
    float defaultValue = 0.0f;
    bool discrete = false;  ///< ids and flags: blends switch at 0.5 instead of mixing
};

/// The one container of hair: all strands as flat structure-of-arrays data with an offset table,
/// its big arrays shared copy-on-write, so that a node pays for a copy only of what it writes.
///
/// Shapes:   ids, roots [strandCount]; offsets [strandCount + 1]; points, widths [pointCount].
///           Strand i owns points offsets[i] up to but not including offsets[i + 1], root first.
/// Units:    points in groom space (Y up, centimetres); widths in centimetres, 1 = "not set".
/// Threads:  any number of readers. Take write access once, outside a parallel body; bodies then
///           write different elements. Copying a set while another thread writes it is a race.
/// Identity: everything that must be stable between evaluations is computed from a strand's id,
///           never from its index.
class StrandSet {
public:
    /// The box of the points, the longest arc length, and whether all points are real numbers.
    struct Extent {
        Vec3f min{3.4028235e38f, 3.4028235e38f, 3.4028235e38f};
        Vec3f max{-3.4028235e38f, -3.4028235e38f, -3.4028235e38f};
        float longest = 0.0f;
        bool finite = true;
        friend bool operator==(const Extent&, const Extent&) = default;
    };
    using Channels = std::map<std::string, Channel, std::less<>>;
    enum AllocateFlags : unsigned { kFillAll = 0, kLeavePoints = 1, kLeaveWidths = 2 };

    StrandSet();
    StrandSet(const StrandSet& other);
    StrandSet(StrandSet&& other);
    StrandSet& operator=(const StrandSet& other);
    StrandSet& operator=(StrandSet&& other);
    ~StrandSet();

    std::size_t strandCount() const { return ids_.size(); }
    std::size_t pointCount() const { return points_.size(); }
    std::size_t pointCountOf(std::size_t strand) const {
        return std::size_t(offsets()[strand + 1] - offsets()[strand]);
    }
    /// 0 for an empty set.
    std::size_t maxPointsPerStrand() const;

    // Read access: the arrays as they are, no lock.
    std::span<const std::uint64_t> ids() const { return ids_.span(); }
    std::span<const StrandRoot> roots() const { return roots_.span(); }
    std::span<const std::uint64_t> offsets() const { return offsets_.span(); }
    std::span<const Vec3f> points() const { return points_.span(); }
    std::span<const float> widths() const { return widths_.span(); }
    std::span<const Vec3f> pointsOf(std::size_t strand) const {
        return points().subspan(std::size_t(offsets()[strand]), pointCountOf(strand));
    }

    /// The first point; zero for a strand without points.
    Vec3f rootPosition(std::size_t strand) const {
        const std::uint64_t first = offsets()[strand];
        return offsets()[strand + 1] > first ? points()[std::size_t(first)] : Vec3f{};
    }

    // Write access: makes the array this set's own. Points and offsets drop the extent caches.
    std::span<std::uint64_t> mutableIds();
    std::span<StrandRoot> mutableRoots();
    std::span<std::uint64_t> mutableOffsets();
    std::span<Vec3f> mutablePoints();
    std::span<float> mutableWidths();
    /// For a caller that writes all of them: skips the copy, contents are stale.
    std::span<Vec3f> overwritePoints();
    std::span<float> overwriteWidths();

    /// Takes an array of another set by sharing; the layout must fit (throws
    /// std::invalid_argument).
    void sharePoints(const StrandSet& from);
    void shareWidths(const StrandSet& from);
    void shareStrands(const StrandSet& from);  ///< ids and roots
    /// True when both sets hold the very same array object.
    bool sharesPoints(const StrandSet& other) const { return points_.sharesWith(other.points_); }
    bool sharesWidths(const StrandSet& other) const { return widths_.sharesWith(other.widths_); }
    bool sharesOffsets(const StrandSet& other) const { return offsets_.sharesWith(other.offsets_); }
    bool sharesIds(const StrandSet& other) const { return ids_.sharesWith(other.ids_); }
    bool sharesRoots(const StrandSet& other) const { return roots_.sharesWith(other.roots_); }

    /// Returns the new strand's index. Empty `widths` means 1 at each point; channels get their
    /// defaults. Throws std::invalid_argument "StrandSet::addStrand: widths must be empty or match
    /// points" and leaves the set as it was.
    std::size_t addStrand(std::uint64_t id, std::span<const Vec3f> points,
                          std::span<const float> widths, StrandRoot root);
    /// Adds all strands of `other`, which may be this set, behind the existing ones; channels of
    /// either side are kept, the other side padded with the default or spread from its
    /// strand channel of the same name. Layers are joined; one that both sets hold stays one.
    void append(const StrandSet& other);
    void reserve(std::size_t strands, std::size_t points);
    /// Empties the set; channels stay with their defaults, layers go.
    void clear();
    /// Strands of the given point counts: ids 0, roots unset, widths 1, points zero, channels
    /// filled with their defaults. Flags leave points or widths unfilled.
    void allocate(std::span<const std::uint64_t> counts, unsigned flags = kFillAll);
    /// The same with the ids and roots of `strands`, by sharing, one count for each of its strands.
    void allocateFor(const StrandSet& strands, std::span<const std::uint64_t> counts,
                     unsigned flags = kFillAll);
    void allocateUniform(std::size_t strandCount, std::size_t pointsPerStrand,
                         unsigned flags = kFillAll);

    // Channels. Null or empty when there is no such channel.
    const std::vector<float>* strandChannel(std::string_view name) const;
    const std::vector<float>* pointChannel(std::string_view name) const;
    float strandChannelDefault(std::string_view name) const;
    float pointChannelDefault(std::string_view name) const;
    std::vector<std::string> strandChannelNames() const;
    std::vector<std::string> pointChannelNames() const;
    const Channels& strandChannels() const { return strandChannels_; }
    const Channels& pointChannels() const { return pointChannels_; }
    /// Made writable; a new channel is created filled with `defaultValue`.
    std::span<float> mutableStrandChannel(std::string_view name, float defaultValue);
    std::span<float> mutablePointChannel(std::string_view name, float defaultValue);
    /// For a caller that writes all of it: neither copied nor filled, contents are stale.
    std::span<float> overwriteStrandChannel(std::string_view name, float defaultValue);
    std::span<float> overwritePointChannel(std::string_view name, float defaultValue);
    /// Marks a channel of ids or flags; no effect when there is no such channel.
    void setStrandChannelDiscrete(std::string_view name, bool discrete = true);
    void setPointChannelDiscrete(std::string_view name, bool discrete = true);
    /// True if the channel was there.
    bool removeStrandChannel(std::string_view name);
    bool removePointChannel(std::string_view name);
    /// Take channel `name` of `from` by sharing if `from` has it and its size fits; else false.
    bool copyStrandChannel(std::string_view name, const StrandSet& from);
    bool copyPointChannel(std::string_view name, const StrandSet& from);

    // Layers that ride on the strands, naming them by id.
    std::shared_ptr<const InstanceSet> instances;
    std::vector<std::shared_ptr<const CardMesh>> cards;
    std::vector<std::shared_ptr<const FeatherLayer>> featherLayers;

    /// The strands listed, in that order, with all channels, ids and layers. All strands in their
    /// own order: a copy that shares every array. Throws std::invalid_argument for an index out of
    /// range.
    StrandSet subset(std::span<const std::uint32_t> indices) const;
    /// The strands whose `unitHash(id)` is below `fraction`: a lower fraction keeps a subset of
    /// what a higher one keeps.
    StrandSet thinned(float fraction) const;

    /// Cached; computed in chunks of 2048 strands.
    Extent extent() const;
    /// The same, recomputing only the chunks that hold a changed strand, from the chunk extents of
    /// `previous`; falls back to `extent()` when the layouts differ.
    Extent extentAfter(const StrandSet& previous,
                       std::span<const std::uint32_t> changedStrands) const;

    /// Same strand count, ids and points per strand.
    bool sameLayout(const StrandSet& other) const;
    /// Passes over everything: for verification and tests only.
    std::uint64_t contentHash() const;
    /// False, and `error` filled, at the first broken invariant.
    bool validate(std::string* error = nullptr) const;
    /// Bytes of all arrays; shared arrays are counted by each holder.
    std::size_t byteSize() const;
    /// Calls visit(identity, bytes) for every array, so that a caller may count distinct ones.
    void forEachArray(const std::function<void(const void*, std::size_t)>& visit) const;

private:
    struct ExtentCache {
        std::shared_ptr<const Extent> whole;
        std::shared_ptr<const std::vector<Extent>> chunks;
    };
    void swap(StrandSet& other) noexcept;
    void layOut(std::span<const std::uint64_t> counts);
    /// Fills the arrays of `fresh`, which has its offsets, and becomes it. Ids and roots are those
    /// of `strands`, if any.
    void allocateInto(StrandSet& fresh, unsigned flags, const StrandSet* strands = nullptr);
    void dropExtent();
    ExtentCache cachedExtent() const;
    Extent storeExtent(std::vector<Extent> chunks) const;
    Extent chunkExtent(std::size_t chunk) const;

    SharedArray<std::uint64_t> ids_;
    SharedArray<StrandRoot> roots_;
    SharedArray<std::uint64_t> offsets_;
    SharedArray<Vec3f> points_;
    SharedArray<float> widths_;
    Channels strandChannels_;
    Channels pointChannels_;
    mutable std::mutex arrayLock_;
    mutable std::mutex cacheLock_;
    mutable ExtentCache extent_;
    mutable std::atomic<bool> cacheValid_{false};
};
using StrandsPtr = std::shared_ptr<const StrandSet>;

}  // namespace corvelle
