#include "operators/matchIds.h"

#include <algorithm>
#include <numeric>

namespace corvelle {

namespace {

/// Both lists in one walk; false when an id of `few` does not come after the one before it.
bool matchInOrder(std::span<const std::uint64_t> ids, std::span<const std::uint64_t> among,
                  std::vector<std::uint32_t>& out) {
    const bool fewer = ids.size() <= among.size();
    const auto few = fewer ? ids : among, many = fewer ? among : ids;
    std::size_t at = 0;
    for (std::size_t i = 0; i < few.size(); ++i, ++at) {
        while (at < many.size() && many[at] != few[i]) ++at;
        if (at == many.size()) return false;
        if (fewer)
            out[i] = std::uint32_t(at);
        else
            out[at] = std::uint32_t(i);
    }
    return true;
}

std::vector<std::uint32_t> sortedOrder(std::span<const std::uint64_t> ids) {
    std::vector<std::uint32_t> order(ids.size());
    std::iota(order.begin(), order.end(), 0u);
    std::ranges::sort(order, [&](std::uint32_t a, std::uint32_t b) {
        return ids[a] != ids[b] ? ids[a] < ids[b] : a < b;
    });
    return order;
}

}  // namespace

std::vector<std::uint32_t> matchIds(std::span<const std::uint64_t> ids,
                                    std::span<const std::uint64_t> among) {
    if (ids.data() == among.data() && ids.size() == among.size()) return {};
    if (std::ranges::equal(ids, among)) return {};
    std::vector<std::uint32_t> out(ids.size(), kNoMatch);
    if (matchInOrder(ids, among, out)) return out;
    std::ranges::fill(out, kNoMatch);
    const std::vector<std::uint32_t> mine = sortedOrder(ids), theirs = sortedOrder(among);
    std::size_t at = 0;
    for (const std::uint32_t i : mine) {
        while (at < theirs.size() && among[theirs[at]] < ids[i]) ++at;
        if (at < theirs.size() && among[theirs[at]] == ids[i]) out[i] = theirs[at];
    }
    return out;
}

}  // namespace corvelle
