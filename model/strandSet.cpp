#include "model/strandSet.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"

namespace corvelle {

namespace {

constexpr std::size_t kChunkShift = 11;
static_assert(kChunkStrands == std::size_t(1) << kChunkShift);

std::size_t chunkCountOf(std::size_t strands) {
    return (strands + kChunkStrands - 1) >> kChunkShift;
}

const Channel* find(const StrandSet::Channels& channels, std::string_view name) {
    const auto it = channels.find(name);
    return it == channels.end() ? nullptr : &it->second;
}

const std::vector<float>* valuesOf(const StrandSet::Channels& channels, std::string_view name) {
    const Channel* const channel = find(channels, name);
    return channel ? &channel->values.get() : nullptr;
}

float defaultOf(const StrandSet::Channels& channels, std::string_view name) {
    const Channel* const channel = find(channels, name);
    return channel ? channel->defaultValue : 0.0f;
}

std::vector<std::string> namesOf(const StrandSet::Channels& channels) {
    std::vector<std::string> names;
    names.reserve(channels.size());
    for (const auto& [name, channel] : channels) names.push_back(name);
    return names;
}

std::span<float> writableChannel(StrandSet::Channels& channels, std::string_view name,
                                 float defaultValue, std::size_t count, bool overwrite,
                                 std::mutex& lock) {
    const auto it = channels.find(name);
    if (it != channels.end())
        return overwrite ? it->second.values.reset(count, defaultValue, true, lock)
                         : it->second.values.writable(lock);
    Channel channel{.defaultValue = defaultValue};
    channel.values.reset(count, defaultValue, overwrite, lock);
    return channels.emplace(std::string(name), std::move(channel))
        .first->second.values.writable(lock);
}

void setDiscrete(StrandSet::Channels& channels, std::string_view name, bool discrete) {
    const auto it = channels.find(name);
    if (it != channels.end()) it->second.discrete = discrete;
}

bool removeFrom(StrandSet::Channels& channels, std::string_view name) {
    const auto it = channels.find(name);
    if (it == channels.end()) return false;
    channels.erase(it);
    return true;
}

bool copyChannel(StrandSet::Channels& to, const StrandSet::Channels& from, std::string_view name,
                 std::size_t count) {
    const Channel* const channel = find(from, name);
    if (!channel || channel->values.size() != count) return false;
    if (&to != &from) to.insert_or_assign(std::string(name), *channel);
    return true;
}

/// Channels of the same names and settings, each of `count` defaults.
StrandSet::Channels refilled(const StrandSet::Channels& channels, std::size_t count) {
    std::mutex lock;
    StrandSet::Channels out;
    for (const auto& [name, channel] : channels) {
        Channel fresh{.defaultValue = channel.defaultValue, .discrete = channel.discrete};
        fresh.values.reset(count, channel.defaultValue, false, lock);
        out.emplace(name, std::move(fresh));
    }
    return out;
}

/// Each strand's value at all its points, added behind `out`.
void spread(std::span<const float> perStrand, std::span<const std::uint64_t> offsets,
            std::vector<float>& out) {
    for (std::size_t s = 0; s < perStrand.size(); ++s)
        out.insert(out.end(), std::size_t(offsets[s + 1] - offsets[s]), perStrand[s]);
}

template <class T>
void extend(std::vector<T>& to, std::span<const T> by) {
    to.insert(to.end(), by.begin(), by.end());
}

/// Adds the layers of `from` that are not in `to` yet.
template <class Layer>
std::vector<std::shared_ptr<const Layer>> joined(
    std::vector<std::shared_ptr<const Layer>> to,
    const std::vector<std::shared_ptr<const Layer>>& from) {
    const std::size_t own = to.size();
    for (const auto& layer : from)
        if (std::find(to.begin(), to.begin() + std::ptrdiff_t(own), layer) ==
            to.begin() + std::ptrdiff_t(own))
            to.push_back(layer);
    return to;
}

template <class T>
bool sameValues(const SharedArray<T>& a, const SharedArray<T>& b) {
    return a.sharesWith(b) || a.get() == b.get();
}

bool pointsInto(std::span<const Vec3f> part, const std::vector<Vec3f>& whole) {
    const std::less<const Vec3f*> less;
    return !part.empty() && !less(part.data(), whole.data()) &&
           less(part.data(), whole.data() + whole.size());
}

bool pointsInto(std::span<const float> part, const std::vector<float>& whole) {
    const std::less<const float*> less;
    return !part.empty() && !less(part.data(), whole.data()) &&
           less(part.data(), whole.data() + whole.size());
}

StrandSet::Extent join(std::span<const StrandSet::Extent> parts) {
    StrandSet::Extent all;
    for (const StrandSet::Extent& part : parts) {
        all.min = componentMin(all.min, part.min);
        all.max = componentMax(all.max, part.max);
        all.longest = std::max(all.longest, part.longest);
        all.finite = all.finite && part.finite;
    }
    return all;
}

[[noreturn]] void layoutMismatch(const char* function) {
    throw std::invalid_argument(std::string(function) +
                                ": the other set has another number of points per strand, give "
                                "one of the same layout");
}

}  // namespace

// --- Life ------------------------------------------------------------------------------------

StrandSet::StrandSet() { offsets_.writable(arrayLock_).push_back(0); }

StrandSet::StrandSet(const StrandSet& other)
    : instances(other.instances),
      cards(other.cards),
      featherLayers(other.featherLayers),
      ids_(other.ids_),
      roots_(other.roots_),
      offsets_(other.offsets_),
      points_(other.points_),
      widths_(other.widths_),
      strandChannels_(other.strandChannels_),
      pointChannels_(other.pointChannels_),
      extent_(other.cachedExtent()),
      cacheValid_(extent_.whole != nullptr) {}

StrandSet::StrandSet(StrandSet&& other) : StrandSet() { swap(other); }

StrandSet& StrandSet::operator=(const StrandSet& other) {
    if (this != &other) {
        StrandSet copy(other);
        swap(copy);
    }
    return *this;
}

StrandSet& StrandSet::operator=(StrandSet&& other) {
    StrandSet taken(std::move(other));
    swap(taken);
    return *this;
}

StrandSet::~StrandSet() = default;

void StrandSet::swap(StrandSet& other) noexcept {
    instances.swap(other.instances);
    cards.swap(other.cards);
    featherLayers.swap(other.featherLayers);
    ids_.swap(other.ids_);
    roots_.swap(other.roots_);
    offsets_.swap(other.offsets_);
    points_.swap(other.points_);
    widths_.swap(other.widths_);
    strandChannels_.swap(other.strandChannels_);
    pointChannels_.swap(other.pointChannels_);
    std::swap(extent_, other.extent_);
    cacheValid_ = extent_.whole != nullptr;
    other.cacheValid_ = other.extent_.whole != nullptr;
}

std::size_t StrandSet::maxPointsPerStrand() const {
    std::size_t most = 0;
    for (std::size_t s = 0; s < strandCount(); ++s) most = std::max(most, pointCountOf(s));
    return most;
}

// --- Write access ----------------------------------------------------------------------------

std::span<std::uint64_t> StrandSet::mutableIds() { return ids_.writable(arrayLock_); }

std::span<StrandRoot> StrandSet::mutableRoots() { return roots_.writable(arrayLock_); }

std::span<std::uint64_t> StrandSet::mutableOffsets() {
    dropExtent();
    return offsets_.writable(arrayLock_);
}

std::span<Vec3f> StrandSet::mutablePoints() {
    dropExtent();
    return points_.writable(arrayLock_);
}

std::span<float> StrandSet::mutableWidths() { return widths_.writable(arrayLock_); }

std::span<Vec3f> StrandSet::overwritePoints() {
    dropExtent();
    return points_.reset(pointCount(), {}, true, arrayLock_);
}

std::span<float> StrandSet::overwriteWidths() {
    return widths_.reset(widths_.size(), 1.0f, true, arrayLock_);
}

void StrandSet::sharePoints(const StrandSet& from) {
    if (this == &from) return;
    if (!sameValues(offsets_, from.offsets_)) layoutMismatch("StrandSet::sharePoints");
    ExtentCache cache = from.cachedExtent();
    points_ = from.points_;
    const std::lock_guard guard(cacheLock_);
    extent_ = std::move(cache);
    cacheValid_ = extent_.whole != nullptr;
}

void StrandSet::shareWidths(const StrandSet& from) {
    if (this == &from) return;
    if (!sameValues(offsets_, from.offsets_)) layoutMismatch("StrandSet::shareWidths");
    widths_ = from.widths_;
}

void StrandSet::shareStrands(const StrandSet& from) {
    if (this == &from) return;
    if (strandCount() != from.strandCount()) layoutMismatch("StrandSet::shareStrands");
    ids_ = from.ids_;
    roots_ = from.roots_;
}

// --- Building --------------------------------------------------------------------------------

std::size_t StrandSet::addStrand(std::uint64_t id, std::span<const Vec3f> points,
                                 std::span<const float> widths, StrandRoot root) {
    if (!widths.empty() && widths.size() != points.size())
        throw std::invalid_argument("StrandSet::addStrand: widths must be empty or match points");
    // A strand of this very set may be given again: growing would pull it away under us.
    std::vector<Vec3f> ownPoints;
    if (pointsInto(points, points_.get())) {
        ownPoints.assign(points.begin(), points.end());
        points = ownPoints;
    }
    std::vector<float> ownWidths;
    if (pointsInto(widths, widths_.get())) {
        ownWidths.assign(widths.begin(), widths.end());
        widths = ownWidths;
    }
    // All that may throw comes first, and changes no content.
    const std::size_t n = points.size();
    std::vector<std::uint64_t>& toIds = ids_.growable(1, arrayLock_);
    std::vector<StrandRoot>& toRoots = roots_.growable(1, arrayLock_);
    std::vector<std::uint64_t>& toOffsets = offsets_.growable(1, arrayLock_);
    std::vector<Vec3f>& toPoints = points_.growable(n, arrayLock_);
    std::vector<float>& toWidths = widths_.growable(n, arrayLock_);
    for (auto& [name, channel] : strandChannels_) channel.values.growable(1, arrayLock_);
    for (auto& [name, channel] : pointChannels_) channel.values.growable(n, arrayLock_);

    dropExtent();
    toIds.push_back(id);
    toRoots.push_back(root);
    extend(toPoints, points);
    if (widths.empty())
        toWidths.insert(toWidths.end(), n, 1.0f);
    else
        extend(toWidths, widths);
    toOffsets.push_back(toPoints.size());
    for (auto& [name, channel] : strandChannels_)
        channel.values.writable(arrayLock_).push_back(channel.defaultValue);
    for (auto& [name, channel] : pointChannels_) {
        std::vector<float>& values = channel.values.writable(arrayLock_);
        values.insert(values.end(), n, channel.defaultValue);
    }
    return toIds.size() - 1;
}

void StrandSet::append(const StrandSet& other) {
    if (this == &other) return append(StrandSet(other));
    const std::size_t oldStrands = strandCount(), oldPoints = pointCount();
    const std::size_t newStrands = other.strandCount(), newPoints = other.pointCount();

    // All that may throw comes first, and changes no content: room, new channels, joined layers.
    std::vector<std::uint64_t>& toIds = ids_.growable(newStrands, arrayLock_);
    std::vector<StrandRoot>& toRoots = roots_.growable(newStrands, arrayLock_);
    std::vector<std::uint64_t>& toOffsets = offsets_.growable(newStrands, arrayLock_);
    std::vector<Vec3f>& toPoints = points_.growable(newPoints, arrayLock_);
    std::vector<float>& toWidths = widths_.growable(newPoints, arrayLock_);
    for (auto& [name, channel] : strandChannels_) channel.values.growable(newStrands, arrayLock_);
    for (auto& [name, channel] : pointChannels_) channel.values.growable(newPoints, arrayLock_);

    const auto created = [&](const Channel& theirs, std::size_t before, std::size_t after) {
        Channel channel{.defaultValue = theirs.defaultValue, .discrete = theirs.discrete};
        channel.values.growable(before + after, arrayLock_);
        return channel;
    };
    Channels newPointChannels, newStrandChannels;
    for (const auto& [name, theirs] : other.pointChannels_) {
        if (find(pointChannels_, name)) continue;
        Channel channel = created(theirs, oldPoints, newPoints);
        std::vector<float>& values = channel.values.writable(arrayLock_);
        const std::vector<float>* const perStrand = strandChannel(name);
        if (perStrand && perStrand->size() == oldStrands)
            spread(*perStrand, offsets(), values);
        else
            values.assign(oldPoints, theirs.defaultValue);
        extend(values, theirs.values.span());
        newPointChannels.emplace(name, std::move(channel));
    }
    for (const auto& [name, theirs] : other.strandChannels_) {
        if (find(strandChannels_, name)) continue;
        Channel channel = created(theirs, oldStrands, newStrands);
        std::vector<float>& values = channel.values.writable(arrayLock_);
        values.assign(oldStrands, theirs.defaultValue);
        extend(values, theirs.values.span());
        newStrandChannels.emplace(name, std::move(channel));
    }
    std::shared_ptr<const InstanceSet> newInstances = instances;
    if (other.instances && other.instances != instances)
        newInstances = instances ? instances->joinedWith(*other.instances) : other.instances;
    auto newCards = joined(cards, other.cards);
    auto newLayers = joined(featherLayers, other.featherLayers);

    dropExtent();
    extend(toIds, other.ids());
    extend(toRoots, other.roots());
    for (const std::uint64_t offset : other.offsets().subspan(1))
        toOffsets.push_back(oldPoints + offset);
    extend(toPoints, other.points());
    extend(toWidths, other.widths());
    for (auto& [name, channel] : pointChannels_) {
        std::vector<float>& values = channel.values.writable(arrayLock_);
        const std::vector<float>* const perStrand = other.strandChannel(name);
        if (const std::vector<float>* const theirs = other.pointChannel(name))
            extend(values, std::span<const float>(*theirs));
        else if (perStrand && perStrand->size() == newStrands)
            spread(*perStrand, other.offsets(), values);
        else
            values.insert(values.end(), newPoints, channel.defaultValue);
    }
    for (auto& [name, channel] : strandChannels_) {
        std::vector<float>& values = channel.values.writable(arrayLock_);
        if (const std::vector<float>* const theirs = other.strandChannel(name))
            extend(values, std::span<const float>(*theirs));
        else
            values.insert(values.end(), newStrands, channel.defaultValue);
    }
    pointChannels_.merge(newPointChannels);
    strandChannels_.merge(newStrandChannels);
    instances = std::move(newInstances);
    cards = std::move(newCards);
    featherLayers = std::move(newLayers);
}

void StrandSet::reserve(std::size_t strands, std::size_t points) {
    ids_.writable(arrayLock_).reserve(strands);
    roots_.writable(arrayLock_).reserve(strands);
    offsets_.writable(arrayLock_).reserve(strands + 1);
    points_.writable(arrayLock_).reserve(points);
    widths_.writable(arrayLock_).reserve(points);
}

void StrandSet::clear() {
    StrandSet empty;
    empty.strandChannels_ = refilled(strandChannels_, 0);
    empty.pointChannels_ = refilled(pointChannels_, 0);
    swap(empty);
}

void StrandSet::layOut(std::span<const std::uint64_t> counts) {
    std::vector<std::uint64_t>& table = offsets_.reset(counts.size() + 1, 0, true, arrayLock_);
    table[0] = 0;
    for (std::size_t s = 0; s < counts.size(); ++s) table[s + 1] = table[s] + counts[s];
}

void StrandSet::allocate(std::span<const std::uint64_t> counts, unsigned flags) {
    StrandSet fresh;
    fresh.layOut(counts);
    allocateInto(fresh, flags);
}

void StrandSet::allocateFor(const StrandSet& strands, std::span<const std::uint64_t> counts,
                            unsigned flags) {
    if (counts.size() != strands.strandCount()) layoutMismatch("StrandSet::allocateFor");
    StrandSet fresh;
    fresh.layOut(counts);
    allocateInto(fresh, flags, &strands);
}

void StrandSet::allocateUniform(std::size_t strands, std::size_t pointsPerStrand, unsigned flags) {
    StrandSet fresh;
    std::uint64_t* const toOffsets = fresh.offsets_.reset(strands + 1, 0, true, arrayLock_).data();
    parallelRange(0, strands + 1, kChunkElements, [=](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) toOffsets[s] = s * pointsPerStrand;
    });
    allocateInto(fresh, flags);
}

void StrandSet::allocateInto(StrandSet& fresh, unsigned flags, const StrandSet* strandsOf) {
    const std::size_t strands = fresh.offsets_.size() - 1;
    const std::size_t total = std::size_t(fresh.offsets_.get().back());
    if (strandsOf) {
        fresh.ids_ = strandsOf->ids_;
        fresh.roots_ = strandsOf->roots_;
    } else {
        fresh.ids_.reset(strands, 0, false, arrayLock_);
        fresh.roots_.reset(strands, {}, false, arrayLock_);
    }
    fresh.points_.reset(total, {}, (flags & kLeavePoints) != 0, arrayLock_);
    fresh.widths_.reset(total, 1.0f, (flags & kLeaveWidths) != 0, arrayLock_);
    fresh.strandChannels_ = refilled(strandChannels_, strands);
    fresh.pointChannels_ = refilled(pointChannels_, total);
    fresh.instances = instances;
    fresh.cards = cards;
    fresh.featherLayers = featherLayers;
    swap(fresh);
}

// --- Channels --------------------------------------------------------------------------------

const std::vector<float>* StrandSet::strandChannel(std::string_view name) const {
    return valuesOf(strandChannels_, name);
}
const std::vector<float>* StrandSet::pointChannel(std::string_view name) const {
    return valuesOf(pointChannels_, name);
}
float StrandSet::strandChannelDefault(std::string_view name) const {
    return defaultOf(strandChannels_, name);
}
float StrandSet::pointChannelDefault(std::string_view name) const {
    return defaultOf(pointChannels_, name);
}
std::vector<std::string> StrandSet::strandChannelNames() const { return namesOf(strandChannels_); }
std::vector<std::string> StrandSet::pointChannelNames() const { return namesOf(pointChannels_); }

std::span<float> StrandSet::mutableStrandChannel(std::string_view name, float defaultValue) {
    return writableChannel(strandChannels_, name, defaultValue, strandCount(), false, arrayLock_);
}
std::span<float> StrandSet::mutablePointChannel(std::string_view name, float defaultValue) {
    return writableChannel(pointChannels_, name, defaultValue, pointCount(), false, arrayLock_);
}
std::span<float> StrandSet::overwriteStrandChannel(std::string_view name, float defaultValue) {
    return writableChannel(strandChannels_, name, defaultValue, strandCount(), true, arrayLock_);
}
std::span<float> StrandSet::overwritePointChannel(std::string_view name, float defaultValue) {
    return writableChannel(pointChannels_, name, defaultValue, pointCount(), true, arrayLock_);
}
void StrandSet::setStrandChannelDiscrete(std::string_view name, bool discrete) {
    setDiscrete(strandChannels_, name, discrete);
}
void StrandSet::setPointChannelDiscrete(std::string_view name, bool discrete) {
    setDiscrete(pointChannels_, name, discrete);
}
bool StrandSet::removeStrandChannel(std::string_view name) {
    return removeFrom(strandChannels_, name);
}
bool StrandSet::removePointChannel(std::string_view name) {
    return removeFrom(pointChannels_, name);
}
bool StrandSet::copyStrandChannel(std::string_view name, const StrandSet& from) {
    return copyChannel(strandChannels_, from.strandChannels_, name, strandCount());
}
bool StrandSet::copyPointChannel(std::string_view name, const StrandSet& from) {
    return copyChannel(pointChannels_, from.pointChannels_, name, pointCount());
}

// --- Parts of the set ------------------------------------------------------------------------

StrandSet StrandSet::subset(std::span<const std::uint32_t> indices) const {
    const std::size_t strands = strandCount(), count = indices.size();
    bool everyStrand = count == strands;
    for (std::size_t k = 0; k < count; ++k) {
        if (indices[k] >= strands)
            throw std::invalid_argument("StrandSet::subset: strand " + std::to_string(indices[k]) +
                                        " of " + std::to_string(strands) +
                                        ", give indices below the strand count");
        everyStrand = everyStrand && indices[k] == k;
    }
    if (everyStrand) return *this;

    StrandSet out;
    std::vector<std::uint64_t>& toOffsets = out.offsets_.reset(count + 1, 0, true, arrayLock_);
    toOffsets[0] = 0;
    for (std::size_t k = 0; k < count; ++k)
        toOffsets[k + 1] = toOffsets[k] + pointCountOf(indices[k]);
    const std::size_t total = std::size_t(toOffsets[count]);

    struct Copied {
        const float* from;
        float* to;
    };
    const auto channelsOf = [&](const Channels& from, std::size_t size, Channels& to) {
        std::vector<Copied> copies;
        copies.reserve(from.size());
        for (const auto& [name, channel] : from) {
            Channel fresh{.defaultValue = channel.defaultValue, .discrete = channel.discrete};
            float* const data = fresh.values.reset(size, 0.0f, true, arrayLock_).data();
            to.emplace(name, std::move(fresh));
            copies.push_back({channel.values.get().data(), data});
        }
        return copies;
    };
    const std::vector<Copied> perStrand = channelsOf(strandChannels_, count, out.strandChannels_);
    const std::vector<Copied> perPoint = channelsOf(pointChannels_, total, out.pointChannels_);
    std::uint64_t* const toIds = out.ids_.reset(count, 0, true, arrayLock_).data();
    StrandRoot* const toRoots = out.roots_.reset(count, {}, true, arrayLock_).data();
    Vec3f* const toPoints = out.points_.reset(total, {}, true, arrayLock_).data();
    float* const toWidths = out.widths_.reset(total, 0.0f, true, arrayLock_).data();

    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        while (begin < end) {  // runs of neighbours are copied in one piece
            std::size_t stop = begin + 1;
            while (stop < end && indices[stop] == indices[stop - 1] + 1) ++stop;
            const std::size_t n = stop - begin, strand = indices[begin];
            std::copy_n(ids().data() + strand, n, toIds + begin);
            std::copy_n(roots().data() + strand, n, toRoots + begin);
            for (const Copied& c : perStrand) std::copy_n(c.from + strand, n, c.to + begin);
            const std::size_t from = std::size_t(offsets()[strand]);
            const std::size_t m = std::size_t(offsets()[strand + n]) - from;
            const std::size_t to = std::size_t(toOffsets[begin]);
            std::copy_n(points().data() + from, m, toPoints + to);
            std::copy_n(widths().data() + from, m, toWidths + to);
            for (const Copied& c : perPoint) std::copy_n(c.from + from, m, c.to + to);
            begin = stop;
        }
    });
    out.instances = instances;
    out.cards = cards;
    out.featherLayers = featherLayers;
    return out;
}

StrandSet StrandSet::thinned(float fraction) const {
    const std::size_t strands = strandCount(), chunks = chunkCountOf(strands);
    std::vector<std::uint32_t> kept(strands);
    std::vector<std::size_t> counts(chunks);
    parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            const std::size_t first = c << kChunkShift;
            const std::size_t last = std::min(strands, first + kChunkStrands);
            std::size_t n = 0;
            for (std::size_t s = first; s < last; ++s) {
                kept[first + n] = std::uint32_t(s);
                n += fraction > unitHash(ids()[s]);
            }
            counts[c] = n;
        }
    });
    std::size_t total = 0;
    for (std::size_t c = 0; c < chunks; ++c) {
        const auto first = kept.begin() + std::ptrdiff_t(c << kChunkShift);
        std::copy_n(first, counts[c], kept.begin() + std::ptrdiff_t(total));
        total += counts[c];
    }
    kept.resize(total);
    return subset(kept);
}

// --- Extent ----------------------------------------------------------------------------------

void StrandSet::dropExtent() {
    if (!cacheValid_.load(std::memory_order_acquire)) return;
    const std::lock_guard guard(cacheLock_);
    cacheValid_.store(false, std::memory_order_release);
    extent_ = {};
}

StrandSet::ExtentCache StrandSet::cachedExtent() const {
    if (!cacheValid_.load(std::memory_order_acquire)) return {};
    const std::lock_guard guard(cacheLock_);
    return extent_;
}

StrandSet::Extent StrandSet::storeExtent(std::vector<Extent> chunks) const {
    const Extent all = join(chunks);
    ExtentCache cache{.whole = std::make_shared<const Extent>(all),
                      .chunks = std::make_shared<const std::vector<Extent>>(std::move(chunks))};
    const std::lock_guard guard(cacheLock_);
    std::swap(extent_, cache);
    cacheValid_.store(true, std::memory_order_release);
    return all;
}

StrandSet::Extent StrandSet::chunkExtent(std::size_t chunk) const {
    const std::size_t first = chunk << kChunkShift;
    const std::size_t last = std::min(strandCount(), first + kChunkStrands);
    Extent extent;
    float notNumbers = 0.0f;  // x - x is 0 for a real number, NaN otherwise
    for (std::size_t s = first; s < last; ++s) {
        const std::span<const Vec3f> strand = pointsOf(s);
        for (const Vec3f p : strand) {
            extent.min = componentMin(extent.min, p);
            extent.max = componentMax(extent.max, p);
            notNumbers += p.x - p.x + p.y - p.y + p.z - p.z;
        }
        extent.longest = std::max(extent.longest, polylineLength(strand));
    }
    extent.finite = notNumbers == 0.0f;
    return extent;
}

StrandSet::Extent StrandSet::extent() const {
    if (const ExtentCache cache = cachedExtent(); cache.whole) return *cache.whole;
    std::vector<Extent> chunks(chunkCountOf(strandCount()));
    parallelRange(0, chunks.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) chunks[c] = chunkExtent(c);
    });
    return storeExtent(std::move(chunks));
}

StrandSet::Extent StrandSet::extentAfter(const StrandSet& previous,
                                         std::span<const std::uint32_t> changedStrands) const {
    if (const ExtentCache own = cachedExtent(); own.whole) return *own.whole;
    const ExtentCache before = previous.cachedExtent();
    const std::size_t count = chunkCountOf(strandCount());
    if (!before.chunks || before.chunks->size() != count || pointCount() != previous.pointCount() ||
        !sameValues(offsets_, previous.offsets_))
        return extent();

    std::vector<std::size_t> changed;
    for (const std::uint32_t strand : changedStrands) {
        if (strand >= strandCount()) return extent();
        const std::size_t chunk = strand >> kChunkShift;
        if (changed.empty() || changed.back() != chunk) changed.push_back(chunk);
    }
    if (!std::is_sorted(changed.begin(), changed.end())) {
        std::sort(changed.begin(), changed.end());
        changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
    }
    std::vector<Extent> chunks = *before.chunks;
    parallelRange(0, changed.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) chunks[changed[i]] = chunkExtent(changed[i]);
    });
    return storeExtent(std::move(chunks));
}

// --- Comparing and checking --------------------------------------------------------------------

bool StrandSet::sameLayout(const StrandSet& other) const {
    return sameValues(ids_, other.ids_) && sameValues(offsets_, other.offsets_);
}

std::uint64_t StrandSet::contentHash() const {
    std::uint64_t h = mix64(strandCount());
    for (std::size_t s = 0; s < strandCount(); ++s) {
        const StrandRoot& root = roots()[s];
        h = hashCombine(hashCombine(h, ids()[s]), offsets()[s + 1]);
        h = hashCombine(hashCombine(hashCombine(h, root.triangle), root.u), root.v);
    }
    for (const Vec3f p : points()) h = hashCombine(hashCombine(hashCombine(h, p.x), p.y), p.z);
    for (const float width : widths()) h = hashCombine(h, width);
    for (const Channels* const channels : {&strandChannels_, &pointChannels_})
        for (const auto& [name, channel] : *channels) {
            h = hashCombine(h, name);
            for (const float value : channel.values.span()) h = hashCombine(h, value);
        }
    if (instances) h = hashCombine(h, instances->contentHash());
    return h;
}

bool StrandSet::validate(std::string* error) const {
    const auto broken = [&](std::string what) {
        if (error) *error = std::move(what);
        return false;
    };
    const std::span<const std::uint64_t> table = offsets();
    if (table.size() != strandCount() + 1) return broken("offsets size must be strandCount + 1");
    if (roots().size() != strandCount()) return broken("roots size must equal strandCount");
    if (table.front() != 0) return broken("offsets must start at 0");
    if (table.back() != pointCount()) return broken("last offset must equal pointCount");
    if (!std::is_sorted(table.begin(), table.end()))
        return broken("offsets must be non-decreasing");
    if (widths().size() != pointCount()) return broken("widths size must equal pointCount");
    for (const auto& [name, channel] : strandChannels_)
        if (channel.values.size() != strandCount())
            return broken("strand channel '" + name + "' has wrong size");
    for (const auto& [name, channel] : pointChannels_)
        if (channel.values.size() != pointCount())
            return broken("point channel '" + name + "' has wrong size");
    return true;
}

void StrandSet::forEachArray(const std::function<void(const void*, std::size_t)>& visit) const {
    const auto tell = [&]<class T>(const SharedArray<T>& array) {
        visit(array.identity(), array.size() * sizeof(T));
    };
    tell(ids_);
    tell(roots_);
    tell(offsets_);
    tell(points_);
    tell(widths_);
    for (const auto& [name, channel] : strandChannels_) tell(channel.values);
    for (const auto& [name, channel] : pointChannels_) tell(channel.values);
}

std::size_t StrandSet::byteSize() const {
    std::size_t bytes = 0;
    forEachArray([&](const void*, std::size_t size) { bytes += size; });
    return bytes;
}

}  // namespace corvelle
