#include "model/ramp.h"

#include <algorithm>
#include <cmath>

#include "model/hash.h"
#include "model/rampSlopes.h"

namespace corvelle {

namespace {

/// Positions ascending; those that are not numbers behind all others.
bool before(const Ramp::Key& a, const Ramp::Key& b) {
    if (std::isnan(a.first) || std::isnan(b.first))
        return !std::isnan(a.first) && std::isnan(b.first);
    return a.first < b.first;
}

float slopeOf(const Ramp::Key& left, const Ramp::Key& right) {
    const float span = right.first - left.first;
    return span > 0.0f ? (right.second - left.second) / span : 0.0f;
}

}  // namespace

std::vector<float> rampSlopes(const std::vector<Ramp::Key>& keys) {
    std::vector<float> tangents(keys.size(), 0.0f);
    if (keys.size() < 2) return tangents;
    const std::size_t last = keys.size() - 1;
    tangents[0] = slopeOf(keys[0], keys[1]);
    tangents[last] = slopeOf(keys[last - 1], keys[last]);
    for (std::size_t i = 1; i < last; ++i) {
        const float h0 = keys[i].first - keys[i - 1].first;
        const float h1 = keys[i + 1].first - keys[i].first;
        const float d0 = slopeOf(keys[i - 1], keys[i]);
        const float d1 = slopeOf(keys[i], keys[i + 1]);
        if (d0 * d1 > 0.0f)
            tangents[i] = 3.0f * (h0 + h1) / ((2.0f * h1 + h0) / d0 + (2.0f * h0 + h1) / d1);
    }
    return tangents;
}

Ramp::Ramp(std::vector<Key> keys, bool linear) : keys_(std::move(keys)), linear_(linear) {
    std::stable_sort(keys_.begin(), keys_.end(), before);
    if (!linear_) tangents_ = rampSlopes(keys_);
}

float Ramp::operator()(float x) const {
    if (keys_.empty()) return 1.0f;
    if (!(x > keys_.front().first)) return keys_.front().second;
    if (x >= keys_.back().first) return keys_.back().second;
    const auto right = std::upper_bound(keys_.begin(), keys_.end(), x,
                                        [](float at, const Key& key) { return at < key.first; });
    if (right == keys_.end()) return keys_.back().second;
    return withinSegment(std::size_t(right - keys_.begin()) - 1, x);
}

void Ramp::sample(std::span<const float> x, std::span<float> out) const {
    if (keys_.size() < 2) {
        const float value = keys_.empty() ? 1.0f : keys_.front().second;
        std::fill(out.begin(), out.end(), value);
        return;
    }
    // The segment is remembered: positions that ascend find theirs without a search.
    const std::size_t last = keys_.size() - 1;
    std::size_t segment = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const float at = x[i];
        if (!(at > keys_[0].first)) {
            out[i] = keys_[0].second;
        } else if (at >= keys_[last].first) {
            out[i] = keys_[last].second;
        } else {
            while (segment > 0 && keys_[segment].first > at) --segment;
            while (segment + 1 < last && !(keys_[segment + 1].first > at)) ++segment;
            out[i] =
                keys_[segment + 1].first > at ? withinSegment(segment, at) : keys_[last].second;
        }
    }
}

float Ramp::withinSegment(std::size_t i, float x) const {
    const Key* left = &keys_[i];
    const Key* right = left + 1;
    const float a = left->second, b = right->second;
    const float span = right->first - left->first;
    if (!(span > 0.0f)) return b;
    if (a == b) return a;  // flat, and free of the rounding of the cubic
    const float t = (x - left->first) / span;
    if (linear_) return a + (b - a) * t;
    const float t2 = t * t, t3 = t2 * t;
    const float value = (2.0f * t3 - 3.0f * t2 + 1.0f) * a +
                        (t3 - 2.0f * t2 + t) * span * tangents_[i] + (3.0f * t2 - 2.0f * t3) * b +
                        (t3 - t2) * span * tangents_[i + 1];
    return std::clamp(value, std::min(a, b), std::max(a, b));  // rounding must not overshoot
}

bool Ramp::isConstant(float value) const {
    if (keys_.empty()) return value == 1.0f;
    return std::all_of(keys_.begin(), keys_.end(),
                       [&](const Key& key) { return key.second == value; });
}

float Ramp::maxValue() const {
    if (keys_.empty()) return 1.0f;
    float largest = keys_.front().second;
    for (const Key& key : keys_) largest = std::max(largest, key.second);
    return largest;
}

std::uint64_t Ramp::hash() const {
    std::uint64_t h = hashCombine(mix64(keys_.size()), linear_);
    for (const Key& key : keys_) h = hashCombine(hashCombine(h, key.first), key.second);
    return h;
}

}  // namespace corvelle
