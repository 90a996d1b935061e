#include "hosts/blender/helper/displayGeometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "hosts/blender/helper/colorScales.h"
#include "model/elementary.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"

namespace corvelle {
namespace {

constexpr int kSpanSegments = 4;   ///< of a guide's curve, unless told
constexpr int kMostSegments = 64;  ///< of one span
constexpr int kTubeSides = 8;
constexpr int kTubeWires = 4;        ///< along a tube
constexpr float kLift = 0.0015f;     ///< of the scalp's size: lines on it stand off by this
constexpr float kArrowSize = 0.02f;  ///< of the scalp's size
constexpr int kSinkSegments = 32;
constexpr std::size_t kGuideGrain = 32;
constexpr char kFreeze[] = "freeze";

Vec3f colorOf(const Rgb& rgb) { return {rgb[0], rgb[1], rgb[2]}; }

/// A guide that is drawn, and where its vertices go.
struct Drawn {
    const Guide* guide = nullptr;
    std::int32_t level = 0;
    std::size_t samples = 0;  ///< of its curve
    std::size_t first = 0;    ///< vertex
};

int spanSegments(const DisplaySettings& settings) {
    if (!settings.guideSmoothing) return 1;
    return settings.guideDisplaySegments > 0
               ? std::min(settings.guideDisplaySegments, kMostSegments)
               : kSpanSegments;
}

/// The guides to draw, each with room for verticesOf(samples) vertices, in the order of the
/// hierarchy.
template <class Chosen, class VerticesOf>
std::vector<Drawn> drawnGuides(const DisplaySource& source, const DisplaySettings& settings,
                               int perSpan, DisplayGeometry& out, const Chosen& chosen,
                               const VerticesOf& verticesOf) {
    const GuideHierarchy& hierarchy = *source.hierarchy;
    const std::set<std::uint32_t> hidden = hiddenGroupIds(hierarchy, settings.hiddenGuideGroups);
    std::vector<Drawn> drawn;
    std::size_t count = 0;
    for (const GuidePtr& guide : hierarchy.guides()) {
        if (guide->points.size() < 2 || hidden.contains(guide->group)) continue;
        const std::int32_t level = guide->detail ? guide->detail->level : 0;
        if (settings.displayLevel >= 0 && level != settings.displayLevel) continue;
        if (!source.solo.empty() && !source.solo.contains(guide->id)) continue;
        if (!chosen(*guide)) continue;
        const std::size_t samples = (guide->points.size() - 1) * std::size_t(perSpan) + 1;
        drawn.push_back({guide.get(), level, samples, count});
        count += verticesOf(samples);
    }
    out.positions.resize(count);
    out.colors.resize(count);
    return drawn;
}

template <class Body>
void forEachGuide(const std::vector<Drawn>& drawn, const Body& body) {
    parallelRange(0, drawn.size(), kGuideGrain, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> curve;
        for (std::size_t g = begin; g < end; ++g) {
            curve.resize(drawn[g].samples);
            body(drawn[g], curve);
        }
    });
}

void sampleCurve(const Guide& guide, int perSpan, std::span<Vec3f> curve) {
    if (perSpan == 1)
        std::ranges::copy(guide.points, curve.begin());
    else
        catmullRom(guide.points, perSpan, curve);
}

std::size_t linePairs(std::size_t samples) { return 2 * (samples - 1); }

void writeLine(std::span<const Vec3f> curve, Vec3f* to) {
    for (std::size_t i = 1; i < curve.size(); ++i) {
        *to++ = curve[i - 1];
        *to++ = curve[i];
    }
}

float weightIn(const std::shared_ptr<const GuideWeights>& weights, std::uint64_t id) {
    if (!weights) return 0.0f;
    const auto found = weights->find(id);
    return found == weights->end() ? 0.0f : found->second;
}

/// How frozen a guide is, 0 to 1.
float frozenShare(const DisplaySource& source, const Guide& guide) {
    if (source.frozen && source.frozen->contains(guide.id)) return 1.0f;
    const auto mask = guide.attributes.find(kFreeze);
    return mask == guide.attributes.end() ? 0.0f : std::clamp(mask->second, 0.0f, 1.0f);
}

/// Colours of guides before selection and freezing, by the mode of the settings.
class GuideColors {
public:
    GuideColors(const DisplaySource& source, const DisplaySettings& settings)
        : source_(source), settings_(settings) {
        if (settings.guideColorMode != "group") return;
        for (const GuideGroup& group : source.hierarchy->groups()) {
            const auto own = settings.guideGroupColors.find(group.name);
            byGroup_[group.id] =
                own != settings.guideGroupColors.end()
                    ? colorOf(own->second)
                    : hsvColor(unitHash(hashCombine(mix64(group.name.size()), group.name)), 0.6f,
                               0.9f);
        }
    }
    /// At a share 0..1 of the guide.
    Vec3f operator()(const Drawn& drawn, float share) const {
        const float frozen = frozenShare(source_, *drawn.guide);
        const Vec3f base = frozen < 1.0f ? own(drawn, share) : Vec3f{};
        return mix(base, colorOf(settings_.theme.frozen), frozen);
    }
    bool varies() const { return settings_.guideColorMode == "layer"; }

private:
    Vec3f own(const Drawn& drawn, float share) const {
        const Guide& guide = *drawn.guide;
        if (settings_.guideColorMode == "layer") return heatColor(layerValue(guide, share));
        if (const auto found = byGroup_.find(guide.group); found != byGroup_.end())
            return found->second;
        if (!settings_.themedGuideColors) return colorOf(settings_.guideColor);
        const std::vector<Rgb>& levels = settings_.theme.levels;
        return colorOf(levels[std::size_t(drawn.level) % levels.size()]);
    }
    float layerValue(const Guide& guide, float share) const {
        const auto along = guide.pointAttributes.find(settings_.guideColorLayer);
        if (along != guide.pointAttributes.end() && !along->second.empty()) {
            const std::vector<float>& values = along->second;
            const float at = share * float(values.size() - 1);
            const std::size_t i = std::min(std::size_t(at), values.size() - 1);
            const float next = values[std::min(i + 1, values.size() - 1)];
            return values[i] + (next - values[i]) * (at - float(i));
        }
        const auto value = guide.attributes.find(settings_.guideColorLayer);
        return value == guide.attributes.end() ? 0.0f : value->second;
    }

    const DisplaySource& source_;
    const DisplaySettings& settings_;
    std::map<std::uint32_t, Vec3f> byGroup_;
};

/// The cross-sections of a guide's tube: kTubeSides points at each of its own points.
void tubeRings(const Guide& guide, std::vector<GuideFrame>& frames, std::vector<Vec3f>& rings) {
    const std::size_t n = guide.points.size();
    frames.resize(n);
    rings.resize(n * kTubeSides);
    guideFrames(guide.points, guide.frameUp, frames);
    for (std::size_t i = 0; i < n; ++i) {
        const float share = float(i) / float(n - 1);
        const float radius = tubeProfile(guide.tubeRadius, share);
        for (int k = 0; k < kTubeSides; ++k) {
            const float angle = 2.0f * std::numbers::pi_v<float> * float(k) / float(kTubeSides) +
                                guide.tubeTwist * share;
            rings[i * kTubeSides + std::size_t(k)] =
                guide.points[i] +
                (frames[i].N * math::cos(angle) + frames[i].B * math::sin(angle)) * radius;
        }
    }
}

/// Where lines on the scalp are drawn: a little above it.
Vec3f onSurface(const ScalpMesh& scalp, const StrandRoot& root) {
    return scalp.surfacePoint(root) + scalp.surfaceNormal(root) * (kLift * scalp.size());
}

}  // namespace

void buildGuides(const DisplaySource& source, const DisplaySettings& settings,
                 DisplayGeometry& out) {
    const int perSpan = spanSegments(settings);
    const GuideColors colors(source, settings);
    const auto all = [](const Guide&) { return true; };
    const std::vector<Drawn> drawn = drawnGuides(source, settings, perSpan, out, all, linePairs);
    forEachGuide(drawn, [&](const Drawn& d, std::vector<Vec3f>& curve) {
        sampleCurve(*d.guide, perSpan, curve);
        writeLine(curve, out.positions.data() + d.first);
        Vec3f* to = out.colors.data() + d.first;
        const std::size_t count = linePairs(d.samples);
        if (!colors.varies()) {
            std::fill_n(to, count, colors(d, 0.0f));
            return;
        }
        for (std::size_t i = 0; i < count; ++i)
            to[i] = colors(d, float((i + 1) / 2) / float(d.samples - 1));
    });
}

void buildSelection(const DisplaySource& source, const DisplaySettings& settings,
                    DisplayGeometry& out) {
    const int perSpan = spanSegments(settings);
    const auto picked = [&](const Guide& guide) {
        return weightIn(source.selection, guide.id) > 0.0f;
    };
    const std::vector<Drawn> drawn = drawnGuides(source, settings, perSpan, out, picked, linePairs);
    const Vec3f hard = colorOf(settings.theme.selected),
                soft = colorOf(settings.theme.softSelected);
    forEachGuide(drawn, [&](const Drawn& d, std::vector<Vec3f>& curve) {
        sampleCurve(*d.guide, perSpan, curve);
        writeLine(curve, out.positions.data() + d.first);
        const float weight = weightIn(source.selection, d.guide->id);
        std::fill_n(out.colors.data() + d.first, linePairs(d.samples),
                    weight >= 1.0f ? hard : soft * weight);
    });
}

void buildDots(const DisplaySource& source, const DisplaySettings& settings, DisplayGeometry& out) {
    const bool ends = settings.guidePoints == "ends";
    const GuideColors colors(source, settings);
    const auto all = [](const Guide&) { return true; };
    const auto count = [&](std::size_t points) { return ends ? std::size_t(2) : points; };
    const std::vector<Drawn> drawn = drawnGuides(source, settings, 1, out, all, count);
    forEachGuide(drawn, [&](const Drawn& d, std::vector<Vec3f>&) {
        const std::vector<Vec3f>& points = d.guide->points;
        const float weight = weightIn(source.selection, d.guide->id);
        for (std::size_t i = 0; i < count(points.size()); ++i) {
            const std::size_t at = ends && i == 1 ? points.size() - 1 : i;
            Vec3f color = colors(d, float(at) / float(points.size() - 1));
            if (weight > 0.0f)
                color = mix(
                    color,
                    colorOf(weight >= 1.0f ? settings.theme.selected : settings.theme.softSelected),
                    weight);
            out.positions[d.first + i] = points[at];
            out.colors[d.first + i] = color;
        }
    });
}

void buildTubes(const DisplaySource& source, const DisplaySettings& settings,
                DisplayGeometry& out) {
    const auto all = [](const Guide&) { return true; };
    const auto count = [](std::size_t points) { return (points - 1) * kTubeSides * 6; };
    const std::vector<Drawn> drawn = drawnGuides(source, settings, 1, out, all, count);
    const Vec3f fill = colorOf(settings.theme.dormantFilled),
                selected = colorOf(settings.theme.selection);
    forEachGuide(drawn, [&](const Drawn& d, std::vector<Vec3f>& rings) {
        std::vector<GuideFrame> frames;
        tubeRings(*d.guide, frames, rings);
        Vec3f* to = out.positions.data() + d.first;
        for (std::size_t i = 0; i + 1 < d.guide->points.size(); ++i)
            for (std::size_t k = 0; k < kTubeSides; ++k) {
                const std::size_t a = i * kTubeSides + k, b = i * kTubeSides + (k + 1) % kTubeSides;
                const std::size_t c = a + kTubeSides, e = b + kTubeSides;
                for (const std::size_t corner : {a, b, e, a, e, c}) *to++ = rings[corner];
            }
        const float weight = weightIn(source.selection, d.guide->id);
        std::fill_n(out.colors.data() + d.first, count(d.samples), mix(fill, selected, weight));
    });
}

void buildTubeWires(const DisplaySource& source, const DisplaySettings& settings,
                    DisplayGeometry& out) {
    const auto all = [](const Guide&) { return true; };
    const auto count = [](std::size_t points) {
        return (points - 1) * kTubeWires * 2 + 2 * kTubeSides * 2;
    };
    const std::vector<Drawn> drawn = drawnGuides(source, settings, 1, out, all, count);
    const DisplayTheme& theme = settings.theme;
    forEachGuide(drawn, [&](const Drawn& d, std::vector<Vec3f>& rings) {
        std::vector<GuideFrame> frames;
        tubeRings(*d.guide, frames, rings);
        const std::size_t last = d.guide->points.size() - 1;
        Vec3f* to = out.positions.data() + d.first;
        for (std::size_t i = 0; i < last; ++i)
            for (std::size_t wire = 0; wire < kTubeWires; ++wire) {
                const std::size_t at = i * kTubeSides + wire * (kTubeSides / kTubeWires);
                *to++ = rings[at];
                *to++ = rings[at + kTubeSides];
            }
        for (const std::size_t ring : {std::size_t(0), last})
            for (std::size_t k = 0; k < kTubeSides; ++k) {
                *to++ = rings[ring * kTubeSides + k];
                *to++ = rings[ring * kTubeSides + (k + 1) % kTubeSides];
            }
        const Vec3f own =
            colorOf(d.level == source.toolLevel ? theme.activeWire : theme.dormantWire);
        std::fill_n(out.colors.data() + d.first, count(d.samples),
                    mix(own, colorOf(theme.selection), weightIn(source.selection, d.guide->id)));
    });
}

void buildFlow(const DisplaySource& source, const DisplaySettings&, DisplayGeometry& out) {
    const ScalpMesh& scalp = *source.scalp;
    const float size = kArrowSize * scalp.size();
    for (const FlowPin& pin : source.flow->pins) {
        if (!scalp.validRoot(pin.at)) continue;
        const Vec3f at = onSurface(scalp, pin.at), along = flowPinDirection(scalp, pin);
        const Vec3f side = cross(scalp.surfaceNormal(pin.at), along);
        const Vec3f tip = at + along * (0.5f * size), neck = tip - along * (0.3f * size);
        const Vec3f line[] = {at - along * (0.5f * size),   tip, tip,
                              neck + side * (0.15f * size), tip, neck - side * (0.15f * size)};
        out.positions.insert(out.positions.end(), std::begin(line), std::end(line));
    }
    for (const FlowSink& sink : source.flow->sinks) {
        if (!scalp.validRoot(sink.at)) continue;
        const SurfaceFrame frame = scalp.surfaceFrame(sink.at);
        const Vec3f middle = onSurface(scalp, sink.at);
        const auto place = [&](int i, float radius) {
            const float angle =
                2.0f * std::numbers::pi_v<float> * float(i % kSinkSegments) / float(kSinkSegments);
            return middle +
                   (frame.tangent * math::cos(angle) + frame.binormal * math::sin(angle)) * radius;
        };
        for (int i = 0; i < kSinkSegments; ++i) {
            out.positions.push_back(place(i, sink.radius));
            out.positions.push_back(place(i + 1, sink.radius));
        }
        // Spokes leaning the way hair turns.
        const float lean = sink.angle * std::numbers::pi_v<float> / 180.0f;
        for (int i = 0; i < kSinkSegments; i += kSinkSegments / 8) {
            const Vec3f from = place(i, 0.5f * sink.radius);
            const Vec3f away = normalized(from - middle), around = cross(frame.normal, away);
            out.positions.push_back(from);
            out.positions.push_back(from + (away * math::cos(lean) + around * math::sin(lean)) *
                                               (0.35f * sink.radius));
        }
    }
}

void buildParts(const DisplaySource& source, const DisplaySettings&, DisplayGeometry& out) {
    const ScalpMesh& scalp = *source.scalp;
    for (const PartLine& line : source.parts->lines) {
        const StrandRoot* before = nullptr;
        for (const StrandRoot& point : line.points) {
            if (!scalp.validRoot(point)) continue;
            if (before) {
                out.positions.push_back(onSurface(scalp, *before));
                out.positions.push_back(onSurface(scalp, point));
            }
            before = &point;
        }
    }
}

void buildClumpCenters(const DisplaySource& source, const DisplaySettings&, DisplayGeometry& out) {
    out.positions = *source.clumpCenters;
}

}  // namespace corvelle
