#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "io/jsonScan.h"
#include "model/parallel.h"

namespace corvelle {

// Long arrays of numbers as text, both ways, in parallel: without a JSON node for each of them.

/// Calls `print(i, text)` for i in [0, count), each time with a text to append to, and appends them
/// to `out` in order. `print` must not throw. `grain`: calls worth a task.
template <class Print>
void appendInOrder(std::string& out, std::size_t count, std::size_t grain, const Print& print) {
    // In waves, so that the pieces never hold more than a share of the whole.
    constexpr std::size_t kWave = 64;
    std::vector<std::string> pieces;
    for (std::size_t first = 0; first < count; first += kWave * grain) {
        const std::size_t chunks = (std::min(count - first, kWave * grain) + grain - 1) / grain;
        if (chunks == 1) {
            for (std::size_t i = first; i < count; ++i) print(i, out);
            return;
        }
        pieces.resize(chunks);
        parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                pieces[c].clear();
                const std::size_t last = std::min(first + (c + 1) * grain, count);
                for (std::size_t i = first + c * grain; i < last; ++i) print(i, pieces[c]);
            }
        });
        for (const std::string& piece : pieces) out += piece;
    }
}

/// Index of the first value that is not finite; the count for none.
std::size_t firstNonFinite(std::span<const float> values);

/// "[1,0.5,-0.0]": floats as `appendFloat32` prints them. All must be finite.
void appendFloatArray(std::string& out, std::span<const float> values);
void appendIntArray(std::string& out, std::span<const std::int32_t> values);
void appendIntArray(std::string& out, std::span<const std::uint32_t> values);

/// An array of a checked text that is to be read as numbers.
struct NumberArray {
    JsonScan::Span text;
    std::size_t count = 0;  ///< of its elements, whatever they are
};
/// `array` is an array's span of `scan`. Cost: a search for commas, as fast as memory.
NumberArray numberArray(const JsonScan& scan, JsonScan::Span array);

/// What stands in the way of an array of numbers: the first such thing in it.
enum class NumberFault { None, NotANumber, OutOfRange };

/// Reads `array.count` values, each as a double that is then narrowed; null reads as 0.
NumberFault readNumbers(const NumberArray& array, float* out);
/// The same in whole numbers: fractions are cut off, and null is not a number.
NumberFault readNumbers(const NumberArray& array, std::int32_t* out);

}  // namespace corvelle
