#include "operators/mirror.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "operators/registerOperators.h"

namespace corvelle {

namespace {

constexpr std::array<std::string_view, 3> kNumbered = {"clumpId", "braidId", "featherId"};
constexpr std::array<std::string_view, 3> kNormals = {"vaneNormalX", "vaneNormalY", "vaneNormalZ"};

/// What reflecting does to a channel or attribute of a name.
enum class Turn { Keep, Renumber, Negate };
Turn turnOf(std::string_view name, int axis) {
    if (std::ranges::find(kNumbered, name) != kNumbered.end()) return Turn::Renumber;
    return name == "side" || name == kNormals[std::size_t(axis)] ? Turn::Negate : Turn::Keep;
}

float turned(float value, Turn turn, int axis) {
    if (turn == Turn::Negate) return -value;
    if (turn == Turn::Keep || !(value >= 0.0f)) return value;  // below 0: of no clump
    constexpr int kFloatBits = 24;
    const std::uint64_t number = std::uint64_t(std::min(value, 1e18f));
    return float(mirroredId(number, axis) >> (64 - kFloatBits));
}

/// How far on the kept side of the plane a root is.
class Sides {
public:
    explicit Sides(const MirrorSettings& settings) : settings_(settings) {}
    bool onPlane(Vec3f root) const { return !(std::fabs(place(root)) > kOnMirrorPlane); }
    bool mirrors(Vec3f root) const {
        return !onPlane(root) && (!settings_.replace || (place(root) > 0.0f) == settings_.positive);
    }
    bool stays(Vec3f root) const { return !settings_.replace || onPlane(root) || mirrors(root); }

private:
    float place(Vec3f root) const { return root[settings_.axis] - settings_.offset; }
    const MirrorSettings& settings_;
};

/// Reflects the points of one curve and roots it; unrooted without a scalp.
StrandRoot reflectCurve(std::span<Vec3f> points, const MirrorSettings& settings,
                        const ScalpMesh* scalp) {
    for (Vec3f& p : points) p[settings.axis] = 2.0f * settings.offset - p[settings.axis];
    SurfaceHit hit;
    if (!scalp || points.empty() || !scalp->closestPoint(points[0], ScalpMesh::kAnyDistance, hit))
        return {};
    const Vec3f shift = hit.position - points[0];
    for (Vec3f& p : points) p += shift;
    points[0] = hit.position;
    return hit.root();
}

/// A channel of the output that images do not just take over.
struct TurnedChannel {
    std::span<float> values;
    Turn turn;
};

template <class Open>
std::vector<TurnedChannel> turnedChannels(const StrandSet::Channels& channels, int axis,
                                          Open&& open) {
    std::vector<TurnedChannel> out;
    for (const auto& [name, channel] : channels)
        if (const Turn turn = turnOf(name, axis); turn != Turn::Keep)
            out.push_back({open(name, channel.defaultValue), turn});
    return out;
}

}  // namespace

std::uint64_t mirroredId(std::uint64_t id, int axis) {
    const std::uint64_t h = hashCombine(mix64(id), std::uint64_t(axis + 1));
    return h == 0 ? 1 : h;
}

StrandsPtr mirrorStrands(const StrandsPtr& in, const MirrorSettings& settings,
                         const ScalpMesh* scalp) {
    const Sides sides(settings);
    std::vector<std::uint32_t> from, images;
    for (std::size_t s = 0; s < in->strandCount(); ++s) {
        const auto points = in->pointsOf(s);
        if (points.empty() || sides.stays(points[0])) from.push_back(std::uint32_t(s));
        if (!points.empty() && sides.mirrors(points[0])) images.push_back(std::uint32_t(s));
    }
    if (images.empty() && from.size() == in->strandCount()) return in;
    const std::size_t first = from.size();
    from.insert(from.end(), images.begin(), images.end());

    auto out = std::make_shared<StrandSet>(in->subset(from));
    if (scalp) scalp->prepareQueries();
    const auto ids = out->mutableIds();
    const auto roots = out->mutableRoots();
    const auto points = out->mutablePoints();
    const int axis = settings.axis;
    const std::vector<TurnedChannel> perStrand =
        turnedChannels(in->strandChannels(), axis, [&](const std::string& name, float value) {
            return out->mutableStrandChannel(name, value);
        });
    const std::vector<TurnedChannel> perPoint =
        turnedChannels(in->pointChannels(), axis, [&](const std::string& name, float value) {
            return out->mutablePointChannel(name, value);
        });
    const auto offsets = std::as_const(*out).offsets();
    parallelRange(first, from.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const std::size_t at = std::size_t(offsets[s]);
            const std::size_t count = std::size_t(offsets[s + 1]) - at;
            ids[s] = mirroredId(ids[s], axis);
            roots[s] = reflectCurve(points.subspan(at, count), settings, scalp);
            for (const TurnedChannel& c : perStrand)
                c.values[s] = turned(c.values[s], c.turn, axis);
            for (const TurnedChannel& c : perPoint)
                for (float& value : c.values.subspan(at, count))
                    value = turned(value, c.turn, axis);
        }
    });
    return out;
}

GuidesPtr mirrorGuides(const GuidesPtr& in, const MirrorSettings& settings,
                       const ScalpMesh* scalp) {
    const Sides sides(settings);
    const int axis = settings.axis;
    const auto mirrorsGuide = [&](std::size_t g) { return sides.mirrors(in->pointsOf(g)[0]); };
    const std::vector<GuideCurve> curves = in->curves();
    std::vector<GuideCurve> out;
    for (std::size_t g = 0; g < curves.size(); ++g)
        if (sides.stays(curves[g].points[0])) out.push_back(curves[g]);
    const std::size_t first = out.size();
    for (std::size_t g = 0; g < curves.size(); ++g)
        if (mirrorsGuide(g)) out.push_back(curves[g]);
    if (out.size() == first && first == curves.size()) return in;

    if (scalp) scalp->prepareQueries();
    parallelRange(first, out.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            GuideCurve& image = out[g];
            image.id = mirroredId(image.id, axis);
            image.root = reflectCurve(image.points, settings, scalp);
            if (!image.detail) continue;
            auto detail = std::make_shared<GuideDetail>(*image.detail);
            if (const std::size_t parent = in->indexOf(detail->parent);
                parent < in->size() && mirrorsGuide(parent))
                detail->parent = mirroredId(detail->parent, axis);
            detail->frameUp[axis] = -detail->frameUp[axis];
            detail->tubeTwist = -detail->tubeTwist;
            for (auto& [name, value] : detail->attributes)
                value = turned(value, turnOf(name, axis), axis);
            for (auto& [name, values] : detail->pointAttributes)
                for (float& value : values) value = turned(value, turnOf(name, axis), axis);
            image.detail = std::move(detail);
        }
    });
    return std::make_shared<const GuideSet>(out);
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "axis",
     .defaultValue = std::string("x"),
     .description = "The plane's normal: x, y or z",
     .choices = {"x", "y", "z"},
     .worldDirection = true},
    {.name = "offset",
     .defaultValue = 0.0,
     .description = "The plane's place along its normal (0: through the origin)",
     .unit = "length",
     .softMin = -50.0,
     .softMax = 50.0},
    {.name = "mode",
     .defaultValue = std::string("replace"),
     .description = "replace: the side's strands mirrored onto the other side, which loses its "
                    "own; add: every strand's mirror added",
     .choices = {"replace", "add"}},
    {.name = "side",
     .defaultValue = std::string("positive"),
     .description = "Replace: the side kept and mirrored (by the roots)",
     .choices = {"positive", "negative"},
     .showWhen = {{.param = "mode", .values = {"replace"}}}},
    {.name = "reattach",
     .defaultValue = true,
     .description = "Root each mirrored strand again on the scalp where its mirrored root lands"},
};

class Mirror final : public Operator {
public:
    std::string type() const override { return "Mirror"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Mirrors guides or strands across a plane: groom one half, get both.";
    }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Curves}}; }
    PortSpec output() const override { return {"out", PortType::Curves}; }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override {
        return boolean("reattach") ? std::uint32_t(reads::kScalp) : 0u;
    }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const std::string& axis = choice("axis");
        const MirrorSettings settings{.axis = axis[0] - 'x',
                                      .offset = float(number("offset")),
                                      .replace = choice("mode") == "replace",
                                      .positive = choice("side") == "positive"};
        ScalpPtr scalp = boolean("reattach") ? context.scalp() : nullptr;
        if (scalp && scalp->triangles().empty()) scalp = nullptr;
        if (const GuidesPtr guides = inputs.guides(0))
            return mirrorGuides(guides, settings, scalp.get());
        if (const StrandsPtr strands = inputs.strands(0))
            return mirrorStrands(strands, settings, scalp.get());
        throwNotConnected(*this, 0);
    }
};

}  // namespace

void registerMirrorOperator() {
    OperatorRegistry::instance().add("Mirror", [] { return std::make_unique<Mirror>(); });
}

}  // namespace corvelle
