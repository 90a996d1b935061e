#pragma once

#include <bit>
#include <cstdint>
#include <string_view>

namespace corvelle {

// The one hash family of the engine. Every random draw of a groom is a pure function of seeds and
// stable ids through these, so their values are frozen: changing one changes every groom ever made.
// All arithmetic wraps on 64-bit unsigned integers.

/// The golden-ratio increment of SplitMix64.
inline constexpr std::uint64_t kGoldenGamma = 0x9e3779b97f4a7c15u;

/// The finaliser of SplitMix64 (Steele, Lea, Flood, "Fast Splittable Pseudorandom Number
/// Generators", OOPSLA 2014) over `x` plus one increment.
constexpr std::uint64_t mix64(std::uint64_t x) {
    std::uint64_t z = x + kGoldenGamma;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
}

/// The unmixed combination: `mix64(combineRaw(h, v))` is `hashCombine(h, v)`.
constexpr std::uint64_t combineRaw(std::uint64_t h, std::uint64_t v) {
    return ((h << 6) + (h >> 2) + kGoldenGamma + v) ^ h;
}
constexpr std::uint64_t hashCombine(std::uint64_t h, std::uint64_t v) {
    return mix64(combineRaw(h, v));
}
constexpr std::uint64_t hashCombine(std::uint64_t h, std::int64_t v) {
    return hashCombine(h, static_cast<std::uint64_t>(v));
}
constexpr std::uint64_t hashCombine(std::uint64_t h, std::int32_t v) {  // sign-extended
    return hashCombine(h, static_cast<std::uint64_t>(static_cast<std::int64_t>(v)));
}
constexpr std::uint64_t hashCombine(std::uint64_t h, std::uint32_t v) {
    return hashCombine(h, static_cast<std::uint64_t>(v));
}
constexpr std::uint64_t hashCombine(std::uint64_t h, bool v) {
    return hashCombine(h, static_cast<std::uint64_t>(v ? 1 : 0));
}
constexpr std::uint64_t hashCombine(std::uint64_t h, float v) {  // by bit pattern, zero-extended
    return hashCombine(h, static_cast<std::uint64_t>(std::bit_cast<std::uint32_t>(v)));
}
constexpr std::uint64_t hashCombine(std::uint64_t h, double v) {  // by bit pattern
    return hashCombine(h, std::bit_cast<std::uint64_t>(v));
}
/// One hashCombine per byte, each byte unsigned, in order.
constexpr std::uint64_t hashCombine(std::uint64_t h, std::string_view text) {
    for (const char c : text)
        h = hashCombine(h, static_cast<std::uint64_t>(static_cast<unsigned char>(c)));
    return h;
}
constexpr std::uint64_t hashCombine(std::uint64_t h, const char* text) {
    return hashCombine(h, std::string_view(text));
}
/// A text among other things: its length first, so that no two lists of texts run together.
constexpr std::uint64_t hashText(std::uint64_t h, std::string_view text) {
    return hashCombine(hashCombine(h, std::uint64_t(text.size())), text);
}
/// The hash of a word: used for salts ("Noise.strand") and types.
constexpr std::uint64_t hashOf(std::string_view text) {
    return hashCombine(mix64(text.size()), text);
}

/// A uniform float in [0, 1): the top 24 bits of the multiply stage of `mix64(x)`.
constexpr float unitHash(std::uint64_t x) {
    std::uint64_t z = x + kGoldenGamma;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return static_cast<float>(z >> 40) * 5.9604644775390625e-8f;  // 2^-24
}

/// The base of one use of randomness: a node's seed salted by a word such as "Noise.fraction".
/// Draws are then `unitHash(hashCombine(base, id))`: salted, since the bare `unitHash(id)` is what
/// preview thinning keeps strands by.
constexpr std::uint64_t drawBase(std::uint64_t seed, std::string_view use) {
    return mix64(seed ^ hashOf(use));
}
/// The same with the word hashed beforehand: in a loop, make `use` a constant, constexpr
/// hashOf("...").
constexpr std::uint64_t drawBase(std::uint64_t seed, std::uint64_t use) {
    return mix64(seed ^ use);
}
/// Uniform in [0, 1) for one stable id.
constexpr float draw(std::uint64_t base, std::uint64_t id) {
    return unitHash(hashCombine(base, id));
}
/// Uniform in [-1, 1).
constexpr float drawSigned(std::uint64_t base, std::uint64_t id) {
    return 2.0f * draw(base, id) - 1.0f;
}

/// The sequential generator: one per strand, seeded from ids; never shared between threads.
class SplitMix {
public:
    explicit constexpr SplitMix(std::uint64_t seed) : state_(mix64(seed)) {}
    constexpr std::uint64_t nextU64() { return mix64(state_ += kGoldenGamma); }
    constexpr float nextFloat() { return unitHash(state_ += kGoldenGamma); }
    constexpr float nextRange(float a, float b) { return nextFloat() * (b - a) + a; }
    constexpr std::uint64_t state() const { return state_; }

private:
    std::uint64_t state_;
};

}  // namespace corvelle
