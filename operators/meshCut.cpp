#include "operators/meshCut.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "graph/operator.h"
#include "model/parallel.h"
#include "model/polyline.h"
#include "operators/distanceField.h"
#include "operators/pointArrays.h"
#include "operators/registerOperators.h"
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

/// Whether a segment or strand of the first box may meet a mesh of the second. A ray that is tested
/// reaches past its segment's end, and the test rounds: by shares of what the segment spans.
inline bool mayMeet(Float4 low, Float4 high, Float4 meshLow, Float4 meshHigh) {
    const Float4 slack = (high - low) * Float4(kPastEnd);
    return (laneBits((low > meshHigh + slack) | (high < meshLow - slack)) & kAxes) == 0;
}

/// The cut at `rest` cm of the i-th segment, which is `segment` cm long. A piece that is nothing is
/// left to the segment before it.
StrandCut cutWithin(std::size_t i, float rest, float segment) {
    if (i > 0 && !(rest > kLeast))
        return {.points = std::uint32_t(i + 1), .share = 1.0f, .whole = false};
    return {.points = std::uint32_t(i + 2), .share = rest / segment, .whole = false};
}

}  // namespace

CrossingCut::CrossingCut(const ScalpMesh& mesh) : mesh_(mesh) {
    const Vec3f size = mesh.boundsMax() - mesh.boundsMin();
    const Float4 slack(std::max({size.x, size.y, size.z}) * kPastEnd);
    low_ = lanesOf(mesh.boundsMin(), false) - slack;
    high_ = lanesOf(mesh.boundsMax(), false) + slack;
}

/// Whether any of a strand may meet the mesh. A point that is not a number counts for nothing: no
/// ray from or to it meets anything.
bool CrossingCut::mayCross(std::span<const Vec3f> points) const {
    const std::size_t n = points.size();
    if (n < 2) return false;
    Float4 low[2] = {kInfinity, kInfinity}, high[2] = {-kInfinity, -kInfinity};
    std::size_t i = 0;
    for (; i + 2 < n; i += 2)  // two at a time: neither waits for the other
        for (std::size_t k = 0; k < 2; ++k) {
            const Float4 p = lanesOf(points[i + k], true);
            low[k] = lower(p, low[k]);
            high[k] = upper(p, high[k]);
        }
    for (; i < n; ++i) {
        const Float4 p = lanesOf(points[i], i + 1 < n);
        low[0] = lower(p, low[0]);
        high[0] = upper(p, high[0]);
    }
    return mayMeet(lower(low[0], low[1]), upper(high[0], high[1]), low_, high_);
}

/// A bit for each of the segments from `first` on, 64 at most, whose box may meet the mesh.
std::uint64_t CrossingCut::nearSegments(std::span<const Vec3f> points, std::size_t first) const {
    std::uint64_t near = 0;
    const std::size_t count = std::min(points.size() - 1 - first, std::size_t(64));
    const Float4 low = low_, high = high_;
    Float4 from = lanesOf(points[first], true);
    const auto look = [&](std::size_t i, Float4 to) {
        near |= std::uint64_t(mayMeet(lower(from, to), upper(from, to), low, high)) << i;
        from = to;
    };
    for (std::size_t i = 0; i + 1 < count; ++i) look(i, lanesOf(points[first + i + 1], true));
    look(count - 1, lanesOf(points[first + count], first + count + 1 < points.size()));
    return near;
}

/// Strands on the way to their first crossings: each asks for its segments near the mesh, root
/// first, one a round until it has crossed.
class CrossingCut::Search {
public:
    explicit Search(const CrossingCut& cut) : cut_(cut) {}

    /// `number` names the strand, of two points or more, to the caller.
    void add(std::span<const Vec3f> points, std::uint32_t number) {
        Strand strand{points, number, 0, cut_.nearSegments(points, 0)};
        if (findNear(strand)) strands_.push_back(strand);
    }

    /// Calls crossed(number, segment, share of it) for strands that cross, in any order.
    template <class Crossed>
    void run(Crossed&& crossed) {
        while (!strands_.empty()) {
            origins_.clear();
            directions_.clear();
            for (const Strand& strand : strands_) {
                const Vec3f* const at = &strand.points[strand.segment()];
                origins_.push_back(at[0]);
                directions_.push_back(at[1] - at[0]);
            }
            distances_.resize(strands_.size());
            cut_.mesh_.rayDistances(origins_, directions_, distances_, 1.0f + kPastEnd);
            std::size_t left = 0;
            for (std::size_t k = 0; k < strands_.size(); ++k) {
                Strand strand = strands_[k];
                if (distances_[k] < kInfinity) {
                    crossed(strand.number, strand.segment(), std::min(distances_[k], 1.0f));
                    continue;
                }
                strand.near &= strand.near - 1;
                if (findNear(strand)) strands_[left++] = strand;
            }
            strands_.resize(left);
        }
    }

private:
    struct Strand {
        std::span<const Vec3f> points;
        std::uint32_t number = 0;
        std::size_t first = 0;   ///< segment that the lowest bit of `near` is of
        std::uint64_t near = 0;  ///< segments to ask for
        std::size_t segment() const { return first + std::size_t(std::countr_zero(near)); }
    };

    /// Moves on to where segments are near; false when none is.
    bool findNear(Strand& strand) const {
        while (strand.near == 0) {
            strand.first += 64;
            if (strand.first + 1 >= strand.points.size()) return false;
            strand.near = cut_.nearSegments(strand.points, strand.first);
        }
        return true;
    }

    const CrossingCut& cut_;
    std::vector<Strand> strands_;
    std::vector<Vec3f> origins_, directions_;
    std::vector<float> distances_;
};

namespace {

/// The cut `offset` cm before the place at `share` of a segment.
StrandCut cutBefore(std::span<const Vec3f> points, std::size_t crossed, float share, float offset) {
    std::array<float, 64> few;
    std::vector<float> many;
    if (crossed >= few.size()) many.resize(crossed + 1);
    const std::span<float> walked =  // to each point up to the segment
        (many.empty() ? std::span<float>(few) : std::span<float>(many)).first(crossed + 1);
    polylineLengths(points.first(crossed + 1), walked);
    float segment = distance(points[crossed], points[crossed + 1]);
    const float length = walked[crossed] + segment * share - offset;
    if (!(length < kInfinity)) return {.points = std::uint32_t(points.size())};  // NaN too
    if (!(length > kLeast)) return {.points = 0, .whole = false};
    std::size_t i = crossed;
    while (i > 0 && walked[i] >= length) --i;
    if (i < crossed) segment = distance(points[i], points[i + 1]);
    return cutWithin(i, length - walked[i], segment);
}

}  // namespace

void CrossingCut::operator()(const StrandSet& strands, std::span<const std::uint32_t> list,
                             float offset, std::span<StrandCut> cuts) const {
    Search search(*this);
    std::array<std::uint32_t, kAtOnce> near;
    for (; !list.empty(); list = list.subspan(std::min(kAtOnce, list.size()))) {
        std::size_t count = 0;
        for (const std::uint32_t s : list.first(std::min(kAtOnce, list.size()))) {
            const auto points = strands.pointsOf(s);
            cuts[s] = {.points = std::uint32_t(points.size())};
            near[count] = s;
            count += mayCross(points);
        }
        for (std::size_t k = 0; k < count; ++k) search.add(strands.pointsOf(near[k]), near[k]);
        search.run([&](std::uint32_t s, std::size_t segment, float share) {
            cuts[s] = cutBefore(strands.pointsOf(s), segment, share, offset);
        });
    }
}

float firstCrossing(std::span<const Vec3f> points, const ScalpMesh& mesh) {
    const CrossingCut cut(mesh);
    CrossingCut::Search search(cut);
    float walked = kInfinity;
    if (cut.mayCross(points)) search.add(points, 0);
    search.run([&](std::uint32_t, std::size_t segment, float share) {
        walked = polylineLength(points.first(segment + 1)) +
                 distance(points[segment], points[segment + 1]) * share;
    });
    return walked;
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

namespace {

/// Ids, roots and strand channels of some strands, ascending; `out` has their point counts.
void takeStrandData(const StrandSet& in, std::span<const std::uint32_t> strands, StrandSet& out) {
    struct Copied {
        const float* from;
        float* to;
    };
    std::vector<Copied> copied;
    for (const auto& [name, channel] : in.strandChannels()) {
        copied.push_back({channel.values.span().data(),
                          out.overwriteStrandChannel(name, channel.defaultValue).data()});
        out.setStrandChannelDiscrete(name, channel.discrete);
    }
    out.instances = in.instances;
    out.cards = in.cards;
    out.featherLayers = in.featherLayers;
    const auto ids = out.mutableIds();
    const auto roots = out.mutableRoots();
    parallelRange(0, strands.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t s = strands[k];
            ids[k] = in.ids()[s];
            roots[k] = in.roots()[s];
            for (const Copied& c : copied) c.to[k] = c.from[s];
        }
    });
}

}  // namespace

StrandSet cutStrands(const StrandSet& in, std::span<const StrandCut> cuts) {
    const std::size_t all = in.strandCount();
    std::vector<std::uint32_t> kept(all);
    std::vector<std::uint64_t> counts(all);
    std::size_t count = 0;
    for (std::size_t s = 0; s < all; ++s) {
        kept[count] = std::uint32_t(s);
        counts[count] = cuts[s].points;
        count += cuts[s].whole || cuts[s].points > 0;
    }
    kept.resize(count);
    counts.resize(count);

    StrandSet out;
    if (count == all) {
        out.allocateFor(in, counts, StrandSet::kLeavePoints | StrandSet::kLeaveWidths);
        takeStrandData(in, out);
    } else {
        out.allocate(counts, StrandSet::kLeavePoints | StrandSet::kLeaveWidths);
        takeStrandData(in, kept, out);
    }
    const std::vector<PointArray> arrays = openPointArrays(in, out, true);
    Vec3f* const points = out.mutablePoints().data();
    const std::span<const std::uint64_t> fromOffsets = in.offsets(),
                                         toOffsets = std::as_const(out).offsets();
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const StrandCut cut = cuts[kept[k]];
            const std::size_t n = std::size_t(counts[k]);
            const std::size_t from = std::size_t(fromOffsets[kept[k]]);
            const std::size_t to = std::size_t(toOffsets[k]);
            const Vec3f* const own = in.points().data() + from;
            // Bytes: many compilers copy vectors of three floats one after the other.
            std::memcpy(points + to, own, n * sizeof(Vec3f));
            for (const PointArray& array : arrays) std::copy_n(array.from + from, n, array.to + to);
            if (cut.whole || cut.share >= 1.0f) continue;
            const std::size_t last = n - 1;
            const float place = float(last - 1) + cut.share;
            points[to + last] = mix(own[last - 1], own[last], cut.share);
            for (const PointArray& array : arrays)
                array.to[to + last] = valueAt({array.from + from, n}, place, array.discrete);
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
        const auto active = mesh->activeTriangles();
        const bool any = active.first != active.second;
        if (!any && !inside) return strands;
        mesh->prepareQueries();
        const auto sides = inside && any ? sharedExactDistance(mesh) : nullptr;

        const CrossingCut cut(*mesh);
        std::vector<StrandCut> cuts(strands->strandCount());
        parallelRange(
            0, cuts.size(), CrossingCut::kAtOnce, [&](std::size_t begin, std::size_t end) {
                std::vector<std::uint32_t> list;
                list.reserve(end - begin);
                for (std::size_t s = begin; s < end; ++s) {
                    const auto points = strands->pointsOf(s);
                    if (inside && (points.empty() || !sides || !isInside(*sides, points[0])))
                        cuts[s] = {.points = 0, .whole = false};
                    else
                        list.push_back(std::uint32_t(s));
                }
                cut(*strands, list, offset, cuts);
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
