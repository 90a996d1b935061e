#include "operators/strandSpline.h"

#include <algorithm>
#include <cmath>

namespace corvelle {

namespace {

/// A cubic Hermite span from a to b with the end tangents m0, m1.
Vec3f hermite(Vec3f a, Vec3f m0, Vec3f b, Vec3f m1, float t) {
    const float t2 = t * t;
    const float t3 = t2 * t;
    const float hb = 3.0f * t2 - 2.0f * t3;
    return a + (b - a) * hb + m0 * (t3 - 2.0f * t2 + t) + m1 * (t3 - t2);
}

}  // namespace

void StrandSpline::build(std::span<const Vec3f> points) {
    points_ = points;
    const std::size_t spans = points.size() - 1;
    tangents_.resize(2 * spans);
    arc_.resize(spans * kPieces + 1);

    // Centripetal knots: the root of the chord. Tangents are those of the non-uniform Catmull-Rom
    // through four points, scaled to the span; the ends mirror their neighbour.
    float before = 0.0f;
    Vec3f chordBefore;
    Vec3f chord = points[1] - points[0];
    float knot = std::sqrt(corvelle::length(chord));
    arc_[0] = 0.0f;
    float total = 0.0f;
    for (std::size_t i = 0; i < spans; ++i) {
        const bool last = i + 1 == spans;
        const Vec3f chordAfter = last ? chord : points[i + 2] - points[i + 1];
        const float after = last ? knot : std::sqrt(corvelle::length(chordAfter));
        if (i == 0) {
            chordBefore = chord;
            before = knot;
        }
        Vec3f m0, m1;
        if (knot > 0.0f) {
            m0 = m1 = chord;
            if (before > 0.0f) {
                const float sum = before + knot;
                m0 = (chordBefore / before - (chordBefore + chord) / sum + chord / knot) * knot;
            }
            if (after > 0.0f) {
                const float sum = knot + after;
                m1 = (chord / knot - (chord + chordAfter) / sum + chordAfter / after) * knot;
            }
        }
        tangents_[2 * i] = m0;
        tangents_[2 * i + 1] = m1;

        Vec3f from = points[i];
        for (int k = 1; k <= kPieces; ++k) {
            const Vec3f to = k == kPieces
                                 ? points[i + 1]
                                 : hermite(points[i], m0, points[i + 1], m1, float(k) / float(kPieces));
            total += distance(from, to);
            arc_[i * kPieces + std::size_t(k)] = total;
            from = to;
        }
        chordBefore = chord;
        before = knot;
        chord = chordAfter;
        knot = after;
    }
}

void StrandSpline::paramsAt(std::span<const float> lengths, std::span<float> params) const {
    const std::size_t pieces = arc_.size() - 1;
    std::size_t piece = 0;
    for (std::size_t j = 0; j < lengths.size(); ++j) {
        const float target = lengths[j];
        while (piece + 1 < pieces && arc_[piece + 1] < target) ++piece;
        const float span = arc_[piece + 1] - arc_[piece];
        const float along = span > 0.0f ? std::clamp((target - arc_[piece]) / span, 0.0f, 1.0f) : 0.0f;
        params[j] = (float(piece) + along) * (1.0f / float(kPieces));
    }
}

void StrandSpline::evenParams(std::span<float> params) const {
    const std::size_t last = params.size() - 1;
    const float total = length();
    const float end = float(points_.size() - 1);
    if (!(total > 0.0f) || !std::isfinite(total)) {
        for (std::size_t j = 0; j <= last; ++j) params[j] = end * float(j) / float(last);
        return;
    }
    for (std::size_t j = 0; j <= last; ++j) params[j] = total * float(j) / float(last);
    paramsAt(params, params);
    params[0] = 0.0f;
    params[last] = end;
}

Vec3f StrandSpline::at(float param) const {
    const std::size_t spans = points_.size() - 1;
    const std::size_t i = std::min(std::size_t(param), spans - 1);
    const float t = param - float(i);
    if (t <= 0.0f) return points_[i];
    if (t >= 1.0f) return points_[i + 1];
    return hermite(points_[i], tangents_[2 * i], points_[i + 1], tangents_[2 * i + 1], t);
}

float StrandSpline::lengthAt(float param) const {
    const float place = param * float(kPieces);
    const std::size_t piece = std::min(std::size_t(place), arc_.size() - 2);
    return mix(arc_[piece], arc_[piece + 1], place - float(piece));
}

float valueAt(std::span<const float> values, float param, bool discrete) {
    const std::size_t last = values.size() - 1;
    const std::size_t i = std::min(std::size_t(param), last);
    if (i == last) return values[last];
    const float t = param - float(i);
    if (discrete) return t < 0.5f ? values[i] : values[i + 1];
    return mix(values[i], values[i + 1], t);
}

}  // namespace corvelle
