#include "operators/scatter.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <optional>
#include <vector>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/pointIndex.h"
#include "operators/blueNoise.h"
#include "operators/paramIdentity.h"
#include "operators/previewShare.h"
#include "operators/registerOperators.h"
#include "operators/scatterGrid.h"
#include "operators/strandLoop.h"

namespace corvelle {

namespace {

constexpr std::size_t kBlock = 256;
constexpr double kMaxStrands = 50e6;
constexpr std::size_t kKeptRootSets = 2;
constexpr int kDefaultSegments = 8;

/// Points of a strand of n + 1 points from `root` along `reach`.
void writeStrand(Vec3f root, Vec3f reach, std::span<Vec3f> out) {
    const float last = float(out.size() - 1);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = root + reach * (float(i) / last);
}

}  // namespace

std::vector<StrandRoot> mixRoots(const ScalpMesh& mesh, std::span<const StrandRoot> even,
                                 std::span<const StrandRoot> random, float randomness) {
    std::vector<StrandRoot> out(even.size());
    mesh.prepareQueries();
    parallelRange(0, out.size(), kBlock, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) {
            const Vec3f from = mesh.surfacePoint(even[i]), to = mesh.surfacePoint(random[i]);
            SurfaceHit hit;
            out[i] = mesh.closestPointFrom(mix(from, to, randomness), ScalpMesh::kAnyDistance,
                                           even[i].triangle, hit)
                         ? hit.root()
                         : even[i];
        }
    });
    return out;
}

ScatterPoints rootsNear(const ScalpMesh& mesh, const ScatterPoints& roots,
                        std::span<const Vec3f> places, float radius) {
    const PointIndex index(places);
    std::vector<std::uint8_t> kept(roots.size());
    parallelRange(0, roots.size(), kBlock, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) {
            Neighbor nearest;
            kept[i] = index.nearestOne(mesh.surfacePoint(roots.roots[i]), nearest, radius);
        }
    });
    ScatterPoints out;
    for (std::size_t i = 0; i < roots.size(); ++i) {
        if (!kept[i]) continue;
        out.ids.push_back(roots.ids[i]);
        out.roots.push_back(roots.roots[i]);
    }
    return out;
}

StrandSet growStrands(const ScalpMesh& mesh, const ScatterPoints& roots,
                      const GrowSettings& settings) {
    std::vector<std::uint32_t> grown;
    grown.reserve(settings.share < 1.0f ? 0 : roots.size());
    for (std::size_t i = 0; i < roots.size(); ++i)
        if (settings.share >= 1.0f || unitHash(roots.ids[i]) < settings.share)
            grown.push_back(std::uint32_t(i));

    StrandSet out;
    const std::size_t perStrand = settings.segments + 1;
    out.allocateUniform(grown.size(), perStrand, StrandSet::kLeavePoints);
    const std::span<std::uint64_t> ids = out.mutableIds();
    const std::span<StrandRoot> strandRoots = out.mutableRoots();
    const std::span<Vec3f> points = out.overwritePoints();
    std::span<float> marks;
    if (settings.always < 1.0f) {
        marks = out.mutableStrandChannel("_preview", 1.0f);
        out.setStrandChannelDiscrete("_preview");
    }
    parallelRange(0, grown.size(), kBlock, [&](std::size_t b, std::size_t e) {
        for (std::size_t s = b; s < e; ++s) {
            const std::size_t r = grown[s];
            ids[s] = roots.ids[r];
            strandRoots[s] = roots.roots[r];
            writeStrand(mesh.surfacePoint(roots.roots[r]),
                        mesh.surfaceNormal(roots.roots[r]) * settings.length,
                        points.subspan(s * perStrand, perStrand));
            if (!marks.empty()) marks[s] = unitHash(ids[s]) < settings.always ? 1.0f : 0.0f;
        }
    });
    return out;
}

void setStrandLengths(StrandSet& strands, const ScalpMesh& mesh, std::span<const float> lengths) {
    const std::span<Vec3f> points = strands.overwritePoints();
    const auto roots = strands.roots();
    const auto offsets = strands.offsets();
    parallelRange(0, strands.strandCount(), kBlock, [&](std::size_t b, std::size_t e) {
        for (std::size_t s = b; s < e; ++s)
            writeStrand(mesh.surfacePoint(roots[s]), mesh.surfaceNormal(roots[s]) * lengths[s],
                        points.subspan(std::size_t(offsets[s]), strands.pointCountOf(s)));
    });
}

namespace {

const std::vector<ParamCondition> kGridOnly = {{.param = "layout", .values = {"uvGrid"}}};

const std::vector<ParamSpec> kParams = {
    {.name = "density",
     .defaultValue = 200.0,
     .description = "Strands per unit area (mappable: texture, color set, expression, guide layer)",
     .unit = "density",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 2000.0,
     .min = 0.0},
    {.name = "seed",
     .defaultValue = 0.0,
     .description = "Random seed",
     .animatable = false,
     .whole = true},
    {.name = "length",
     .defaultValue = 1.0,
     .description = "Initial strand length along the surface normal",
     .mappable = true,
     .unit = "length",
     .softMin = 0.0,
     .softMax = 10.0,
     .min = 0.0},
    {.name = "randomness",
     .defaultValue = 1.0,
     .description =
         "How random the roots are: 0 evenly spread (blue noise), 1 at random (white noise); in "
         "between each root moves smoothly from its even spot to its random one, past 1 on beyond "
         "it (more clumps and gaps), up to 2. The same strands at every value",
     .unit = "fraction",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 2.0,
     .min = 0.0,
     .max = 2.0},
    {.name = "layout",
     .defaultValue = std::string("random"),
     .description =
         "random: roots at random (randomness 0 spreads them evenly); uvGrid: one per cell of a "
         "grid over the scalp's UVs (rows x columns; density maps thin it)",
     .choices = {"random", "uvGrid"},
     .animatable = false},
    {.name = "gridRows",
     .defaultValue = 100.0,
     .description = "uvGrid: rows of the grid, along V",
     .animatable = false,
     .softMin = 1.0,
     .softMax = 1000.0,
     .showWhen = kGridOnly,
     .whole = true,
     .min = 1.0,
     .max = 20000.0},
    {.name = "gridColumns",
     .defaultValue = 100.0,
     .description = "uvGrid: columns of the grid, along U",
     .animatable = false,
     .softMin = 1.0,
     .softMax = 1000.0,
     .showWhen = kGridOnly,
     .whole = true,
     .min = 1.0,
     .max = 20000.0},
    {.name = "gridRandom",
     .defaultValue = 0.0,
     .description = "uvGrid: each root moved at random up to this share of its cell",
     .unit = "fraction",
     .animatable = false,
     .group = "Random",
     .softMin = 0.0,
     .softMax = 1.0,
     .showWhen = kGridOnly,
     .min = 0.0,
     .max = 1.0},
    {.name = "previewAll",
     .defaultValue = false,
     .description = "Every root in the viewport too, whatever the groom's preview density: for a "
                    "few big pieces (feather shafts, scales, instances) that a thinned preview "
                    "would leave bald",
     .animatable = false},
    {.name = "guideRadius",
     .defaultValue = 0.0,
     .description = "Only within this distance of a guide's root (the guides input): fur along "
                    "drawn guides, a patch, a stripe. 0, or nothing connected to guides: the whole "
                    "scalp",
     .unit = "length",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 10.0,
     .min = 0.0},
};

/// Roots before guides and previews take any away.
struct RootSet {
    std::uint64_t spreadKey = 0;  ///< of all but randomness: the sets are shared between its values
    std::uint64_t key = 0;
    ParamIdentity density;
    std::shared_ptr<const ScatterPoints> random;          ///< as they fell
    std::shared_ptr<const std::vector<StrandRoot>> even;  ///< relaxed; null when not asked for
    std::shared_ptr<const ScatterPoints> roots;           ///< the result
};

class Scatter final : public Operator {
public:
    std::string type() const override { return "Scatter"; }
    std::string category() const override { return "grow"; }
    std::string description() const override {
        return "Roots over the scalp: how many hairs, and where.";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"scalp", PortType::Mesh}, {"guides", PortType::Guides, true}};
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kDensity; }
    /// Guides count only where something reads them: else each stroke would scatter again.
    bool inputSelected(std::size_t input) const override {
        return input == 0 || (input == 1 && readsGuides());
    }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override;
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override;
    bool verifyOnClone() const override { return true; }  // what is kept would check itself
    void adoptState(const Operator& other) override {
        const auto* same = dynamic_cast<const Scatter*>(&other);
        if (!same || same == this) return;
        const std::scoped_lock lock(mutex_, same->mutex_);
        rootSets_ = same->rootSets_;
        last_ = same->last_;
    }

private:
    /// The last strands, and all that they follow from.
    struct Grown {
        std::uint64_t key = 0;
        std::shared_ptr<const ScatterPoints> roots;
        ParamIdentity length;
        std::uint64_t guideRoots = 0;
        StrandsPtr strands;
    };

    bool mapReadsGuides(const char* param) const {
        if (drivenField(param)) return false;
        const MapSource* map = std::get_if<MapSource>(&value(param));
        return map && (map->kind == MapKind::GuideLayer || map->kind == MapKind::Expression);
    }
    bool readsGuides() const {
        return number("guideRadius") > 0.0 || mapReadsGuides("density") || mapReadsGuides("length");
    }
    ScatterDensity readDensity(const EvalContext& context, const GuidesPtr& guides,
                               bool grid) const;
    /// How much there will be to make.
    struct Expected {
        std::vector<float> envelope;  ///< of the random layout, see densityEnvelope
        double candidates = 0.0, strands = 0.0;
    };
    /// Throws GraphError when it is more than can be made.
    Expected expectedOf(const ScalpMesh& scalp, const ScatterDensity& density, bool grid) const;
    void giveLengths(const ScalpMesh& scalp, const EvalContext& context, const GuidesPtr& guides,
                     StrandSet& strands) const;
    std::shared_ptr<const ScatterPoints> rootsOf(const ScalpMesh& scalp,
                                                 const ScatterDensity& density,
                                                 std::span<const float> envelope,
                                                 ParamIdentity identity, bool grid, float share);

    mutable std::mutex mutex_;
    std::vector<RootSet> rootSets_;  ///< newest first
    Grown last_;
};

ScatterDensity Scatter::readDensity(const EvalContext& context, const GuidesPtr& guides,
                                    bool grid) const {
    ScatterDensity out;
    FieldPtr field;
    if (const DrivenField* driven = drivenField("density"); driven && grid) {
        field = driven->field;  // as odds, without the number it multiplies
    } else {
        field = fieldFromParam(*this, "density", context, guides);
        if (!isMapped("density")) {
            out.constant = field->constant().value_or(0.0f);
            return out;
        }
    }
    out.sample = [field](std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                         std::span<float> values) { field->sampleRoots(roots, positions, values); };
    const MapSource* map = std::get_if<MapSource>(&value("density"));
    const bool bounded = !drivenField("density") && map && map->kind != MapKind::Expression;
    if (bounded) out.bound = field->maxValue();
    return out;
}

std::shared_ptr<const ScatterPoints> Scatter::rootsOf(const ScalpMesh& scalp,
                                                      const ScatterDensity& density,
                                                      std::span<const float> envelope,
                                                      ParamIdentity identity, bool grid,
                                                      float share) {
    const float randomness = grid ? 1.0f : float(number("randomness"));
    const bool whiteNoise = randomness == 1.0f;
    const auto [first, end] = scalp.activeTriangles();
    std::uint64_t spread = hashCombine(mix64(seed()), grid);
    spread = hashCombine(spread, grid || density.mapped() ? scalp.fullHash() : scalp.contentHash());
    spread = hashCombine(hashCombine(spread, std::uint64_t(first)), std::uint64_t(end));
    ScatterGridSettings settings{.rows = std::uint32_t(whole("gridRows")),
                                 .columns = std::uint32_t(whole("gridColumns")),
                                 .random = float(number("gridRandom")),
                                 .seed = seed()};
    if (grid) {
        spread = hashCombine(hashCombine(spread, settings.rows), settings.columns);
        spread = hashCombine(spread, settings.random);
        if (!density.mapped()) identity = {};  // a constant does not thin a grid
    } else {
        // White noise is thinned while it is drawn; even sets are whole, and serve every share.
        spread = hashCombine(spread, whiteNoise ? share : 2.0f);
    }
    const std::uint64_t key = hashCombine(spread, randomness);

    RootSet made{.spreadKey = spread, .key = key, .density = identity};
    {
        const std::lock_guard lock(mutex_);
        for (std::size_t i = 0; i < rootSets_.size(); ++i) {
            const RootSet& kept = rootSets_[i];
            if (kept.spreadKey != spread || !(kept.density == identity)) continue;
            if (kept.key == key) {
                std::rotate(rootSets_.begin(), rootSets_.begin() + std::ptrdiff_t(i),
                            rootSets_.begin() + std::ptrdiff_t(i) + 1);
                return rootSets_.front().roots;
            }
            made.random = kept.random;
            made.even = kept.even;
        }
    }

    if (grid) {
        made.random = std::make_shared<const ScatterPoints>(scatterGrid(scalp, settings, density));
    } else if (!made.random) {
        made.random = std::make_shared<const ScatterPoints>(
            scatterCandidates(scalp, density, envelope, seed(), whiteNoise ? share : 1.0f));
    }
    made.roots = made.random;
    if (!whiteNoise) {
        if (!made.even)
            made.even = std::make_shared<const std::vector<StrandRoot>>(
                relaxBlueNoise(scalp, made.random->ids, made.random->roots, density, seed()));
        auto roots = std::make_shared<ScatterPoints>();
        roots->ids = made.random->ids;
        roots->roots = randomness == 0.0f
                           ? *made.even
                           : mixRoots(scalp, *made.even, made.random->roots, randomness);
        made.roots = std::move(roots);
    }

    const std::lock_guard lock(mutex_);
    rootSets_.insert(rootSets_.begin(), made);
    if (rootSets_.size() > kKeptRootSets) rootSets_.resize(kKeptRootSets);
    return made.roots;
}

Scatter::Expected Scatter::expectedOf(const ScalpMesh& scalp, const ScatterDensity& density,
                                      bool grid) const {
    Expected out;
    if (grid) {
        out.candidates = out.strands = double(whole("gridRows")) * double(whole("gridColumns"));
    } else {
        out.envelope = densityEnvelope(scalp, density);
        out.candidates = expectedCandidates(scalp, out.envelope);
        out.strands = density.mapped() ? expectedRoots(scalp, density) : out.candidates;
    }
    if (!std::isfinite(out.candidates) || !std::isfinite(out.strands))
        throw GraphError("Scatter: the density (or the scalp's area) is not a finite number");
    if (out.candidates > kMaxStrands)
        throw GraphError(grid ? "Scatter: the grid would create more than 50M strands"
                              : "Scatter: density would create more than 50M strands");
    return out;
}

/// Read from the strands at unit length, so that an expression may use what strands have.
void Scatter::giveLengths(const ScalpMesh& scalp, const EvalContext& context,
                          const GuidesPtr& guides, StrandSet& strands) const {
    const FieldPtr field = fieldFromParam(*this, "length", context, strands, guides);
    std::vector<float> lengths(strands.strandCount());
    StrandPick(lengths.size())
        .forEachBatchAt([&](std::size_t first, std::span<const std::uint32_t> batch) {
            const std::span<float> own = std::span(lengths).subspan(first, batch.size());
            field->sampleStrands(strands, batch, own);
            for (float& length : own)  // a map may say less than the param may
                length = length > 0.0f ? length : 0.0f;
        });
    setStrandLengths(strands, scalp, lengths);
}

NodeValue Scatter::evaluate(const EvalContext& context, const NodeInputs& inputs) {
    const ScalpPtr scalp = requireMesh(*this, inputs, 0);
    const bool grid = choice("layout") == "uvGrid";
    if (grid && scalp->uvs().empty())
        throw GraphError("Scatter: the uvGrid layout needs the scalp's UVs");
    const GuidesPtr guides = inputs.guides(1);
    const float guideRadius = float(number("guideRadius"));
    const bool nearGuides = guideRadius > 0.0f && inputs.isConnected(1);
    if (nearGuides && (!guides || guides->empty()))
        throw GraphError("Scatter: guideRadius needs guides on the guides input (a Guides node)");

    const ScatterDensity density = readDensity(context, guides, grid);
    const Expected expected = expectedOf(*scalp, density, grid);
    const int segments = context.growSegments() > 0 ? context.growSegments() : kDefaultSegments;
    const PreviewShare share = previewShare({.strands = expected.strands,
                                             .pointsPerStrand = std::size_t(segments) + 1,
                                             .density = context.density(),
                                             .pointBudget = context.pointBudget(),
                                             .previewAll = boolean("previewAll")});

    const std::shared_ptr<const ScatterPoints> roots =
        rootsOf(*scalp, density, expected.envelope, identityOf(*this, "density", context, guides),
                grid, share.share);

    const ParamIdentity length = identityOf(*this, "length", context, guides);
    const std::uint64_t guideRoots = nearGuides ? guides->rootsHash() : 0;
    std::uint64_t key = hashCombine(mix64(std::uint64_t(segments)), share.share);
    key = hashCombine(hashCombine(key, share.always), nearGuides ? guideRadius : 0.0f);
    key = hashCombine(hashCombine(key, guideRoots), scalp->contentHash());
    if (isMapped("length")) key = hashCombine(key, scalp->fullHash());
    {
        const std::lock_guard lock(mutex_);
        if (last_.strands && last_.key == key && last_.roots == roots && last_.length == length)
            return last_.strands;
    }

    GrowSettings settings{.segments = std::size_t(segments),
                          .length = 1.0f,
                          .share = share.share,
                          .always = share.always};
    if (!isMapped("length")) settings.length = float(number("length"));
    std::optional<ScatterPoints> near;
    if (nearGuides) {
        std::vector<Vec3f> places;
        for (std::size_t g = 0; g < guides->size(); ++g)
            places.push_back(guides->pointsOf(g).front());
        near = rootsNear(*scalp, *roots, places, guideRadius);
    }
    auto out = std::make_shared<StrandSet>(growStrands(*scalp, near ? *near : *roots, settings));
    if (isMapped("length")) giveLengths(*scalp, context, guides, *out);

    const std::lock_guard lock(mutex_);
    last_ = {
        .key = key, .roots = roots, .length = length, .guideRoots = guideRoots, .strands = out};
    return StrandsPtr(out);
}

bool Scatter::update(const EvalContext&, const NodeInputs& inputs, const UpdateRequest& request,
                     UpdateResult& result) {
    // Only guides may have changed, and of them only what roots do not read.
    if (request.ownChanged || request.inputs.size() < 2 ||
        request.inputs[0].kind != SlotChanges::Kind::None ||
        request.inputs[1].kind == SlotChanges::Kind::Unknown || mapReadsGuides("density") ||
        mapReadsGuides("length"))
        return false;
    const StrandsPtr* previous = std::get_if<StrandsPtr>(&request.previous[0]);
    const GuidesPtr guides = inputs.guides(1);
    const std::lock_guard lock(mutex_);
    if (!previous || !*previous || *previous != last_.strands || !guides ||
        guides->rootsHash() != last_.guideRoots)
        return false;
    result.outputs = {*previous};
    result.changes = {std::make_shared<const StrandChanges>()};
    return true;
}

}  // namespace

void registerScatterOperator() {
    OperatorRegistry::instance().add("Scatter", [] { return std::make_unique<Scatter>(); });
}

}  // namespace corvelle
