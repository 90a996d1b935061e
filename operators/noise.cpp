#include "operators/noise.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "model/elementary.h"
#include "model/hash.h"
#include "model/noise.h"
#include "model/polyline.h"
#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"

namespace corvelle {

float octaveWeight(float segmentsPerFeature) {
    return std::clamp((segmentsPerFeature - 2.0f) * 0.5f, 0.0f, 1.0f);
}

namespace {

constexpr std::uint64_t kLattice = hashOf("Noise.lattice");
constexpr std::uint64_t kKink = hashOf("Noise.kink");
constexpr float kRootFade = 0.2f;  ///< share of the length over which the noise fades in

float rootFade(float share) {
    const float x = std::min(share / kRootFade, 1.0f);
    return x * x * (3.0f - 2.0f * x);
}

/// Uniform in the unit ball, from a hash.
Vec3f ballVector(std::uint64_t hash) {
    SplitMix random(hash);
    const float z = random.nextRange(-1.0f, 1.0f);
    const float angle = random.nextFloat() * 2.0f * std::numbers::pi_v<float>;
    const float radius = math::cbrt(random.nextFloat());
    const float ring = std::sqrt(std::max(0.0f, 1.0f - z * z));
    return Vec3f{ring * math::cos(angle), ring * math::sin(angle), z} * radius;
}

float segmentsPerFeature(std::size_t points, float length, const NoiseSettings& settings) {
    const float features = settings.world ? settings.frequency * length : settings.frequency;
    return features > 0.0f ? float(points - 1) / features : 4.0f;
}

void smoothOffsets(std::span<const Vec3f> points, std::span<const float> shares, float length,
                   std::uint64_t id, const NoiseSettings& settings, std::span<Vec3f> out) {
    std::array<float, kMaxNoiseOctaves> weights;
    float perFeature = segmentsPerFeature(points.size(), length, settings);
    for (int k = 0; k < settings.octaves; ++k, perFeature *= 0.5f)
        weights[k] = octaveWeight(perFeature);
    const std::span<const float> used(weights.data(), std::size_t(settings.octaves));
    const std::uint64_t base = drawBase(settings.seed, kLattice);
    if (settings.world) {
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = points[i] * settings.frequency;
        fbmVectorWeighted(out, base, settings.octaves, used, out);
        return;
    }
    const std::uint64_t own = hashCombine(base, id);
    SplitMix random(own);
    const Vec3f phase{random.nextFloat(), random.nextFloat(), random.nextFloat()};
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = {shares[i] * settings.frequency + phase.x, phase.y, phase.z};
    fbmVectorWeighted(out, own, settings.octaves, used, out);
}

void kinkyOffsets(std::span<const Vec3f> points, std::span<const float> shares, float length,
                  std::uint64_t id, const NoiseSettings& settings, std::span<Vec3f> out) {
    const float weight = octaveWeight(segmentsPerFeature(points.size(), length, settings));
    const std::uint64_t base = drawBase(settings.seed, kKink);
    const std::uint64_t own = hashCombine(base, id);
    // Knots stand 1 / frequency apart along the strand, from the root.
    const float perShare = settings.world ? settings.frequency * length : settings.frequency;
    std::size_t reached = 0;  // world: the segment that the next knot lies on
    const auto knot = [&](float index) {
        if (!settings.world) return ballVector(hashCombine(own, std::int64_t(index)));
        const float share = perShare > 0.0f ? index / perShare : 0.0f;
        while (reached + 2 < points.size() && shares[reached + 1] < share) ++reached;
        const float span = shares[reached + 1] - shares[reached];
        const float along = span > 0.0f ? (share - shares[reached]) / span : 0.0f;
        return noiseVector3(mix(points[reached], points[reached + 1], along) * settings.frequency,
                            base);
    };
    float held = -1.0f;
    Vec3f from, to;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const float at = std::min(shares[i] * perShare, 1e9f);
        const float index = std::floor(at);
        if (index != held) {
            from = index == held + 1.0f && held >= 0.0f ? to : knot(index);
            to = knot(index + 1.0f);
            held = index;
        }
        out[i] = mix(from, to, at - index) * weight;
    }
}

}  // namespace

void noiseOffsets(std::span<const Vec3f> points, std::span<const float> shares, float length,
                  std::uint64_t id, const NoiseSettings& settings, std::span<Vec3f> out) {
    if (settings.kinky)
        kinkyOffsets(points, shares, length, id, settings, out);
    else
        smoothOffsets(points, shares, length, id, settings, out);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] *= rootFade(shares[i]);
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "amplitude",
     .defaultValue = 0.2,
     .description = "Displacement size, scene units (mappable, per point)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0},
    {.name = "frequency",
     .defaultValue = 3.0,
     .description = "Features per scene unit (world) or per strand length (strand)",
     .unit = "perLength",
     .softMin = 0.0,
     .softMax = 20.0,
     .unitWhen = {{.param = "space", .values = {"strand"}, .unit = ""}},
     .min = 0.0},
    {.name = "octaves",
     .defaultValue = 2.0,
     .description = "Fractal octaves",
     .showWhen = {{.param = "mode", .values = {"smooth"}}},
     .whole = true,
     .min = 0.0,
     .max = 8.0},
    {.name = "space",
     .defaultValue = std::string("strand"),
     .description = "strand: independent per strand; world: coherent across strands",
     .choices = {"strand", "world"}},
    {.name = "fraction",
     .defaultValue = 1.0,
     .description =
         "Share of the strands that get it, 0-1 (mappable): a few, at a high frequency, for frizz",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
    {.name = "mode",
     .defaultValue = std::string("smooth"),
     .description = "smooth: waves; kinky: sharp kinks, straight between random offsets frequency "
                    "apart (scraggle, "
                    "frizz)",
     .choices = {"smooth", "kinky"}},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Amplitude along the length, root to tip"},
};

class NoiseWork final : public StrandWork {
public:
    FieldPtr amplitude, fraction;
    Ramp profile;
    bool flatProfile = false;
    NoiseSettings settings;
    std::uint64_t pickBase = 0;
    std::string fineness;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return amplitude->readsWholeSet() || fraction->readsWholeSet();
    }
    std::string warning() const override { return fineness; }

    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> fractions, strandAmplitudes;
        std::array<std::size_t, StrandPick::kBatch> starts;
        const bool perPoint = amplitude->perPoint();
        const std::size_t total = batchOffsets(in, strands, starts);
        std::size_t most =
            0;  // of this batch: the set's own would be a walk over all strands a batch
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> amplitudes(perPoint ? total : 0), scratch(2 * most);
        std::vector<Vec3f> offsets(most);
        fraction->sampleStrands(in, strands, std::span(fractions).first(strands.size()));
        if (perPoint)
            amplitude->samplePoints(in, strands, amplitudes);
        else
            amplitude->sampleStrands(in, strands,
                                     std::span(strandAmplitudes).first(strands.size()));
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::size_t n = points.size();
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], n);
            if (n < 2 || !(draw(pickBase, in.ids()[s]) < fractions[k])) {
                std::copy(points.begin(), points.end(), to.begin());
                continue;
            }
            const std::span<float> shares(scratch.data(), n), profiles(scratch.data() + n, n);
            const std::span<Vec3f> offset(offsets.data(), n);
            const float length = polylineShares(points, shares);
            noiseOffsets(points, shares, length, in.ids()[s], settings, offset);
            if (!flatProfile) {
                profile.sample(shares, profiles);
                for (std::size_t i = 0; i < n; ++i) offset[i] *= profiles[i];
            }
            to[0] = points[0];
            for (std::size_t i = 1; i < n; ++i)
                to[i] = points[i] +
                        offset[i] * (perPoint ? amplitudes[starts[k] + i] : strandAmplitudes[k]);
        }
    }
};

/// The text that says that the strands are too coarse for the noise; empty when they are not. By
/// some strands spread over the set: more than half of them must be too coarse.
std::string finenessText(const StrandSet& strands, const NoiseSettings& settings) {
    constexpr std::size_t kLooked = 64;
    const std::size_t count = strands.strandCount();
    const std::size_t step = std::max<std::size_t>(1, count / kLooked);
    std::size_t looked = 0, coarse = 0, segments = 0;
    for (std::size_t s = 0; s < count; s += step) {
        const auto points = strands.pointsOf(s);
        if (points.size() < 2) continue;
        ++looked;
        const float length = settings.world ? polylineLength(points) : 1.0f;
        if (octaveWeight(segmentsPerFeature(points.size(), length, settings)) > 0.0f) continue;
        ++coarse;
        segments = points.size() - 1;
    }
    if (2 * coarse <= looked) return {};
    char value[32];
    std::snprintf(value, sizeof value, "%g", double(settings.frequency));
    return std::string("frequency ") + value + " is finer than the strands' " +
           std::to_string(segments) +
           " segments draw: the noise fades out; raise Resample's segments or lower the frequency";
}

class Noise final : public StrandOperator {
public:
    std::string type() const override { return "Noise"; }
    std::string category() const override { return "look"; }
    std::string description() const override {
        return "Random displacement; on a fraction of the strands at a high frequency, frizz.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<NoiseWork>();
        work->amplitude = fieldFromParam(*this, "amplitude", context, strands);
        work->fraction = fieldFromParam(*this, "fraction", context, strands);
        if (work->amplitude->constant() == 0.0f || work->fraction->constant() == 0.0f)
            return nullptr;
        work->profile = ramp("profile");
        if (work->profile.isConstant(0.0f)) return nullptr;
        work->flatProfile = work->profile.isConstant(1.0f);
        work->settings = {.frequency = float(number("frequency")),
                          .octaves = std::max(whole("octaves"), 1),
                          .world = choice("space") == "world",
                          .kinky = choice("mode") == "kinky",
                          .seed = seed()};
        work->pickBase = drawBase(seed(), "Noise.fraction");
        work->fineness = finenessText(strands, work->settings);
        return work;
    }
};

}  // namespace

OperatorPtr makeNoise() { return std::make_unique<Noise>(); }

}  // namespace corvelle
