// Strands into guides and guides into strands.

#include "operators/guideStrands.h"

#include <algorithm>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "operators/discreteChannels.h"
#include "operators/nodeFactories.h"
#include "operators/previewStrands.h"
#include "operators/splineResample.h"
#include "operators/strandLoop.h"

namespace corvelle {

namespace {

constexpr char kPreview[] = "_preview";

std::vector<std::uint32_t> pickedStrands(const StrandSet& in, const ToGuidesSettings& settings) {
    const std::uint64_t base = drawBase(settings.seed, "ToGuides.fraction");
    std::vector<std::uint32_t> picked;
    for (const std::uint32_t s : previewStrands(in))
        if (in.pointCountOf(s) >= 2 && draw(base, in.ids()[s]) < settings.fraction)
            picked.push_back(s);
    return picked;
}

}  // namespace

GuidesPtr guidesFromStrands(const StrandSet& in, const ToGuidesSettings& settings) {
    const std::vector<std::uint32_t> picked = pickedStrands(in, settings);
    const bool named = in.strandChannels().size() - in.strandChannels().count(kPreview) > 0 ||
                       !in.pointChannels().empty();
    std::vector<GuideView> views(picked.size());
    parallelRange(0, picked.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::size_t s = picked[k];
            GuideView& view = views[k];
            view.id = in.ids()[s] == 0 ? mix64(0) : in.ids()[s];  // 0 is no guide
            view.root = in.roots()[s];
            view.points = in.pointsOf(s);
            if (!settings.channels || !named) continue;
            auto detail = std::make_shared<GuideDetail>();
            for (const auto& [name, channel] : in.strandChannels())
                if (name != kPreview) detail->attributes.emplace(name, channel.values.span()[s]);
            for (const auto& [name, channel] : in.pointChannels()) {
                const auto values =
                    channel.values.span().subspan(std::size_t(in.offsets()[s]), view.points.size());
                detail->pointAttributes.emplace(name,
                                                std::vector<float>(values.begin(), values.end()));
            }
            view.detail = std::move(detail);
        }
    });
    return std::make_shared<const GuideSet>(std::span<const GuideView>(views));
}

StrandSet strandsFromGuides(const GuideSet& in, const ToStrandsSettings& settings) {
    const std::size_t count = in.size();
    StrandSet out;
    constexpr unsigned kFlags = StrandSet::kLeavePoints | StrandSet::kLeaveWidths;
    if (settings.segments > 0) {
        out.allocateUniform(count, settings.segments + 1, kFlags);
    } else {
        std::vector<std::uint64_t> counts(count);
        for (std::size_t g = 0; g < count; ++g) counts[g] = in.pointsOf(g).size();
        out.allocate(counts, kFlags);
    }
    std::ranges::copy(in.ids(), out.mutableIds().begin());
    std::ranges::copy(in.roots(), out.mutableRoots().begin());
    std::ranges::fill(out.mutableWidths(), settings.width);

    for (const std::string& name : in.attributeNames()) {
        const std::span<float> values = out.overwriteStrandChannel(name, 0.0f);
        for (std::size_t g = 0; g < count; ++g) values[g] = in.attribute(g, name);
        out.setStrandChannelDiscrete(name, isDiscreteName(name));
    }
    for (const std::string& name : in.pointAttributeNames()) {
        const std::span<float> values = out.overwritePointChannel(name, 0.0f);
        for (std::size_t g = 0; g < count; ++g) {
            const std::size_t first = std::size_t(out.offsets()[g]), n = out.pointCountOf(g);
            for (std::size_t i = 0; i < n; ++i)
                values[first + i] = in.pointAttribute(g, name, float(i) / float(n - 1));
        }
        out.setPointChannelDiscrete(name, isDiscreteName(name));
    }

    const std::span<Vec3f> points = out.mutablePoints();
    if (settings.segments == 0) {
        std::ranges::copy(in.points(), points.begin());
    } else if (count > 0) {
        const SplineJob job{.from = &in.points()[0].x,
                            .to = &points[0].x,
                            .fromOffsets = in.offsets().data(),
                            .toOffsets = std::as_const(out).offsets().data()};
        StrandPick(count).forEachBatch(
            [&](std::span<const std::uint32_t> batch) { SplineResampler().run(job, batch); });
    }
    return out;
}

namespace {

const std::vector<ParamSpec> kToGuidesParams = {
    {.name = "fraction",
     .defaultValue = 1.0,
     .description = "Fraction of the strands that become guides, chosen by ID (stable), of those "
                    "every preview holds (all of a small or unthinned set)",
     .unit = "fraction",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed",
     .defaultValue = 0.0,
     .description = "Random seed for the choice",
     .whole = true},
    {.name = "channels",
     .defaultValue = true,
     .description =
         "Carry strand channels over as guide attributes (point channels as per-point layers)"},
};

class ToGuides final : public Operator {
public:
    std::string type() const override { return "ToGuides"; }
    std::string category() const override { return "grow"; }
    std::string description() const override {
        return "Strands become guides, for nodes that follow guides.";
    }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    PortSpec output() const override { return {"guides", PortType::Guides}; }
    std::vector<ParamSpec> spec() const override { return kToGuidesParams; }

    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        return guidesFromStrands(*strands, {.fraction = float(number("fraction")),
                                            .seed = seed(),
                                            .channels = boolean("channels")});
    }
};

const std::vector<ParamSpec> kToStrandsParams = {
    {.name = "segments",
     .defaultValue = 0.0,
     .description = "Segments per strand (0: each guide's own points)",
     .animatable = false,
     .whole = true,
     .min = 0.0,
     .max = 256.0},
    {.name = "width",
     .defaultValue = 0.005,
     .description = "Strand width until a Width node sets it",
     .unit = "width",
     .softMin = 0.0,
     .softMax = 0.02,
     .min = 0.0},
};

class ToStrands final : public Operator {
public:
    std::string type() const override { return "ToStrands"; }
    std::string category() const override { return "grow"; }
    std::string description() const override {
        return "Guides become strands: render them, or merge them in.";
    }
    std::vector<PortSpec> inputs() const override { return {{"guides", PortType::Guides}}; }
    std::vector<ParamSpec> spec() const override { return kToStrandsParams; }

    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const GuidesPtr guides = requireGuides(*this, inputs, 0);
        return std::make_shared<const StrandSet>(strandsFromGuides(
            *guides,
            {.segments = std::size_t(whole("segments")), .width = float(number("width"))}));
    }
};

}  // namespace

OperatorPtr makeToGuides() { return std::make_unique<ToGuides>(); }
OperatorPtr makeToStrands() { return std::make_unique<ToStrands>(); }

}  // namespace corvelle
