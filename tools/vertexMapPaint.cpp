#include "tools/vertexMapPaint.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "model/parallel.h"
#include "tools/mortonCode.h"

namespace corvelle {
namespace {

[[noreturn]] void fail(const char* operation, const std::string& what) {
    throw std::invalid_argument(std::string(operation) + ": " + what);
}

/// The mask of the channels to paint.
std::uint32_t checked(const char* operation, std::span<const float> values, int channels,
                      std::uint32_t mask, const ScalpMesh& scalp,
                      std::span<const TouchedVertex> touched) {
    if (channels != 1 && channels != 4) fail(operation, "a map has 1 or 4 channels");
    const std::size_t vertices = scalp.points().size();
    if (values.size() != vertices * std::size_t(channels))
        fail(operation, "one value per scalp vertex and channel");
    for (const TouchedVertex& t : touched)
        if (t.first < 0 || std::size_t(t.first) >= vertices)
            fail(operation, "vertex " + std::to_string(t.first) + " is none of the scalp's " +
                                std::to_string(vertices));
    return channels == 1 ? 1u : mask & 15u;
}

}  // namespace

bool stampVertexMap(std::span<float> values, int channels, std::uint32_t channelMask,
                    const ScalpMesh& scalp, std::span<const TouchedVertex> touched, float strength,
                    const std::array<float, 4>& color) {
    const std::uint32_t mask =
        checked("stampVertexMap", values, channels, channelMask, scalp, touched);
    const std::size_t step = std::size_t(channels);
    bool changed = false;
    for (const auto& [vertex, weight] : touched) {
        const float share = std::min(strength * weight, 1.0f);
        if (!(share > 0.0f)) continue;
        float* value = values.data() + std::size_t(vertex) * step;
        for (std::size_t c = 0; c < step; ++c) {
            if (!(mask >> c & 1u)) continue;
            const float now = std::clamp(value[c] + (color[c] - value[c]) * share, 0.0f, 1.0f);
            if (now == value[c]) continue;
            value[c] = now;
            changed = true;
        }
    }
    return changed;
}

bool smoothVertexMap(std::span<float> values, int channels, std::uint32_t channelMask,
                     const ScalpMesh& scalp, const VertexAdjacency& adjacency,
                     std::span<const TouchedVertex> touched, float strength) {
    const std::uint32_t mask =
        checked("smoothVertexMap", values, channels, channelMask, scalp, touched);
    const std::size_t vertices = scalp.points().size();
    if (adjacency.offsets.size() != vertices + 1)
        fail("smoothVertexMap", "one adjacency offset per scalp vertex and one more");
    const std::size_t step = std::size_t(channels);
    const float whole = std::abs(strength);

    // All are read before any is written.
    struct NewValue {
        std::size_t at;
        float value;
    };
    std::vector<NewValue> made;
    for (const auto& [vertex, weight] : touched) {
        const float share = std::min(whole * weight, 1.0f);
        const std::size_t v = std::size_t(vertex);
        const std::size_t first = adjacency.offsets[v], last = adjacency.offsets[v + 1];
        if (!(share > 0.0f) || first >= last) continue;
        for (std::size_t c = 0; c < step; ++c) {
            if (!(mask >> c & 1u)) continue;
            float sum = 0.0f;
            for (std::size_t n = first; n < last; ++n)
                sum += values[std::size_t(adjacency.neighbors[n]) * step + c];
            const std::size_t at = v * step + c;
            const float now = values[at] + (sum / float(last - first) - values[at]) * share;
            if (now != values[at]) made.push_back({at, now});
        }
    }
    for (const NewValue& value : made) values[value.at] = value.value;
    return !made.empty();
}

VertexBlocks::VertexBlocks(const ScalpMesh& scalp) {
    // Sorted along a Morton curve over a grid of 32 cells a side, by counting: vertices of a cell
    // keep their order.
    constexpr std::uint32_t kSide = 32, kCells = kSide * kSide * kSide;
    const std::span<const Vec3f> points = scalp.points();
    const Vec3f low = scalp.boundsMin(), size = scalp.boundsMax() - low;
    constexpr std::uint32_t kNowhere = kCells;  // points that are not finite lie under no brush
    std::vector<std::uint32_t> cellOf(points.size(), kNowhere);
    std::vector<std::size_t> start(kCells + 1, 0);
    std::size_t count = 0;
    for (std::size_t v = 0; v < points.size(); ++v) {
        if (!isFinite(points[v])) continue;
        std::uint32_t cell = 0;
        for (int axis = 0; axis < 3; ++axis) {
            const float share =
                size[axis] > 0.0f ? (points[v][axis] - low[axis]) / size[axis] : 0.0f;
            const float at = std::clamp(share * float(kSide), 0.0f, float(kSide - 1));
            cell |= mortonSpread(std::isfinite(at) ? std::uint32_t(at) : 0u) << axis;
        }
        cellOf[v] = cell;
        ++start[cell + 1];
        ++count;
    }
    for (std::size_t c = 0; c < kCells; ++c) start[c + 1] += start[c];
    vertices_.resize(points.size());
    for (std::size_t v = 0; v < points.size(); ++v) vertices_[start[cellOf[v]]++] = std::int32_t(v);
    places_.reserve(points.size());
    for (const std::int32_t v : vertices_) places_.push_back(points[std::size_t(v)]);

    const auto boxOf = [](auto first, auto last, auto&& lowOf, auto&& highOf) {
        Box box{lowOf(*first), highOf(*first)};
        for (; first != last; ++first) {
            box.low = componentMin(box.low, lowOf(*first));
            box.high = componentMax(box.high, highOf(*first));
        }
        return box;
    };
    const auto same = [](Vec3f p) { return p; };
    for (std::size_t b = 0; b < places_.size(); b += kBlock) {
        const auto first = places_.begin() + std::ptrdiff_t(b);
        const auto held = std::min(kBlock, places_.size() - b);
        blocks_.push_back(boxOf(first, first + std::ptrdiff_t(held), same, same));
    }
    for (std::size_t g = 0; g < blocks_.size(); g += kGroup) {
        const auto first = blocks_.begin() + std::ptrdiff_t(g);
        const auto held = std::min(kGroup, blocks_.size() - g);
        groups_.push_back(boxOf(
            first, first + std::ptrdiff_t(held), [](const Box& box) { return box.low; },
            [](const Box& box) { return box.high; }));
    }
}

std::vector<TouchedVertex> VertexBlocks::touched(const BrushStamp& stamp) const {
    std::vector<std::size_t> near;
    for (std::size_t g = 0; g < groups_.size(); ++g) {
        if (!stamp.mayReachWithin(groups_[g].low, groups_[g].high)) continue;
        for (std::size_t b = g * kGroup; b < std::min((g + 1) * kGroup, blocks_.size()); ++b)
            if (stamp.reaches(blocks_[b].low, blocks_[b].high)) near.push_back(b);
    }
    std::vector<float> weights(near.size() * kBlock);
    const auto weigh = [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t first = near[i] * kBlock;
            const std::size_t count = std::min(kBlock, places_.size() - first);
            stamp.weights(std::span(places_).subspan(first, count),
                          std::span(weights).subspan(i * kBlock, count));
        }
    };
    constexpr std::size_t kGrain = 8;
    if (stamp.threadSafe())
        parallelRange(0, near.size(), kGrain, weigh);
    else
        weigh(0, near.size());
    std::vector<TouchedVertex> out;
    for (std::size_t i = 0; i < near.size(); ++i)
        for (std::size_t j = 0; j < kBlock && near[i] * kBlock + j < places_.size(); ++j)
            if (weights[i * kBlock + j] > 0.0f)
                out.emplace_back(vertices_[near[i] * kBlock + j], weights[i * kBlock + j]);
    return out;
}

}  // namespace corvelle
