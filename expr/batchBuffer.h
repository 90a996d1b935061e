#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

namespace corvelle {

/// Room for one batch on the stack, left unwritten: a batch of one must not pay for clearing many.
template <class T, std::size_t N>
class BatchBuffer {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
    std::span<T> first(std::size_t count) { return {reinterpret_cast<T*>(bytes_), count}; }

private:
    alignas(T) std::byte bytes_[N * sizeof(T)];
};

/// Whether each index is one more than the one before, so that arrays may be read in place. Written
/// without a way out of the loop, which lets it be vectorised.
inline bool isRun(std::span<const std::uint32_t> indices) {
    std::uint32_t differences = 0;  // empty: a run
    for (std::size_t i = 0; i < indices.size(); ++i)
        differences |= indices[i] ^ (indices[0] + std::uint32_t(i));
    return differences == 0;
}

}  // namespace corvelle
