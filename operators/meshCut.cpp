#include "operators/meshCut.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "graph/operator.h"
#include "model/parallel.h"
#include "operators/distanceField.h"
#include "operators/registerOperators.h"
#include "operators/strandLoop.h"
#include "operators/strandSpline.h"

namespace corvelle {

namespace {

constexpr float kLeast = 1e-6f;    ///< cm: less of a strand is nothing
constexpr float kPastEnd = 1e-5f;  ///< of a segment: no strand slips through between two of them
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// A point in three lanes; the fourth is of no use. `next`: whether a float follows the point.
Float4 lanesOf(const Vec3f& p, bool next) {
    if (next) return Float4::loadUnaligned(&p.x);
    alignas(16) const float lanes[4] = {p.x, p.y, p.z, 0.0f};
    return Float4::load(lanes);
}
constexpr int kAxes = 7;  ///< the bits of three lanes

/// The cut at `rest` cm of the i-th segment, which is `segment` cm long. A piece that is nothing is
/// left to the segment before it.
StrandCut cutWithin(std::size_t i, float rest, float segment) {
    if (i > 0 && !(rest > kLeast))
        return {.points = std::uint32_t(i + 1), .share = 1.0f, .whole = false};
    return {.points = std::uint32_t(i + 2), .share = rest / segment, .whole = false};
}

}  // namespace

CrossingCut::CrossingCut(const ScalpMesh& mesh)
    : mesh_(mesh), low_(lanesOf(mesh.boundsMin(), false)), high_(lanesOf(mesh.boundsMax(), false)) {
    const Vec3f size = mesh.boundsMax() - mesh.boundsMin();
    size_ = std::max({size.x, size.y, size.z});
}

std::size_t CrossingCut::find(std::span<const Vec3f> points, float& share) const {
    const std::size_t n = points.size();
    if (n < 2) return n;
    const Float4 root = lanesOf(points[0], true), tip = lanesOf(points[n - 1], false);
    Float4 low = lower(root, tip), high = upper(root, tip);
    for (std::size_t i = 1; i + 1 < n; ++i) {
        const Float4 p = lanesOf(points[i], true);
        low = lower(p, low);
        high = upper(p, high);
    }
    // A ray that is tested reaches past its segment's end, and the test itself rounds: by shares of
    // what it spans.
    const Float4 slack = (high - low + Float4(size_)) * kPastEnd;
    const Float4 leastHigh = low_ - slack, mostLow = high_ + slack;
    const auto mayMeet = [&](Float4 least, Float4 most) {  // with NaN, rays tell
        return (laneBits((least > mostLow) | (most < leastHigh)) & kAxes) == 0;
    };
    if (!mayMeet(low, high)) return n;
    Float4 from = root;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const Float4 to = i + 2 < n ? lanesOf(points[i + 1], true) : tip;
        const bool may = mayMeet(lower(from, to), upper(from, to));
        from = to;
        SurfaceHit hit;
        if (!may || !mesh_.rayIntersect(points[i], points[i + 1] - points[i], hit, 1.0f + kPastEnd))
            continue;
        share = std::min(hit.distance, 1.0f);
        return i;
    }
    return n;
}

StrandCut CrossingCut::operator()(std::span<const Vec3f> points, float offset) const {
    float share = 0.0f;
    const std::size_t crossed = find(points, share);
    if (crossed == points.size()) return {.points = std::uint32_t(points.size())};
    std::array<float, 64> few;
    std::vector<float> many;
    float* walked = few.data();  // to each point up to the segment
    if (crossed >= few.size()) {
        many.resize(crossed + 1);
        walked = many.data();
    }
    walked[0] = 0.0f;
    for (std::size_t i = 0; i < crossed; ++i)
        walked[i + 1] = walked[i] + distance(points[i], points[i + 1]);
    float segment = distance(points[crossed], points[crossed + 1]);
    const float length = walked[crossed] + segment * share - offset;
    if (!(length < kInfinity)) return {.points = std::uint32_t(points.size())};  // NaN too
    if (!(length > kLeast)) return {.points = 0, .whole = false};
    std::size_t i = crossed;
    while (i > 0 && walked[i] >= length) --i;
    if (i < crossed) segment = distance(points[i], points[i + 1]);
    return cutWithin(i, length - walked[i], segment);
}

float firstCrossing(std::span<const Vec3f> points, const ScalpMesh& mesh) {
    float share = 0.0f, walked = 0.0f;
    const std::size_t crossed = CrossingCut(mesh).find(points, share);
    if (crossed == points.size()) return kInfinity;
    for (std::size_t i = 0; i < crossed; ++i) walked += distance(points[i], points[i + 1]);
    return walked + distance(points[crossed], points[crossed + 1]) * share;
}

StrandCut cutAt(std::span<const Vec3f> points, float length) {
    if (!(length > kLeast)) return {.points = 0, .whole = false};
    float walked = 0.0f;
    for (std::size_t i = 0; i + 1 < points.size(); ++i) {
        const float segment = distance(points[i], points[i + 1]);
        if (walked + segment >= length) return cutWithin(i, length - walked, segment);
        walked += segment;
    }
    return {.points = std::uint32_t(points.size())};
}

StrandSet cutStrands(const StrandSet& in, std::span<const StrandCut> cuts) {
    std::vector<std::uint32_t> kept;
    std::vector<std::uint64_t> counts;
    kept.reserve(in.strandCount());
    counts.reserve(in.strandCount());
    for (std::size_t s = 0; s < in.strandCount(); ++s) {
        const StrandCut& cut = cuts[s];
        if (!cut.whole && cut.points == 0) continue;
        kept.push_back(std::uint32_t(s));
        counts.push_back(cut.whole ? in.pointCountOf(s) : cut.points);
    }

    StrandSet out;
    out.allocate(counts, StrandSet::kLeavePoints | StrandSet::kLeaveWidths);
    struct Copied {
        const float* from;
        float* to;
        bool discrete;
    };
    std::vector<Copied> perStrand,
        perPoint{{in.widths().data(), out.mutableWidths().data(), false}};
    for (const auto& [name, channel] : in.strandChannels()) {
        perStrand.push_back({channel.values.span().data(),
                             out.overwriteStrandChannel(name, channel.defaultValue).data(),
                             channel.discrete});
        out.setStrandChannelDiscrete(name, channel.discrete);
    }
    for (const auto& [name, channel] : in.pointChannels()) {
        perPoint.push_back({channel.values.span().data(),
                            out.overwritePointChannel(name, channel.defaultValue).data(),
                            channel.discrete});
        out.setPointChannelDiscrete(name, channel.discrete);
    }
    out.instances = in.instances;
    out.cards = in.cards;
    out.featherLayers = in.featherLayers;
    const auto ids = out.mutableIds();
    const auto roots = out.mutableRoots();
    const auto points = out.mutablePoints();
    const auto offsets = std::as_const(out).offsets();

    parallelRange(0, kept.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::size_t s = kept[k];
            const std::size_t from = std::size_t(in.offsets()[s]), to = std::size_t(offsets[k]);
            const std::size_t count = std::size_t(counts[k]);
            ids[k] = in.ids()[s];
            roots[k] = in.roots()[s];
            for (const Copied& c : perStrand) c.to[k] = c.from[s];
            // Bytes: many compilers copy vectors of three floats one after the other.
            std::memcpy(&points[to], &in.points()[from], count * sizeof(Vec3f));
            for (const Copied& c : perPoint) std::copy_n(c.from + from, count, c.to + to);
            const float share = cuts[s].share;
            if (cuts[s].whole || share >= 1.0f) continue;
            const std::size_t last = count - 1;
            const float place = float(last - 1) + share;
            points[to + last] = mix(in.points()[from + last - 1], in.points()[from + last], share);
            for (const Copied& c : perPoint)
                c.to[to + last] = valueAt({c.from + from, count}, place, c.discrete);
        }
    });
    return out;
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "mode",
     .defaultValue = std::string("obstacle"),
     .description = "obstacle: each strand ends where it first crosses the mesh; inside: the mesh "
                    "is a haircut's hull, and what leaves it is cut off (a strand rooted outside "
                    "goes)",
     .choices = {"obstacle", "inside"}},
    {.name = "offset",
     .defaultValue = 0.0,
     .description = "Cut this much shorter than the crossing, along the strand",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 5.0,
     .min = 0.0},
};

class MeshCut final : public Operator {
public:
    std::string type() const override { return "MeshCut"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Cuts strands where they cross a mesh: an obstacle, or a haircut's hull.";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"mesh", PortType::Mesh}};
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        const ScalpPtr mesh = requireMesh(*this, inputs, 1);
        const bool inside = choice("mode") == "inside";
        const float offset = float(number("offset"));
        const auto [first, end] = mesh->activeTriangles();
        if (first == end && !inside) return strands;
        mesh->prepareQueries();
        const auto sides = inside && first != end ? sharedExactDistance(mesh) : nullptr;

        const CrossingCut cut(*mesh);
        std::vector<StrandCut> cuts(strands->strandCount());
        StrandPick(cuts.size()).forEachBatch([&](std::span<const std::uint32_t> batch) {
            for (const std::uint32_t s : batch) {
                const auto points = strands->pointsOf(s);
                if (inside && (points.empty() || !sides || !isInside(*sides, points[0]))) {
                    cuts[s] = {.points = 0, .whole = false};
                    continue;
                }
                cuts[s] = cut(points, offset);
            }
        });
        if (std::ranges::all_of(cuts, &StrandCut::whole)) return strands;
        return std::make_shared<const StrandSet>(cutStrands(*strands, cuts));
    }

private:
    static bool isInside(const ExactDistance& mesh, Vec3f root) {
        DistanceSample sample;
        std::int32_t nearTriangle = -1;
        return mesh.sample(root, ScalpMesh::kAnyDistance, nearTriangle, sample) &&
               sample.distance < 0.0f;
    }
};

}  // namespace

void registerMeshCutOperator() {
    OperatorRegistry::instance().add("MeshCut", [] { return std::make_unique<MeshCut>(); });
}

}  // namespace corvelle
