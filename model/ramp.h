#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace corvelle {

/// A response curve over 0 to 1, such as a width profile from root to tip: keys (position, value)
/// sorted by position, joined straight or by a monotone cubic that never overshoots its keys
/// (Fritsch, Butland, "A method for constructing local monotone piecewise cubic interpolants",
/// SIAM J. Sci. Stat. Comput. 5(2), 1984).
class Ramp {
public:
    using Key = std::pair<float, float>;
    Ramp() = default;
    /// Sorts the keys by position, stably.
    explicit Ramp(std::vector<Key> keys, bool linear = false);

    /// 1 for an empty ramp; the end values outside the keys.
    float operator()(float x) const;
    /// out[i] for x[i], fastest where x ascends, as along a strand; the bits of the single form.
    /// `out` may be `x`.
    void sample(std::span<const float> x, std::span<float> out) const;
    const std::vector<Key>& keys() const { return keys_; }
    bool linear() const { return linear_; }
    /// True when every x gives `value`.
    bool isConstant(float value) const;
    /// The largest value the ramp takes (its keys bound it); 1 for an empty ramp.
    float maxValue() const;
    std::uint64_t hash() const;
    friend bool operator==(const Ramp&, const Ramp&) = default;

private:
    float withinSegment(std::size_t segment, float x) const;

    std::vector<Key> keys_;
    std::vector<float> tangents_;  ///< one per key; empty when linear
    bool linear_ = false;
};

}  // namespace corvelle
