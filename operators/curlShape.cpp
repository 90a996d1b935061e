#include "operators/curlShape.h"

#include <algorithm>

#include "model/hash.h"
#include "model/noise.h"
#include "model/polyline.h"
#include "operators/strandFrames.h"
#include "operators/turnWave.h"

namespace corvelle {

namespace {

constexpr std::uint64_t kRadius = hashOf("Curl.radius");
constexpr std::uint64_t kFrequency = hashOf("Curl.frequency");
constexpr std::uint64_t kPhase = hashOf("Curl.phase");
constexpr std::uint64_t kSpacing = hashOf("Curl.spacing");
constexpr float kTurnsPerChange = 1.5f;  ///< of the spacing
constexpr float kNoiseReach = 1.6f;      ///< lets most of the noise's swing count

}  // namespace

CurlDraws curlDraws(const CurlSettings& settings, std::uint64_t who) {
    const auto base = [&](std::uint64_t use) { return drawBase(settings.seed, use); };
    CurlDraws out;
    out.radius = 1.0f + settings.randomness * drawSigned(base(kRadius), who);
    out.frequency =
        settings.frequency * (1.0f + settings.randomness * drawSigned(base(kFrequency), who));
    out.start =
        turnFraction(turnFraction(settings.phase) + settings.phaseRandom * draw(base(kPhase), who));
    out.spacing = hashCombine(base(kSpacing), who);
    return out;
}

void CurlScratch::reserve(std::size_t points) {
    if (mids.size() >= points) return;
    for (std::vector<float>* list : {&mids, &rates, &noise, &shares, &turns, &profile})
        list->resize(points);
    for (std::vector<Vec3f>* list : {&places, &tangents, &normals}) list->resize(points);
}

float integrateTurns(std::span<const float> shares, float length, const CurlDraws& draws,
                     const CurlSettings& settings, CurlScratch& scratch, std::span<float> out) {
    const std::size_t n = shares.size();
    const float whole = draws.frequency * length;
    const bool flat = settings.frequencyProfile.isConstant(1.0f);
    out[0] = 0.0f;
    if (flat && settings.spacingRandom == 0.0f) {
        for (std::size_t i = 1; i < n; ++i) out[i] = whole * shares[i];
        return out[n - 1];
    }
    const std::span<float> mids = std::span(scratch.mids).first(n - 1);
    const std::span<float> rates = std::span(scratch.rates).first(n - 1);
    for (std::size_t i = 0; i + 1 < n; ++i) mids[i] = 0.5f * (shares[i] + shares[i + 1]);
    settings.frequencyProfile.sample(mids, rates);
    for (float& rate : rates) rate = rate > 0.0f ? rate * whole : 0.0f;
    if (settings.spacingRandom > 0.0f) {
        const std::span<Vec3f> places = std::span(scratch.places).first(n - 1);
        const std::span<float> noise = std::span(scratch.noise).first(n - 1);
        SplitMix random(draws.spacing);
        const Vec3f from{random.nextFloat(), random.nextFloat(), random.nextFloat()};
        float turns = 0.0f;
        for (std::size_t i = 0; i + 1 < n; ++i) {
            const float gone = rates[i] * (shares[i + 1] - shares[i]);
            places[i] = {from.x + (turns + 0.5f * gone) / kTurnsPerChange, from.y, from.z};
            turns += gone;
        }
        noise3(places, draws.spacing, noise);
        for (std::size_t i = 0; i + 1 < n; ++i)
            rates[i] *=
                1.0f + settings.spacingRandom * std::clamp(kNoiseReach * noise[i], -1.0f, 1.0f);
    }
    for (std::size_t i = 0; i + 1 < n; ++i)
        out[i + 1] = out[i] + rates[i] * (shares[i + 1] - shares[i]);
    return out[n - 1];
}

Vec3f curlOffset(CurlKind kind, float turns, float start, const CurlFrame& frame) {
    const auto wide = [](Vec3f v) { return Wide3<float>{v.x, v.y, v.z}; };
    const auto offset = curlOffset(kind, turns, start, wide(frame.normal), wide(frame.binormal));
    return {offset.x, offset.y, offset.z};
}

void curlStrand(std::span<const Vec3f> points, std::span<const float> radii, Vec3f across,
                const CurlDraws& draws, const CurlSettings& settings, CurlScratch& scratch,
                std::span<Vec3f> out) {
    const std::size_t n = points.size();
    const std::span<float> shares = std::span(scratch.shares).first(n);
    const std::span<float> turns = std::span(scratch.turns).first(n);
    const std::span<float> profile = std::span(scratch.profile).first(n);
    const std::span<Vec3f> tangents = std::span(scratch.tangents).first(n);
    const std::span<Vec3f> normals = std::span(scratch.normals).first(n);
    const float length = polylineShares(points, shares);
    integrateTurns(shares, length, draws, settings, scratch, turns);
    settings.profile.sample(shares, profile);
    transportFrames(points, across, tangents, normals);
    out[0] = points[0];
    for (std::size_t i = 1; i < n; ++i) {
        const CurlFrame frame{normals[i], cross(tangents[i], normals[i])};
        const float radius = radii[i] * profile[i] * draws.radius * curlEase(turns[i]);
        out[i] = points[i] + curlOffset(settings.kind, turns[i], draws.start, frame) * radius;
    }
}

}  // namespace corvelle
