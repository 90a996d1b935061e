#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include <benchmark/benchmark.h>

#include "expr/expressionMap.h"
#include "model/hash.h"
#include "model/noise.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "model/testing/tuft.h"

// Each formula as an expression and as the C++ one would write for it, over the same strands. A
// result that differs in a bit is an error.

namespace corvelle {
namespace {

struct Hair {
    StrandSet set = makeTuft({.strands = 20'000, .pointsPerStrand = 16, .seed = 7});
    std::vector<std::uint32_t> strands = std::vector<std::uint32_t>(set.strandCount());
    const std::vector<float>& tone = *set.strandChannel("tone");
    const std::vector<float>& clump = *set.strandChannel("clumpId");
    const std::vector<float>& share = *set.pointChannel("share");
    Hair() { std::iota(strands.begin(), strands.end(), 0u); }
};
const Hair& hair() {
    static const Hair instance;
    return instance;
}

float between(float x, float a, float b) { return x < a ? a : x > b ? b : x; }

struct PerStrand {
    static std::size_t size() { return hair().set.strandCount(); }
    static void evaluate(const ExpressionMap::Bound& bound, std::span<float> out) {
        bound.strands(hair().strands, out);
    }
};
struct PerPoint {
    static std::size_t size() { return hair().set.pointCount(); }
    static void evaluate(const ExpressionMap::Bound& bound, std::span<float> out) {
        bound.points(hair().strands, out);
    }
};

struct RootArithmetic : PerStrand {
    static constexpr const char* kText = "(x * 0.5 + z * z) / 10 - y * 2 + 1";
    static void plain(std::span<float> out) {
        const StrandSet& set = hair().set;
        for (std::size_t s = 0; s < out.size(); ++s) {
            const Vec3f p = set.points()[set.offsets()[s]];
            out[s] = (p.x * 0.5f + p.z * p.z) / 10.0f - p.y * 2.0f + 1.0f;
        }
    }
};
struct ChannelArithmetic : PerStrand {
    static constexpr const char* kText =
        "clamp(tone * 2 - 0.5, 0, 1) * (1 - 0.3 * clumpId / 16) + (tone > 0.5 ? 0.1 : 0.2)";
    static void plain(std::span<float> out) {
        const Hair& h = hair();
        for (std::size_t s = 0; s < out.size(); ++s)
            out[s] =
                between(h.tone[s] * 2.0f - 0.5f, 0.0f, 1.0f) * (1.0f - 0.3f * h.clump[s] / 16.0f) +
                (h.tone[s] > 0.5f ? 0.1f : 0.2f);
    }
};
struct FitLength : PerStrand {
    static constexpr const char* kText = "fit(length, 0, 10, 1, 0.2)";
    static void plain(std::span<float> out) {
        const StrandSet& set = hair().set;
        for (std::size_t s = 0; s < out.size(); ++s)
            out[s] =
                (polylineLength(set.pointsOf(s)) - 0.0f) / (10.0f - 0.0f) * (0.2f - 1.0f) + 1.0f;
    }
};
struct RootNoise : PerStrand {
    static constexpr const char* kText = "noise(P * 3) * 0.5 + 0.5";
    static void plain(std::span<float> out) {
        const StrandSet& set = hair().set;
        for (std::size_t s = 0; s < out.size(); ++s)
            out[s] = noise3(set.points()[set.offsets()[s]] * 3.0f, 28161) * 0.5f + 0.5f;
    }
};
struct PointArithmetic : PerPoint {
    static constexpr const char* kText = "(px * 0.5 + pz * pz) / 10 - py * 2 + 1";
    static void plain(std::span<float> out) {
        const std::span<const Vec3f> points = hair().set.points();
        for (std::size_t i = 0; i < out.size(); ++i) {
            const Vec3f p = points[i];
            out[i] = (p.x * 0.5f + p.z * p.z) / 10.0f - p.y * 2.0f + 1.0f;
        }
    }
};
struct PointChannels : PerPoint {
    static constexpr const char* kText =
        "mix(1, 0.15, share * share) * (0.8 + 0.4 * tone) - (pt > 0.9 ? 0.05 : 0)";
    static void plain(std::span<float> out) {
        const Hair& h = hair();
        for (std::size_t s = 0; s < h.set.strandCount(); ++s) {
            const std::size_t first = h.set.offsets()[s], count = h.set.pointCountOf(s);
            for (std::size_t k = 0; k < count; ++k) {
                const float share = h.share[first + k];
                out[first + k] =
                    (1.0f + (0.15f - 1.0f) * (share * share)) * (0.8f + 0.4f * h.tone[s]) -
                    (float(k) / float(count - 1) > 0.9f ? 0.05f : 0.0f);
            }
        }
    }
};
struct Taper : PerPoint {
    static constexpr const char* kText = "(1 - t * t) * 0.7 + 0.1 * rand";
    static void plain(std::span<float> out) {
        const StrandSet& set = hair().set;
        for (std::size_t s = 0; s < set.strandCount(); ++s) {
            const std::size_t first = set.offsets()[s], count = set.pointCountOf(s);
            const float random =
                unitHash(hashCombine(mix64(set.ids()[s]), std::uint64_t(0x72616E64)));
            const std::span<float> own = out.subspan(first, count);
            polylineShares(set.pointsOf(s), own);
            for (float& t : own) t = (1.0f - t * t) * 0.7f + 0.1f * random;
        }
    }
};
struct PointFbm : PerPoint {
    static constexpr const char* kText = "fbm(pointP * 2, 3) * t";
    static void plain(std::span<float> out) {
        const StrandSet& set = hair().set;
        for (std::size_t s = 0; s < set.strandCount(); ++s) {
            const std::size_t first = set.offsets()[s], count = set.pointCountOf(s);
            polylineShares(set.pointsOf(s), out.subspan(first, count));
            for (std::size_t k = 0; k < count; ++k) {
                const Vec3f p = set.points()[first + k] * 2.0f;
                float sum = 0.0f, norm = 0.0f, amplitude = 1.0f, frequency = 1.0f;
                for (std::uint64_t octave = 0; octave < 3; ++octave) {
                    sum += noise3(p * frequency, 64256 + octave) * amplitude;
                    norm += amplitude;
                    frequency *= 2.0f;
                    amplitude *= 0.5f;
                }
                out[first + k] = sum / norm * out[first + k];
            }
        }
    }
};

template <class Formula>
void plainFormula(benchmark::State& state) {
    std::vector<float> out(Formula::size());
    for (auto _ : state) {
        Formula::plain(out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(out.size()));
}

template <class Formula>
void expression(benchmark::State& state) {
    const ExpressionEnvironment environment;
    const ExpressionPtr map = compileExpression(Formula::kText, environment, true);
    const ExpressionMap::Bound bound = map->bind(hair().set, environment);
    std::vector<float> out(Formula::size()), expected(Formula::size());
    Formula::plain(expected);
    Formula::evaluate(bound, out);
    if (std::memcmp(out.data(), expected.data(), out.size() * sizeof(float)) != 0)
        return state.SkipWithError("result differs from the plain formula");
    for (auto _ : state) {
        Formula::evaluate(bound, out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(out.size()));
}

#define CORVELLE_FORMULA(Formula)                                            \
    BENCHMARK(plainFormula<Formula>)->Name("expression/" #Formula "/plain"); \
    BENCHMARK(expression<Formula>)->Name("expression/" #Formula "/batch")
CORVELLE_FORMULA(RootArithmetic);
CORVELLE_FORMULA(ChannelArithmetic);
CORVELLE_FORMULA(FitLength);
CORVELLE_FORMULA(RootNoise);
CORVELLE_FORMULA(PointArithmetic);
CORVELLE_FORMULA(PointChannels);
CORVELLE_FORMULA(Taper);
CORVELLE_FORMULA(PointFbm);
#undef CORVELLE_FORMULA

/// What a param edit pays before the first strand.
void compileText(benchmark::State& state) {
    const ExpressionEnvironment environment;
    for (auto _ : state)
        benchmark::DoNotOptimize(ExpressionMap(ChannelArithmetic::kText, environment, true));
}
void compileCached(benchmark::State& state) {
    const ExpressionEnvironment environment;
    const std::string text = ChannelArithmetic::kText;
    for (auto _ : state) benchmark::DoNotOptimize(compileExpression(text, environment, true));
}
BENCHMARK(compileText)->Name("expression/compile/text");
BENCHMARK(compileCached)->Name("expression/compile/cached");

}  // namespace
}  // namespace corvelle
