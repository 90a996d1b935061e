#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>

namespace corvelle {

/// Grains in use: loops over strands, and loops over chunks.
inline constexpr std::size_t kStrandGrain = 256;
inline constexpr std::size_t kChunkStrands = 2048;    ///< strands of one reduction chunk
inline constexpr std::size_t kChunkElements = 65536;  ///< array elements of one fill or copy chunk

namespace detail {
using RangeBody = void (*)(void* context, std::size_t begin, std::size_t end);
/// Calls `body` over a partition of [begin, end) on the worker threads. A plain function and a
/// context, so that all loops share one scheduler instantiation. The first exception of a body is
/// rethrown to the caller. Hold no mutex across a call.
void parallelRange(std::size_t begin, std::size_t end, std::size_t grain, RangeBody body,
                   void* context);
void runWithThreads(unsigned count, void (*function)(void* context), void* context);
/// What a text such as the value of CORVELLE_THREADS asks for: 0, the default, when it is null,
/// empty or not a decimal number from end to end.
unsigned parseThreadLimit(const char* text);
}  // namespace detail

/// Runs `body(subBegin, subEnd)` over a partition of [begin, end), serially when the range holds no
/// more than `grain` elements. How the range is cut is not fixed: a result must not depend on it.
template <class Body>
void parallelRange(std::size_t begin, std::size_t end, std::size_t grain, Body&& body) {
    if (begin >= end) return;
    if (end - begin <= (grain > 1 ? grain : 1)) return body(begin, end);
    using Plain = std::remove_reference_t<Body>;
    detail::parallelRange(
        begin, end, grain,
        [](void* context, std::size_t b, std::size_t e) { (*static_cast<Plain*>(context))(b, e); },
        const_cast<void*>(static_cast<const void*>(std::addressof(body))));
}

/// The process-wide thread limit: 0, or at or above the hardware's concurrency, means all cores.
/// The first value comes from the environment variable CORVELLE_THREADS (a whole decimal number,
/// else 0). Safe while loops run: they keep the arena they began with.
void setThreadLimit(unsigned count);

/// Runs `function()` with at most `count` threads in its loops (0: no limit of its own).
template <class Function>
void runWithThreads(unsigned count, Function&& function) {
    using Plain = std::remove_reference_t<Function>;
    detail::runWithThreads(
        count, [](void* context) { (*static_cast<Plain*>(context))(); },
        const_cast<void*>(static_cast<const void*>(std::addressof(function))));
}

}  // namespace corvelle
