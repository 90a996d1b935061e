#include <algorithm>
#include <numeric>
#include <unordered_set>

#include "graph/curveReader.h"
#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "operators/registerOperators.h"
#include "operators/splineResample.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "path",
     .defaultValue = std::string(),
     .description = "Alembic file with guide curves"},
    {.name = "object",
     .defaultValue = std::string(),
     .description = "Only curves under this object name (empty: all)"},
    {.name = "samples",
     .defaultValue = 24.0,
     .description = "Points per guide after resampling (0: keep as read)",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 64.0,
     .whole = true,
     .min = 0.0,
     .max = 1024.0},
    {.name = "as",
     .defaultValue = std::string("guides"),
     .description = "What the curves become: guides for other nodes to follow, or strands",
     .choices = {"guides", "strands"}},
};

/// The curves of a file that can be strands, with ids.
struct Picked {
    std::vector<std::uint32_t> curves;   ///< of the file, those of 2 points and more
    std::vector<std::uint64_t> ids;      ///< one each, distinct, not 0
    std::vector<std::uint64_t> offsets;  ///< where each curve of the file begins, and the end
};

Picked pick(const CurveSet& read) {
    Picked out;
    out.offsets.resize(read.counts.size() + 1);
    std::unordered_set<std::uint64_t> seen;
    bool named = read.ids.size() == read.counts.size();
    for (std::size_t c = 0; c < read.counts.size(); ++c) {
        out.offsets[c + 1] = out.offsets[c] + std::uint64_t(read.counts[c]);
        if (read.counts[c] < 2) continue;
        out.curves.push_back(std::uint32_t(c));
        if (named) named = read.ids[c] != 0 && seen.insert(read.ids[c]).second;
    }
    for (const std::uint32_t c : out.curves) out.ids.push_back(named ? read.ids[c] : c + 1);
    return out;
}

/// Strands of the curves, resampled to `samples` points each where that is above 0.
StrandSet strandsOf(const CurveSet& read, int samples, const ScalpPtr& scalp) {
    const Picked picked = pick(read);
    const std::size_t count = picked.curves.size();
    std::vector<std::uint64_t> counts(count), from(count + 1);
    for (std::size_t s = 0; s < count; ++s)
        counts[s] = samples > 0 ? std::uint64_t(std::max(samples, 2))
                                : std::uint64_t(read.counts[picked.curves[s]]);
    StrandSet out;
    out.allocate(counts);
    std::ranges::copy(picked.ids, out.mutableIds().begin());
    const std::span<Vec3f> points = out.mutablePoints();
    const std::span<float> widths = out.mutableWidths();
    const std::span<StrandRoot> roots = out.mutableRoots();
    const bool hasWidths = !read.widths.empty();
    if (scalp) scalp->prepareQueries();
    const auto offsets = out.offsets();
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const std::size_t first = std::size_t(picked.offsets[picked.curves[s]]);
            SurfaceHit hit;
            if (scalp && scalp->closestPoint(read.points[first], ScalpMesh::kAnyDistance, hit))
                roots[s] = hit.root();
            if (samples > 0) continue;
            const std::size_t m = std::size_t(counts[s]), to = std::size_t(offsets[s]);
            std::copy_n(&read.points[first], m, &points[to]);
            if (hasWidths) std::copy_n(&read.widths[first], m, &widths[to]);
        }
    });
    if (samples == 0 || count == 0) return out;
    // The resampler takes curves that lie one behind the other: those of fewer points are passed
    // by.
    std::vector<std::uint64_t> toOffsets(read.counts.size() + 1);
    for (std::size_t c = 0, s = 0; c < read.counts.size(); ++c) {
        toOffsets[c] = s < count ? offsets[s] : offsets[count];
        if (s < count && picked.curves[s] == c) ++s;
    }
    toOffsets.back() = offsets[count];
    const SplineJob::Array widthArray{read.widths.data(), widths.data(), false};
    const SplineJob job{.from = &read.points[0].x,
                        .to = &points[0].x,
                        .fromOffsets = picked.offsets.data(),
                        .toOffsets = toOffsets.data(),
                        .arrays = &widthArray,
                        .arrayCount = hasWidths ? 1u : 0u};
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        SplineResampler().run(job, std::span(picked.curves).subspan(begin, end - begin));
    });
    return out;
}

GuidesPtr guidesOf(const StrandSet& strands) {
    std::vector<GuideCurve> curves(strands.strandCount());
    for (std::size_t s = 0; s < curves.size(); ++s) {
        const auto points = strands.pointsOf(s);
        curves[s] = {strands.ids()[s], strands.roots()[s], {points.begin(), points.end()}, {}};
    }
    return std::make_shared<const GuideSet>(curves);
}

class ImportCurves final : public Operator {
public:
    std::string type() const override { return "ImportCurves"; }
    std::string category() const override { return "source"; }
    std::string description() const override {
        return "Curves from an Alembic file, as strands or guides.";
    }
    std::vector<PortSpec> inputs() const override { return {{"scalp", PortType::Mesh, true}}; }
    PortSpec output() const override { return {"out", PortType::Curves}; }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kSearchPaths; }
    /// The file may move with time, but only a new sample of it asks for a new run: the time goes
    /// into `contextHash` by the samples it falls on.
    bool readsTime() const override { return true; }
    std::uint64_t contextHash(const EvalContext& context) const override {
        const EvaluationData& data = context.data();
        if (text("path").empty() || !data.curves) return 0;
        return data.curves->stamp(context.pathResolver()(text("path")), text("object"),
                                  data.seconds);
    }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const EvaluationData& data = context.data();
        if (text("path").empty()) throw GraphError("ImportCurves: path names no file");
        if (!data.curves) throw GraphError("ImportCurves: curve files cannot be read here");
        CurveSetPtr read;
        try {
            read = data.curves->curves(context.pathResolver()(text("path")), text("object"),
                                       data.seconds);
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception& error) {
            throw GraphError(std::string("ImportCurves: ") + error.what());
        }
        auto strands =
            std::make_shared<StrandSet>(strandsOf(*read, whole("samples"), inputs.mesh(0)));
        if (const std::size_t left = read->counts.size() - strands->strandCount(); left > 0)
            warn(std::to_string(left) + " curves of fewer than 2 points are left out");
        if (choice("as") == "guides") return guidesOf(*strands);
        return StrandsPtr(std::move(strands));
    }
};

}  // namespace

void registerAlembicOperators() {
    OperatorRegistry::instance().add("ImportCurves",
                                     [] { return std::make_unique<ImportCurves>(); });
}

}  // namespace corvelle
