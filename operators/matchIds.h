#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace corvelle {

inline constexpr std::uint32_t kNoMatch = 0xffffffffu;

/// For each of `ids` where it stands in `among`, kNoMatch where it does not; empty when both lists
/// are equal. Of ids that stand there twice one is taken, always the same one.
/// Cost: O(n + m) when the common ids come in one order, as culling and splitting leave them; else
///       a sort of each list.
std::vector<std::uint32_t> matchIds(std::span<const std::uint64_t> ids,
                                    std::span<const std::uint64_t> among);

}  // namespace corvelle
