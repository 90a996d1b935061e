#include "graph/spareStrands.h"

#include <algorithm>

#include "model/parallel.h"

namespace corvelle {

namespace {

/// Copies the values of the listed strands: one each, or those of their points.
template <class T>
void copyStrands(std::span<const T> from, std::span<T> to, std::span<const std::uint32_t> strands,
                 std::span<const std::uint64_t> offsets) {
    const bool perPoint = !offsets.empty();
    parallelRange(0, strands.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = strands[i];
            const std::size_t first = perPoint ? std::size_t(offsets[s]) : s;
            const std::size_t last = perPoint ? std::size_t(offsets[s + 1]) : s + 1;
            std::copy(from.begin() + std::ptrdiff_t(first), from.begin() + std::ptrdiff_t(last),
                      to.begin() + std::ptrdiff_t(first));
        }
    });
}

}  // namespace

SpareStrands::SpareStrands(const StrandSet& old, const StrandSet& current,
                           std::unordered_set<const void*>& taken)
    : spare_(old) {
    const auto free = [&](const void* array) { return taken.insert(array).second; };
    if (!free(spare_.points().data())) spare_.sharePoints(current);
    if (!free(spare_.widths().data())) spare_.shareWidths(current);
    for (const auto& [name, channel] : old.strandChannels())
        if (!free(channel.values.identity()) && !spare_.copyStrandChannel(name, current))
            spare_.removeStrandChannel(name);
    for (const auto& [name, channel] : old.pointChannels())
        if (!free(channel.values.identity()) && !spare_.copyPointChannel(name, current))
            spare_.removePointChannel(name);
    spare_.instances.reset();
    spare_.cards.clear();
    spare_.featherLayers.clear();
}

StrandSet SpareStrands::equalTo(const StrandSet& current, std::span<const std::uint32_t> changed) {
    StrandSet out = current;
    const std::span<const std::uint64_t> offsets = current.offsets();
    if (!spare_.sharesPoints(current)) {
        copyStrands(current.points(), spare_.mutablePoints(), changed, offsets);
        out.sharePoints(spare_);
    }
    if (!spare_.sharesWidths(current)) {
        copyStrands(current.widths(), spare_.mutableWidths(), changed, offsets);
        out.shareWidths(spare_);
    }
    for (const auto& [name, channel] : current.strandChannels()) {
        const auto held = spare_.strandChannels().find(name);
        if (held == spare_.strandChannels().end() || held->second.values.sharesWith(channel.values))
            continue;
        copyStrands(channel.values.span(), spare_.mutableStrandChannel(name, channel.defaultValue),
                    changed, {});
        out.copyStrandChannel(name, spare_);
        out.setStrandChannelDiscrete(name, channel.discrete);
    }
    for (const auto& [name, channel] : current.pointChannels()) {
        const auto held = spare_.pointChannels().find(name);
        if (held == spare_.pointChannels().end() || held->second.values.sharesWith(channel.values))
            continue;
        copyStrands(channel.values.span(), spare_.mutablePointChannel(name, channel.defaultValue),
                    changed, offsets);
        out.copyPointChannel(name, spare_);
        out.setPointChannelDiscrete(name, channel.discrete);
    }
    spare_ = StrandSet();
    return out;
}

}  // namespace corvelle
