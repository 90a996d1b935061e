#include "graph/strandDiff.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "model/parallel.h"

namespace corvelle {

namespace {

/// How many strands the fixed sample looks at, and from how many differing ones on it gives up.
constexpr std::size_t kSample = 128;
constexpr std::size_t kSampleGivesUp = kSample / 2;

bool sameChannelNames(const StrandSet::Channels& a, const StrandSet::Channels& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
        return x.first == y.first && x.second.discrete == y.second.discrete &&
               std::bit_cast<std::uint32_t>(x.second.defaultValue) ==
                   std::bit_cast<std::uint32_t>(y.second.defaultValue);
    });
}

template <class T>
const std::byte* bytes(std::span<const T> values) {
    return reinterpret_cast<const std::byte*>(values.data());
}

}  // namespace

std::optional<StrandPairs> StrandPairs::of(const StrandSet& a, const StrandSet& b) {
    if (!a.sameLayout(b) || !sameChannelNames(a.strandChannels(), b.strandChannels()) ||
        !sameChannelNames(a.pointChannels(), b.pointChannels()) || a.instances != b.instances ||
        a.cards != b.cards || a.featherLayers != b.featherLayers)
        return std::nullopt;
    StrandPairs pairs;
    pairs.offsets_ = a.offsets();
    const auto add = [](std::vector<Pair>& list, auto x, auto y) {
        if (x.data() != y.data()) list.push_back({bytes(x), bytes(y), sizeof(x[0])});
    };
    add(pairs.perStrand_, a.roots(), b.roots());
    add(pairs.perPoint_, a.points(), b.points());
    add(pairs.perPoint_, a.widths(), b.widths());
    const auto addChannels = [&](std::vector<Pair>& list, const StrandSet::Channels& x,
                                 const StrandSet::Channels& y) {
        for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j)
            add(list, i->second.values.span(), j->second.values.span());
    };
    addChannels(pairs.perStrand_, a.strandChannels(), b.strandChannels());
    addChannels(pairs.perPoint_, a.pointChannels(), b.pointChannels());
    return pairs;
}

bool StrandPairs::strandDiffers(std::size_t strand) const {
    for (const Pair& p : perStrand_)
        if (std::memcmp(p.a + strand * p.size, p.b + strand * p.size, p.size) != 0) return true;
    const std::size_t begin = std::size_t(offsets_[strand]);
    const std::size_t count = std::size_t(offsets_[strand + 1]) - begin;
    for (const Pair& p : perPoint_)
        if (std::memcmp(p.a + begin * p.size, p.b + begin * p.size, count * p.size) != 0)
            return true;
    return false;
}

StrandChangesPtr noChanges() {
    static const StrandChangesPtr& none = *new StrandChangesPtr(std::make_shared<StrandChanges>());
    return none;
}

StrandChangesPtr strandDiff(const StrandSet& before, const StrandSet& after) {
    if (&before == &after) return noChanges();
    const std::optional<StrandPairs> pairs = StrandPairs::of(before, after);
    if (!pairs) return nullptr;
    if (pairs->allShared()) return noChanges();
    const std::size_t count = before.strandCount();
    if (count > 4 * kSample) {
        std::size_t differing = 0;
        for (std::size_t i = 0; i < kSample; ++i)
            differing += pairs->strandDiffers(i * count / kSample);
        if (differing >= kSampleGivesUp) return nullptr;
    }
    const std::size_t chunks = (count + kChunkStrands - 1) / kChunkStrands;
    std::vector<std::vector<std::uint32_t>> found(chunks);
    parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c)
            for (std::size_t s = c * kChunkStrands; s < std::min(count, (c + 1) * kChunkStrands);
                 ++s)
                if (pairs->strandDiffers(s)) found[c].push_back(std::uint32_t(s));
    });
    auto changes = std::make_shared<StrandChanges>();
    for (const auto& part : found)
        changes->strands.insert(changes->strands.end(), part.begin(), part.end());
    return changes;
}

StrandChangesPtr guideDiff(const GuideSet& before, const GuideSet& after) {
    if (&before == &after) return noChanges();
    if (!std::ranges::equal(before.ids(), after.ids())) return nullptr;
    auto changes = std::make_shared<StrandChanges>();
    for (std::size_t g = 0; g < before.size(); ++g)
        if (before.hashes()[g] != after.hashes()[g]) changes->strands.push_back(std::uint32_t(g));
    return changes;
}

StrandChangesPtr valueDiff(const NodeValue& before, const NodeValue& after) {
    if (before.index() != after.index()) return nullptr;
    if (before == after) return noChanges();
    if (const auto* a = std::get_if<StrandsPtr>(&before)) {
        const auto& b = std::get<StrandsPtr>(after);
        return *a && b ? strandDiff(**a, *b) : nullptr;
    }
    if (const auto* a = std::get_if<GuidesPtr>(&before)) {
        const auto& b = std::get<GuidesPtr>(after);
        return *a && b ? guideDiff(**a, *b) : nullptr;
    }
    return nullptr;
}

StrandChangesPtr unite(const StrandChangesPtr& a, const StrandChangesPtr& b) {
    if (!isList(a) || !isList(b)) return nullptr;
    if (a->strands.empty() || a == b) return b;
    if (b->strands.empty()) return a;
    auto both = std::make_shared<StrandChanges>();
    std::set_union(a->strands.begin(), a->strands.end(), b->strands.begin(), b->strands.end(),
                   std::back_inserter(both->strands));
    return both;
}

}  // namespace corvelle
