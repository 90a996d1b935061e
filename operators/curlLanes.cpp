#include "operators/curlLanes.h"

#include <algorithm>

#include "operators/frameLanes.h"
#include "operators/splineLanes.h"
#include "operators/strandFrames.h"
#include "operators/turnWave.h"

namespace corvelle {

namespace {

constexpr std::size_t kFloatsPerPoint = 9;  ///< of each lane: 2 places, share, profile, radius

Wide3<Float4> pointAt(const Float4* points, std::size_t i) {
    return {points[3 * i], points[3 * i + 1], points[3 * i + 2]};
}

Wide3<Float4> acrossLanes(const std::array<Vec3f, Float4::kLanes>& from) {
    alignas(16) float lanes[3][Float4::kLanes];
    for (std::size_t l = 0; l < Float4::kLanes; ++l)
        for (int x = 0; x < 3; ++x) lanes[x][l] = from[l][x];
    return {Float4::load(lanes[0]), Float4::load(lanes[1]), Float4::load(lanes[2])};
}

/// Of unit length; zero stays.
Wide3<Float4> unitOf(const Wide3<Float4>& v) {
    const Float4 size = squareRoot(dot(v, v)), zero(0.0f);
    return v * select(size > zero, Float4(1.0f) / size, zero);
}

}  // namespace

CurlWinder::CurlWinder(const CurlSettings& settings, std::size_t mostPoints)
    : settings_(settings),
      even_(settings.frequencyProfile.isConstant(1.0f) && settings.spacingRandom == 0.0f),
      lanes_(kFloatsPerPoint * mostPoints) {
    scratch_.reserve(mostPoints);
}

void CurlWinder::wind(std::span<const Vec3f> points, std::span<const float> radii, Vec3f across,
                      const CurlDraws& draws, std::span<Vec3f> out) {
    if (!even_) return curlStrand(points, radii, across, draws, settings_, scratch_, out);
    if (count_ > 0 && waiting_[0].points.size() != points.size()) finishOwn();
    waiting_[count_++] = {points, radii, across, draws, out};
    if (count_ == kLanes) finishOwn();
}

void CurlWinder::windAlong(std::span<const Vec3f> points, std::span<const float> radii,
                           const CurlLines& lines, std::size_t group, std::span<Vec3f> out) {
    if (alongCount_ > 0 && along_[0].points.size() != points.size()) finishAlong();
    along_[alongCount_++] = {points, radii, lines.view(group), lines.draws(group), out};
    if (alongCount_ == kLanes) finishAlong();
}

void CurlWinder::finish() {
    finishOwn();
    finishAlong();
}

void CurlWinder::finishOwn() {
    const std::size_t count = count_;
    count_ = 0;
    if (count == 0) return;
    for (std::size_t l = count; l < kLanes; ++l) waiting_[l] = waiting_[0];  // fills the lanes up
    if (windAcross()) return;
    for (std::size_t l = 0; l < count; ++l) {
        const Waiting& w = waiting_[l];
        curlStrand(w.points, w.radii, w.across, w.draws, settings_, scratch_, w.out);
    }
}

/// False, with nothing written, when a strand needs more care than lanes take.
bool CurlWinder::windAcross() {
    const std::size_t n = waiting_[0].points.size();
    Float4* const points = lanes_.data();
    Float4* const out = points + 3 * n;
    Float4* const shares = out + 3 * n;
    Float4* const profile = shares + n;
    Float4* const radii = profile + n;
    const float* from[kLanes];
    const float* radiiFrom[kLanes];
    float* to[kLanes];
    alignas(16) float starts[kLanes], scales[kLanes], frequencies[kLanes];
    std::array<Vec3f, kLanes> tangents, normals;
    for (std::size_t l = 0; l < kLanes; ++l) {
        const Waiting& w = waiting_[l];
        from[l] = &w.points[0].x;
        radiiFrom[l] = w.radii.data();
        to[l] = &w.out[0].x;
        starts[l] = w.draws.start;
        scales[l] = w.draws.radius;
        frequencies[l] = w.draws.frequency;
        rootDirections(w.points, w.across, tangents[l], normals[l]);
    }
    gatherLanes(from, 3 * n, points);
    gatherLanes(radiiFrom, n, radii);

    const Float4 zero(0.0f), one(1.0f), tiny(kTinyStepSquared);
    const int all = laneBits(zero < one);
    Float4 length = zero;
    shares[0] = zero;
    for (std::size_t i = 1; i < n; ++i) {
        const Wide3<Float4> step = pointAt(points, i) - pointAt(points, i - 1);
        length = length + squareRoot(dot(step, step));
        shares[i] = length;
    }
    if (laneBits((length > zero) & (length < Float4(3e38f))) != all) return false;
    for (std::size_t i = 1; i < n; ++i) shares[i] = shares[i] / length;
    settings_.profile.sample({reinterpret_cast<float*>(shares), kLanes * n},
                             {reinterpret_cast<float*>(profile), kLanes * n});

    const Float4 whole = Float4::load(frequencies) * length;
    const Float4 start = Float4::load(starts), scale = Float4::load(scales);
    Wide3<Float4> tangent = acrossLanes(tangents), normal = acrossLanes(normals);
    for (int x = 0; x < 3; ++x) out[x] = points[x];
    for (std::size_t i = 1; i < n; ++i) {
        const Wide3<Float4> place = pointAt(points, i), step = place - pointAt(points, i - 1);
        const Float4 stepSquared = dot(step, step);
        const Wide3<Float4> across =
            i + 1 < n ? pointAt(points, i + 1) - pointAt(points, i - 1) : step;
        const Float4 acrossSquared = dot(across, across);
        if (laneBits((stepSquared > tiny) & (acrossSquared > tiny)) != all) return false;
        const Wide3<Float4> after = across * (one / squareRoot(acrossSquared));
        normal = reflectedNormal(step, stepSquared, after, tangent, normal);
        if (i % kSettleEvery == 0) {
            normal = normal - after * dot(normal, after);
            const Float4 size = dot(normal, normal);
            if (laneBits(size > Float4(kTinySideSquared)) != all) return false;
            normal = normal * (one / squareRoot(size));
        }
        tangent = after;

        const Float4 turns = whole * shares[i];
        const Wide3<Float4> offset =
            curlOffset(settings_.kind, turns, start, normal, cross(tangent, normal));
        const Wide3<Float4> wound =
            place + offset * (radii[i] * profile[i] * scale * curlEase(turns));
        out[3 * i] = wound.x;
        out[3 * i + 1] = wound.y;
        out[3 * i + 2] = wound.z;
    }
    scatterLanes(out, 3 * n, to);
    return true;
}

void CurlWinder::finishAlong() {
    const std::size_t count = alongCount_;
    alongCount_ = 0;
    if (count == 0) return;
    for (std::size_t l = count; l < kLanes; ++l) along_[l] = along_[0];  // fills the lanes up
    const std::size_t n = along_[0].points.size();
    Float4* const points = lanes_.data();
    Float4* const shares = points + 3 * n;
    Float4* const profile = shares + n;
    Float4* const radii = profile + n;
    const float* from[kLanes];
    const float* radiiFrom[kLanes];
    float* to[kLanes];
    alignas(16) float starts[kLanes], scales[kLanes], lastTurns[kLanes], lastFrames[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        const Along& a = along_[l];
        from[l] = &a.points[0].x;
        radiiFrom[l] = a.radii.data();
        to[l] = &a.out[0].x;
        starts[l] = a.draws.start;
        scales[l] = a.draws.radius;
        lastTurns[l] = float(a.line.turns.size() - 1);
        lastFrames[l] = float(a.line.frames.size() - 1);
    }
    gatherLanes(from, 3 * n, points);
    gatherLanes(radiiFrom, n, radii);

    const Float4 zero(0.0f);
    Float4 length = zero;
    shares[0] = zero;
    for (std::size_t i = 1; i < n; ++i) {
        const Wide3<Float4> step = pointAt(points, i) - pointAt(points, i - 1);
        length = length + squareRoot(dot(step, step));
        shares[i] = length;
    }
    // A strand of no length, or of none that is a number, goes by its points' numbers.
    const auto measured = (length > zero) & (length < Float4(3e38f));
    const Float4 whole = select(measured, length, Float4(float(n - 1)));
    for (std::size_t i = 1; i < n; ++i)
        shares[i] = select(measured, shares[i], Float4(float(i))) / whole;
    settings_.profile.sample({reinterpret_cast<float*>(shares), kLanes * n},
                             {reinterpret_cast<float*>(profile), kLanes * n});

    const Float4 start = Float4::load(starts), scale = Float4::load(scales);
    for (std::size_t i = 1; i < n; ++i) {
        alignas(16) float turnsAt[kLanes], framesAt[kLanes], wholeTurns[kLanes],
            wholeFrames[kLanes], before[kLanes], after[kLanes];
        (shares[i] * Float4::load(lastTurns)).store(turnsAt);
        (shares[i] * Float4::load(lastFrames)).store(framesAt);
        const float* frames[kLanes];
        for (std::size_t l = 0; l < kLanes; ++l) {
            const CurlLines::View& line = along_[l].line;
            const std::size_t t = std::min(std::size_t(turnsAt[l]), line.turns.size() - 2);
            const std::size_t f = std::min(std::size_t(framesAt[l]), line.frames.size() - 2);
            wholeTurns[l] = float(t);
            wholeFrames[l] = float(f);
            before[l] = line.turns[t];
            after[l] = line.turns[t + 1];
            frames[l] = &line.frames[f].normal.x;
        }
        Float4 f[12];  // two frames: normal, binormal, normal, binormal
        gatherLanes(frames, 12, f);
        const Float4 t = Float4::load(framesAt) - Float4::load(wholeFrames);
        for (int x = 0; x < 6; ++x) f[x] = f[x] + (f[x + 6] - f[x]) * t;
        const Float4 left = Float4::load(before);
        const Float4 turns = left + (Float4::load(after) - left) *
                                        (Float4::load(turnsAt) - Float4::load(wholeTurns));
        const Wide3<Float4> offset = curlOffset(
            settings_.kind, turns, start, unitOf({f[0], f[1], f[2]}), unitOf({f[3], f[4], f[5]}));
        const Wide3<Float4> wound =
            pointAt(points, i) + offset * (radii[i] * profile[i] * scale * curlEase(turns));
        points[3 * i] = wound.x;
        points[3 * i + 1] = wound.y;
        points[3 * i + 2] = wound.z;
    }
    scatterLanes(points, 3 * n, to);
}

}  // namespace corvelle
