#include "graph/affect.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/parallel.h"

namespace corvelle {

void mixFloats(const float* before, const float* after, float weight, float* out,
               std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const float a = before[i], b = after[i];
        // Equal bits must stay (-0 and infinities too): whether two sets share an array or hold two
        // equal ones must not show.
        const bool same = std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
        const float mixed = a + (b - a) * weight;
        out[i] = same ? a : mixed;
    }
}

namespace {

/// Weights below or at 0 (and those that are no number) keep before, from 1 on after.
bool keepsBefore(float weight) { return !(weight > 0.0f); }

/// `count` values of `width` floats each, under one weight.
void blendRun(const float* before, const float* after, float weight, float* out,
              std::size_t count) {
    if (keepsBefore(weight)) {
        std::memcpy(out, before, count * sizeof(float));
    } else if (weight >= 1.0f) {
        std::memcpy(out, after, count * sizeof(float));
    } else {
        mixFloats(before, after, weight, out, count);
    }
}

float blendOne(float before, float after, float weight, bool discrete) {
    if (keepsBefore(weight)) return before;
    if (weight >= 1.0f) return after;
    if (discrete) return weight >= 0.5f ? after : before;
    float out;
    mixFloats(&before, &after, weight, &out, 1);
    return out;
}

const float* floats(std::span<const Vec3f> points) {
    return reinterpret_cast<const float*>(points.data());
}

/// An array of one value per strand, or of `width` floats per point, to be blended. A side that
/// lacks the channel reads a default instead.
struct Lane {
    const float* before = nullptr;
    const float* after = nullptr;
    float beforeDefault = 0.0f, afterDefault = 0.0f;
    float* out = nullptr;
    std::size_t width = 1;
    bool discrete = false;
};

class Blender {
public:
    Blender(const StrandSet& before, const StrandSet& after, const FieldValue& weight)
        : before_(before), after_(after), weight_(weight), out_(after) {}

    StrandSet all() {
        prepare(nullptr);
        run({}, before_.strandCount());
        return std::move(out_);
    }
    StrandSet some(const StrandSet& previous, std::span<const std::uint32_t> dirty) {
        prepare(&previous);
        if (missing_) return Blender(before_, after_, weight_).all();
        run(dirty, dirty.size());
        return std::move(out_);
    }

private:
    // Takes write access to the arrays to blend; with a previous result, its arrays are taken
    // first, so that only the dirty strands need writing.
    void prepare(const StrandSet* previous) {
        if (!before_.sharesRoots(after_)) {
            roots_ = out_.mutableRoots();
            if (previous) std::ranges::copy(previous->roots(), roots_.begin());
        }
        if (!before_.sharesPoints(after_)) {
            if (previous) out_.sharePoints(*previous);
            const std::span<Vec3f> points =
                previous ? out_.mutablePoints() : out_.overwritePoints();
            pointLanes_.push_back({.before = floats(before_.points()),
                                   .after = floats(after_.points()),
                                   .out = reinterpret_cast<float*>(points.data()),
                                   .width = 3});
        }
        if (!before_.sharesWidths(after_)) {
            if (previous) out_.shareWidths(*previous);
            const std::span<float> widths =
                previous ? out_.mutableWidths() : out_.overwriteWidths();
            pointLanes_.push_back({.before = before_.widths().data(),
                                   .after = after_.widths().data(),
                                   .out = widths.data()});
        }
        channels(before_.strandChannels(), after_.strandChannels(), strandLanes_,
                 [&](const std::string& name, float fallback, bool discrete) {
                     if (previous && !out_.copyStrandChannel(name, *previous)) missing_ = true;
                     const std::span<float> span = out_.mutableStrandChannel(name, fallback);
                     if (discrete) out_.setStrandChannelDiscrete(name);
                     return span.data();
                 });
        channels(before_.pointChannels(), after_.pointChannels(), pointLanes_,
                 [&](const std::string& name, float fallback, bool discrete) {
                     if (previous && !out_.copyPointChannel(name, *previous)) missing_ = true;
                     const std::span<float> span = out_.mutablePointChannel(name, fallback);
                     if (discrete) out_.setPointChannelDiscrete(name);
                     return span.data();
                 });
    }

    template <class Writable>
    static void channels(const StrandSet::Channels& before, const StrandSet::Channels& after,
                         std::vector<Lane>& lanes, Writable&& writable) {
        const auto add = [&](const std::string& name, const Channel* a, const Channel* b) {
            if (a && b && a->values.sharesWith(b->values)) return;
            Lane lane;
            lane.before = a ? a->values.get().data() : nullptr;
            lane.after = b ? b->values.get().data() : nullptr;
            lane.beforeDefault = (a ? a : b)->defaultValue;
            lane.afterDefault = (b ? b : a)->defaultValue;
            if (!a) lane.beforeDefault = b->defaultValue;
            if (!b) lane.afterDefault = a->defaultValue;
            lane.discrete = (a && a->discrete) || (b && b->discrete);
            lane.out = writable(name, (b ? b : a)->defaultValue, lane.discrete);
            lanes.push_back(lane);
        };
        for (const auto& [name, channel] : before) {
            const auto other = after.find(name);
            add(name, &channel, other == after.end() ? nullptr : &other->second);
        }
        for (const auto& [name, channel] : after)
            if (!before.contains(name)) add(name, nullptr, &channel);
    }

    void run(std::span<const std::uint32_t> listed, std::size_t count) const {
        if (count == 0) return;
        if (roots_.empty() && strandLanes_.empty() && pointLanes_.empty()) return;
        parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
            std::vector<std::uint32_t> indices(kStrandGrain);
            std::vector<float> weights(kStrandGrain), pointWeights;
            for (std::size_t b = begin; b < end; b += kStrandGrain) {
                const std::size_t n = std::min(kStrandGrain, end - b);
                for (std::size_t i = 0; i < n; ++i)
                    indices[i] = listed.empty() ? std::uint32_t(b + i) : listed[b + i];
                batch(std::span(indices).first(n), std::span(weights).first(n), pointWeights);
            }
        });
    }

    void batch(std::span<const std::uint32_t> strands, std::span<float> weights,
               std::vector<float>& pointWeights) const {
        weight_.sampleStrands(before_, strands, weights);
        const bool perPoint = weight_.perPoint() && !pointLanes_.empty();
        if (perPoint) {
            std::size_t points = 0;
            for (const std::uint32_t s : strands) points += before_.pointCountOf(s);
            pointWeights.resize(points);
            weight_.samplePoints(before_, strands, pointWeights);
        }
        std::size_t at = 0;
        for (std::size_t i = 0; i < strands.size(); ++i) {
            const std::uint32_t s = strands[i];
            const std::size_t first = std::size_t(before_.offsets()[s]);
            const std::size_t count = before_.pointCountOf(s);
            strandValues(s, weights[i]);
            for (const Lane& lane : pointLanes_)
                pointValues(lane, first, count, weights[i],
                            perPoint ? pointWeights.data() + at : nullptr);
            at += count;
        }
    }

    void strandValues(std::uint32_t s, float weight) const {
        if (!roots_.empty()) roots_[s] = weight >= 0.5f ? after_.roots()[s] : before_.roots()[s];
        for (const Lane& lane : strandLanes_)
            lane.out[s] =
                blendOne(lane.before ? lane.before[s] : lane.beforeDefault,
                         lane.after ? lane.after[s] : lane.afterDefault, weight, lane.discrete);
    }

    static void pointValues(const Lane& lane, std::size_t first, std::size_t count, float weight,
                            const float* weights) {
        const bool plain = lane.before && lane.after && !lane.discrete;
        const std::size_t w = lane.width;
        if (plain && !weights) {
            blendRun(lane.before + first * w, lane.after + first * w, weight, lane.out + first * w,
                     count * w);
        } else if (plain) {
            for (std::size_t p = 0; p < count; ++p)
                blendRun(lane.before + (first + p) * w, lane.after + (first + p) * w, weights[p],
                         lane.out + (first + p) * w, w);
        } else {
            for (std::size_t p = first; p < first + count; ++p)
                lane.out[p] = blendOne(lane.before ? lane.before[p] : lane.beforeDefault,
                                       lane.after ? lane.after[p] : lane.afterDefault,
                                       weights ? weights[p - first] : weight, lane.discrete);
        }
    }

    const StrandSet& before_;
    const StrandSet& after_;
    const FieldValue& weight_;
    StrandSet out_;
    std::span<StrandRoot> roots_;
    std::vector<Lane> strandLanes_, pointLanes_;
    bool missing_ = false;
};

void checkLayouts(const StrandSet& before, const StrandSet& after) {
    if (!before.sameLayout(after)) throw std::invalid_argument("blendStrands: the layouts differ");
}

}  // namespace

StrandSet blendStrands(const StrandSet& before, const StrandSet& after, const FieldValue& weight) {
    checkLayouts(before, after);
    return Blender(before, after, weight).all();
}

StrandSet blendStrands(const StrandSet& before, const StrandSet& after, const FieldValue& weight,
                       const StrandSet& previous, std::span<const std::uint32_t> dirty) {
    checkLayouts(before, after);
    if (!previous.sameLayout(after)) return Blender(before, after, weight).all();
    return Blender(before, after, weight).some(previous, dirty);
}

}  // namespace corvelle
