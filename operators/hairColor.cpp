#include "operators/hairColor.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "graph/colorMap.h"
#include "model/elementary.h"
#include "model/hash.h"
#include "model/polyline.h"
#include "operators/fieldValues.h"
#include "operators/hairPigment.h"
#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"

namespace corvelle {

Vec3f adjustHsv(Vec3f rgb, float hueTurns, float saturationScale, float valueScale) {
    const float hi = std::max({rgb.x, rgb.y, rgb.z});
    const float lo = std::min({rgb.x, rgb.y, rgb.z});
    if (!(hi > 0.0f)) return rgb * valueScale;
    const float chroma = hi - lo;
    float hue = 0.0f;  // sixths of a turn
    if (chroma > 0.0f) {
        if (hi == rgb.x)
            hue = (rgb.y - rgb.z) / chroma;
        else if (hi == rgb.y)
            hue = 2.0f + (rgb.z - rgb.x) / chroma;
        else
            hue = 4.0f + (rgb.x - rgb.y) / chroma;
    }
    hue += 6.0f * hueTurns;
    hue -= 6.0f * std::floor(hue / 6.0f);
    const float saturation = std::clamp(chroma / hi * saturationScale, 0.0f, 1.0f);
    const float value = hi * valueScale;
    const auto component = [&](float offset) {
        float k = hue + offset;
        k -= k >= 6.0f ? 6.0f : 0.0f;
        return value - value * saturation * std::clamp(std::min(k, 4.0f - k), 0.0f, 1.0f);
    };
    return {component(5.0f), component(3.0f), component(1.0f)};
}

namespace {

// Hashed once: every strand draws from them.
constexpr std::uint64_t kGrey = hashOf("HairColor.grey");
constexpr std::uint64_t kMelaninUse = hashOf("HairColor.melanin");
constexpr std::uint64_t kRednessUse = hashOf("HairColor.redness");
constexpr std::uint64_t kValueUse = hashOf("HairColor.value");
constexpr std::uint64_t kHueUse = hashOf("HairColor.hue");
constexpr std::uint64_t kSaturationUse = hashOf("HairColor.saturation");

/// One signed draw of a strand, partly its clump's.
class StrandRandom {
public:
    StrandRandom(const HairColorInput& strand, const HairColorSettings& settings)
        : id_(strand.id),
          seed_(settings.seed),
          share_(strand.clump < 0.0f ? 0.0f : settings.clumpShare),
          clump_(std::bit_cast<std::uint32_t>(strand.clump)) {}
    float operator()(std::uint64_t use) const {
        const std::uint64_t base = drawBase(seed_, use);
        const float own = drawSigned(base, id_);
        return share_ > 0.0f ? mix(own, drawSigned(mix64(base), clump_), share_) : own;
    }

private:
    std::uint64_t id_, seed_;
    float share_;
    std::uint64_t clump_;
};

}  // namespace

HairColorResult hairColor(const HairColorInput& strand, const HairColorSettings& settings) {
    const StrandRandom random(strand, settings);
    HairColorResult out;
    if (draw(drawBase(settings.seed, kGrey), strand.id) < strand.grey) {
        out.melanin = kGreyMelanin;
    } else {
        const auto varied = [&](float value, float amount, std::uint64_t use) {
            return std::clamp(amount > 0.0f ? value + amount * random(use) : value, 0.0f, 1.0f);
        };
        out.melanin = varied(strand.melanin, settings.melaninRandom, kMelaninUse);
        out.redness = varied(strand.redness, settings.rednessRandom, kRednessUse);
    }
    const bool byMap = strand.map && !settings.multiplyMap;
    const float value =
        settings.valueRandom > 0.0f ? 1.0f + settings.valueRandom * random(kValueUse) : 1.0f;
    if (!byMap && value != 1.0f) {
        // Lighter or darker as less or more pigment, so that the look stays a pigment's.
        const float green = pigmentColor(out.melanin, out.redness).y * value;
        out.melanin = melaninOfGreen(green, out.redness);
    }
    Vec3f rgb = byMap ? *strand.map * value : pigmentColor(out.melanin, out.redness);
    if (strand.map && settings.multiplyMap) rgb = rgb * *strand.map;
    rgb = rgb * settings.dye;
    const float hue =
        settings.hueShift +
        (settings.hueRandom > 0.0f ? 0.5f * settings.hueRandom * random(kHueUse) : 0.0f);
    const float saturation =
        settings.saturationScale * (settings.saturationRandom > 0.0f
                                        ? 1.0f + settings.saturationRandom * random(kSaturationUse)
                                        : 1.0f);
    if (hue != 0.0f || saturation != 1.0f || settings.valueScale != 1.0f)
        rgb = adjustHsv(rgb, hue, saturation, settings.valueScale);
    out.rgb = rgb;
    return out;
}

namespace {

constexpr Vec3f kDefaultTip{0.55f, 0.35f, 0.18f};

ParamSpec share(const char* name, double value, const char* description, const char* group = "") {
    return {.name = name,
            .defaultValue = value,
            .description = description,
            .unit = "fraction",
            .group = group,
            .softMin = 0.0,
            .softMax = 1.0,
            .min = 0.0,
            .max = 1.0};
}
ParamSpec level(const char* name, double value, const char* description, const char* group = "") {
    ParamSpec spec = share(name, value, description, group);
    spec.unit.clear();
    return spec;
}
ParamSpec scale(const char* name, const char* description) {
    return {.name = name,
            .defaultValue = 1.0,
            .description = description,
            .softMin = 0.0,
            .softMax = 2.0,
            .min = 0.0};
}

std::vector<ParamSpec> makeParams() {
    std::vector<ParamSpec> params = {
        level("melanin", 0.35, "Pigment, 0 (blond, white) to 1 (black) (mappable)"),
        level("redness", 0.2, "Pigment redness, 0 (brown) to 1 (red) (mappable)"),
        {.name = "dye",
         .defaultValue = Vec3f{1.0f, 1.0f, 1.0f},
         .description = "Tint over the pigment, linear RGB (white: none); the hair shader's dye",
         .unit = "color"},
        share("grey", 0.0, "Fraction of grey strands (mappable)"),
        {.name = "map",
         .defaultValue = std::string(),
         .description = "Color read as RGB at each root (empty: none): a map painted in Groom "
                        "Tools > Paint, by name "
                        "(a color map's color, a gray map's value as gray), a color set of that "
                        "name on the scalp, or "
                        "an image file sampled at the scalp's UVs"},
        {.name = "mode",
         .defaultValue = std::string("replace"),
         .description = "How the map sets the color: replace the pigment's, or multiply it",
         .choices = {"replace", "multiply"}},
        {.name = "colorSource",
         .defaultValue = std::string("auto"),
         .description = "What Arnold renders the strands by: auto (the pigment, or the RGB for the "
                        "whole groom when "
                        "any color node colors by more than it), melanin (the pigment and dye "
                        "only), rgb (the RGB), or "
                        "mix (per strand by dyeAmount). Any but auto mixes the two looks strand by "
                        "strand in one groom",
         .choices = {"auto", "melanin", "rgb", "mix"}},
        share("dyeAmount", 1.0,
              "With colorSource mix: each strand's share of the RGB look, 0 (the pigment) to 1 "
              "(mappable, per strand: "
              "a map, or an expression such as step(0.7, rand))"),
        level("melaninRandom", 0.1, "Random pigment offset per strand, +/-", "Random"),
        level("rednessRandom", 0.05, "Random redness offset per strand, +/-", "Random"),
        share("hueRandom", 0.0, "Random hue turn per strand, 0-1 (1: up to half a turn either way)",
              "Random"),
        share("saturationRandom", 0.0,
              "Random saturation scale per strand, 0-1 (+/- that fraction)", "Random"),
        share("valueRandom", 0.0,
              "Random brightness scale per strand, 0-1 (+/- that fraction): as more or less "
              "melanin where the pigment "
              "colors the strand, so the look stays the pigment's",
              "Random"),
        {.name = "hueShift",
         .defaultValue = 0.0,
         .description = "Turns the hue of every strand, in turns",
         .unit = "turns",
         .softMin = -0.5,
         .softMax = 0.5},
        scale("saturationScale", "Scales the saturation of every strand"),
        scale("valueScale", "Scales the brightness of every strand"),
        share("clumpShare", 0.5,
              "Share of the randomness common to a clump (the clumpChannel), 0-1"),
        {.name = "clumpChannel",
         .defaultValue = std::string("clumpId"),
         .description = "The channel naming each strand's clump, for clumpShare: a Clump's "
                        "clumpChannel (clumpId by "
                        "default; with chained Clumps, the one whose clumps should share a color)"},
        {.name = "tipColor",
         .defaultValue = kDefaultTip,
         .description = "Color the strands blend toward at the tip, linear RGB",
         .unit = "color"},
        share("tipStrength", 0.0,
              "How far toward tipColor the tip goes, 0-1 (mappable, per point: a painted per-point "
              "layer or an "
              "expression of t paints color along the strands; set tipProfile flat to use it "
              "alone); above 0 the color "
              "is also written per point (at 0, per-point colors from an earlier color node are "
              "removed)"),
        {.name = "tipProfile",
         .defaultValue = Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}}),
         .description = "Blend to tipColor along the length, root to tip, times tipStrength"},
        {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
    };
    for (ParamSpec& spec : params)
        if (spec.name == "dyeAmount") spec.showWhen = {{.param = "colorSource", .values = {"mix"}}};
    return params;
}

/// The channels written, in the order of their arrays.
enum StrandArray { kR, kG, kB, kMelanin, kRedness, kDyeR, kDyeG, kDyeB, kDyeAmount };
enum PointArray { kPointR, kPointG, kPointB, kPointMelanin, kPointRedness };

class HairColorWork final : public StrandWork {
public:
    FieldPtr melanin, redness, grey, tipStrength, dyeAmount;  ///< dyeAmount null: not written
    NamedMapPtr map;
    HairColorSettings settings;
    std::string clumpChannel;
    Vec3f tipColor;
    Ramp tipProfile;
    bool tips = false;

    WrittenArrays writes() const override {
        const Vec3f plain = pigmentColor(kDefaultMelanin, kDefaultRedness);
        WrittenArrays writes;
        writes.strandChannels = {{"colorR", plain.x},
                                 {"colorG", plain.y},
                                 {"colorB", plain.z},
                                 {"melanin", kDefaultMelanin},
                                 {"redness", kDefaultRedness},
                                 {"dyeR", 1.0f},
                                 {"dyeG", 1.0f},
                                 {"dyeB", 1.0f}};
        if (dyeAmount) writes.strandChannels.push_back({"dyeAmount", 1.0f});
        if (tips)
            writes.pointChannels = {{"colorR", plain.x},
                                    {"colorG", plain.y},
                                    {"colorB", plain.z},
                                    {"melanin", kDefaultMelanin},
                                    {"redness", kDefaultRedness}};
        return writes;
    }
    std::vector<std::string> removedPointChannels() const override {
        if (tips) return {};
        return {"colorR", "colorG", "colorB", "melanin", "redness"};
    }
    bool readsWholeSet() const override {
        return melanin->readsWholeSet() || redness->readsWholeSet() || grey->readsWholeSet() ||
               tipStrength->readsWholeSet() || (dyeAmount && dyeAmount->readsWholeSet());
    }

    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        constexpr std::size_t kBatch = StrandPick::kBatch;
        std::array<float, kBatch> melanins, rednesses, greys, dyeAmounts;
        const std::size_t n = strands.size();
        melanin->sampleStrands(in, strands, std::span(melanins).first(n));
        redness->sampleStrands(in, strands, std::span(rednesses).first(n));
        grey->sampleStrands(in, strands, std::span(greys).first(n));
        if (dyeAmount) dyeAmount->sampleStrands(in, strands, std::span(dyeAmounts).first(n));
        const std::vector<float>* clumps =
            clumpChannel.empty() ? nullptr : in.strandChannel(clumpChannel);
        const std::vector<float>* layer =
            map && !map->channel().empty() ? in.strandChannel(map->channel()) : nullptr;

        std::array<HairColorResult, kBatch> colors;
        for (std::size_t k = 0; k < n; ++k) {
            const std::size_t s = strands[k];
            Vec3f mapped;
            if (layer) {
                mapped = Vec3f{1.0f, 1.0f, 1.0f} * (*layer)[s];
            } else if (map) {
                const auto points = in.pointsOf(s);
                const Color4f c =
                    map->colorAt(in.roots()[s], points.empty() ? Vec3f{} : points.front());
                mapped = {c.r, c.g, c.b};
            }
            const HairColorInput strand{.id = in.ids()[s],
                                        .clump = clumps ? (*clumps)[s] : -1.0f,
                                        .melanin = melanins[k],
                                        .redness = rednesses[k],
                                        .grey = greys[k],
                                        .map = map ? &mapped : nullptr};
            colors[k] = hairColor(strand, settings);
            const HairColorResult& c = colors[k];
            const auto put = [&](StrandArray array, float value) {
                out.strandChannels[array][s] = value;
            };
            put(kR, c.rgb.x);
            put(kG, c.rgb.y);
            put(kB, c.rgb.z);
            put(kMelanin, c.melanin);
            put(kRedness, c.redness);
            put(kDyeR, settings.dye.x);
            put(kDyeG, settings.dye.y);
            put(kDyeB, settings.dye.z);
            if (dyeAmount) put(kDyeAmount, std::clamp(dyeAmounts[k], 0.0f, 1.0f));
        }
        if (tips) runTips(in, strands, colors, out);
    }

private:
    void runTips(const StrandSet& in, std::span<const std::uint32_t> strands,
                 std::span<const HairColorResult> colors, const OpenArrays& out) const {
        std::array<std::size_t, StrandPick::kBatch> starts;
        std::vector<float> strengths(batchOffsets(in, strands, starts));
        tipStrength->samplePoints(in, strands, strengths);
        std::size_t most = 0;
        for (const std::uint32_t s : strands) most = std::max(most, in.pointCountOf(s));
        std::vector<float> shares(most);
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const std::size_t count = in.pointCountOf(s);
            const std::span<float> along = std::span(shares).first(count);
            polylineShares(in.pointsOf(s), along);
            tipProfile.sample(along, along);
            const HairColorResult& root = colors[k];
            for (std::size_t i = 0; i < count; ++i) {
                const float w = std::clamp(strengths[starts[k] + i] * along[i], 0.0f, 1.0f);
                const Vec3f c = mix(root.rgb, tipColor, w);
                const std::size_t p = std::size_t(in.offsets()[s]) + i;
                const auto put = [&](PointArray array, float value) {
                    out.pointChannels[array][p] = value;
                };
                put(kPointR, c.x);
                put(kPointG, c.y);
                put(kPointB, c.z);
                // As much pigment as gives the blend's green under the dye.
                const float green = settings.dye.y > 0.0f ? c.y / settings.dye.y : c.y;
                put(kPointMelanin, w > 0.0f ? melaninOfGreen(green, root.redness) : root.melanin);
                put(kPointRedness, root.redness);
            }
        }
    }
};

class HairColor final : public StrandOperator {
public:
    std::string type() const override { return "HairColor"; }
    std::string category() const override { return "color"; }
    std::string description() const override {
        return "The hair's color: pigment and dye, a map, greys, randomness and a tip color.";
    }
    std::vector<ParamSpec> spec() const override {
        static const std::vector<ParamSpec> params = makeParams();
        return params;
    }
    std::uint32_t contextReads() const override { return reads::kScalp | reads::kMaps; }
    std::uint64_t contextHash(const EvalContext& context) const override {
        return text("map").empty() ? 0 : colorMapHash(text("map"), context.data());
    }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<HairColorWork>();
        const std::string& source = choice("colorSource");
        const auto field = [&](const char* param) {
            return fieldFromParam(*this, param, context, strands);
        };
        work->melanin = field("melanin");
        work->redness = field("redness");
        work->grey = field("grey");
        work->tipStrength = field("tipStrength");
        work->dyeAmount =
            source == "auto" ? nullptr
            : source == "mix"
                ? field("dyeAmount")
                : std::make_shared<const ConstantFieldValue>(source == "rgb" ? 1.0f : 0.0f);
        if (!text("map").empty()) {
            const ColorMapLookup found = readColorMap(text("map"), context);
            const bool byLayer = found.kind == ColorMapLookup::Kind::Guides;
            if (!found.map || (byLayer && !strands.strandChannel(found.map->channel())))
                throw GraphError("HairColor: " +
                                 colorMapFaultText(found, text("map"), "HairColor"));
            work->map = found.sRgb ? linearMap(found.map) : found.map;
        }
        work->settings = {.melaninRandom = float(number("melaninRandom")),
                          .rednessRandom = float(number("rednessRandom")),
                          .hueRandom = float(number("hueRandom")),
                          .saturationRandom = float(number("saturationRandom")),
                          .valueRandom = float(number("valueRandom")),
                          .hueShift = float(number("hueShift")),
                          .saturationScale = float(number("saturationScale")),
                          .valueScale = float(number("valueScale")),
                          .clumpShare = float(number("clumpShare")),
                          .dye = vec3("dye"),
                          .multiplyMap = choice("mode") == "multiply",
                          .seed = seed()};
        work->clumpChannel = text("clumpChannel");
        work->tipColor = vec3("tipColor");
        work->tipProfile = ramp("tipProfile");
        work->tips = work->tipStrength->constant() != 0.0f;
        if (!work->tips && work->tipColor != kDefaultTip)
            warn("tipColor is set but tipStrength is 0: raise tipStrength to see it");
        return work;
    }

private:
    /// An 8-bit picture's colours are sRGB (IEC 61966-2-1); strands carry linear ones.
    class LinearMap final : public NamedMap {
    public:
        explicit LinearMap(NamedMapPtr map) : map_(std::move(map)) {}
        float at(const StrandRoot& root, Vec3f position, MapComponent component) const override {
            return map_->at(root, position, component);
        }
        Color4f colorAt(const StrandRoot& root, Vec3f position) const override {
            const Color4f c = map_->colorAt(root, position);
            return {linear(c.r), linear(c.g), linear(c.b), c.a};
        }
        std::uint64_t hash() const override { return map_->hash(); }

    private:
        static float linear(float v) {
            return v <= 0.04045f ? v / 12.92f : math::pow((v + 0.055f) / 1.055f, 2.4f);
        }
        NamedMapPtr map_;
    };
    static NamedMapPtr linearMap(NamedMapPtr map) {
        return std::make_shared<const LinearMap>(std::move(map));
    }
};

}  // namespace

OperatorPtr makeHairColor() { return std::make_unique<HairColor>(); }

}  // namespace corvelle
