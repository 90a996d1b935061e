#include "operators/collide.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "graph/operator.h"
#include "model/parallel.h"
#include "operators/collideKernels.h"
#include "operators/laneRuns.h"
#include "operators/nodeFactories.h"

namespace corvelle {

namespace {

/// Whether a point at signed distance d is to be pushed.
bool pushed(float d, const CollideSettings& settings) {
    return d < settings.offset && d >= -settings.maxDepth;
}

/// The distance of one point where it calls for a push; false elsewhere. `likely`: for speed alone.
bool nearSurface(const CollideSurface& surface, Vec3f p, const CollideSettings& settings,
                 std::int32_t& nearTriangle, DistanceSample& out, bool likely = false) {
    if (surface.field)
        return surface.field->sampleWithin(p, -settings.maxDepth, settings.offset, out, !likely);
    // A little past what counts, so that a distance of exactly maxDepth is found.
    const float reach = std::max(settings.offset, settings.maxDepth) * 1.001f + 1e-6f;
    return surface.exact->sample(p, reach, nearTriangle, out) && pushed(out.distance, settings);
}

/// The first of the points but the root that is too near to the field's surface; points.size() when
/// none is.
std::size_t firstTouching(std::span<const Vec3f> points, const DistanceField& field,
                          const CollideSettings& settings) {
    for (std::size_t i = 1; i < points.size(); i += DistanceField::kMostLooks) {
        const auto some = points.subspan(i, std::min(points.size() - i, DistanceField::kMostLooks));
        std::uint32_t bits = field.perhapsWithin(some, -settings.maxDepth, settings.offset);
        for (; bits != 0; bits &= bits - 1) {
            const std::size_t at = std::size_t(std::countr_zero(bits));
            if (pushed(field.distance(some[at]), settings)) return i + at;
        }
    }
    return points.size();
}
std::size_t firstTouching(std::span<const Vec3f> points, const CollideSurface& surface,
                          const CollideSettings& settings) {
    if (surface.field) return firstTouching(points, *surface.field, settings);
    std::int32_t nearTriangle = -1;
    DistanceSample sample;
    for (std::size_t i = 1; i < points.size(); ++i)
        if (nearSurface(surface, points[i], settings, nearTriangle, sample)) return i;
    return points.size();
}

constexpr std::size_t kMaxSurfaces = PushJob::kMostFields;

}  // namespace

bool strandTouches(std::span<const Vec3f> points, std::span<const CollideSurface> surfaces,
                   const CollideSettings& settings) {
    return std::ranges::any_of(surfaces, [&](const CollideSurface& surface) {
        return firstTouching(points, surface, settings) < points.size();
    });
}

bool collideStrand(std::span<const Vec3f> rest, std::span<const CollideSurface> surfaces,
                   const CollideSettings& settings, std::span<Vec3f> out) {
    const std::size_t n = rest.size();
    if (n < 2) {
        std::copy(rest.begin(), rest.end(), out.begin());
        return false;
    }
    // Segments as they came in; short strands need no allocation.
    std::array<Vec3f, 64> few;
    std::vector<Vec3f> many;
    std::span<Vec3f> segments(few.data(), std::min(n, few.size()));
    if (n > few.size()) {
        many.resize(n);
        segments = many;
    }
    for (std::size_t i = 1; i < n; ++i) segments[i] = rest[i] - rest[i - 1];
    if (out.data() != rest.data()) std::copy(rest.begin(), rest.end(), out.begin());

    std::array<std::int32_t, kMaxSurfaces> nearTriangles;
    nearTriangles.fill(-1);
    bool movedEver = false;
    for (int pass = 0; pass < settings.iterations; ++pass) {
        bool moved = false;
        for (std::size_t i = 1; i < n; ++i) {
            Vec3f p = out[i];
            for (std::size_t s = 0; s < surfaces.size(); ++s) {
                DistanceSample sample;
                if (!nearSurface(surfaces[s], p, settings, nearTriangles[s], sample, moved))
                    continue;
                p += sample.gradient * (settings.offset - sample.distance);
                moved = true;
            }
            if (!moved) continue;
            const Vec3f along = p - out[i - 1];
            const float is = length(along);
            out[i] = is > 0.0f ? out[i - 1] + along * (length(segments[i]) / is)
                               : out[i - 1] + segments[i];
        }
        if (!moved) break;
        movedEver = true;
    }
    return movedEver;
}

namespace {

/// Marks the strands of a batch that touch the field's surface, by their places in it; those marked
/// are left out. Of each strand that is undecided one point is measured, all of them side by side,
/// and once more as long as some are left.
void markTouching(const StrandSet& set, std::span<const std::uint32_t> strands,
                  const DistanceField& field, const CollideSettings& settings,
                  std::span<std::uint8_t> marks) {
    struct Undecided {
        std::uint32_t place = 0;
        std::uint32_t bits = 0;  ///< its points from the second on that perhaps touch
    };
    std::array<Undecided, StrandPick::kBatch> undecided;
    std::size_t count = 0;
    for (std::size_t k = 0; k < strands.size(); ++k) {
        const auto points = set.pointsOf(strands[k]);
        if (marks[k] || points.size() < 2) continue;
        if (points.size() - 1 > DistanceField::kMostLooks) {
            marks[k] = firstTouching(points, field, settings) < points.size();
            continue;
        }
        undecided[count] = {
            std::uint32_t(k),
            field.perhapsWithin(points.subspan(1), -settings.maxDepth, settings.offset)};
        count += undecided[count].bits != 0;
    }
    const FieldGrid grid = field.grid();
    const float* const points = count > 0 ? &set.points()[0].x : nullptr;
    std::array<std::uint32_t, StrandPick::kBatch> places;
    std::array<float, StrandPick::kBatch> distances;
    while (count > 0) {
        for (std::size_t u = 0; u < count; ++u)
            places[u] = std::uint32_t(set.offsets()[strands[undecided[u].place]] + 1) +
                        std::uint32_t(std::countr_zero(undecided[u].bits));
        collideKernels().distances(grid, points, places.data(), count, distances.data());
        std::size_t left = 0;
        for (std::size_t u = 0; u < count; ++u) {
            Undecided next = undecided[u];
            next.bits &= next.bits - 1;
            const bool touches = pushed(distances[u], settings);
            marks[next.place] |= std::uint8_t(touches);
            undecided[left] = next;
            left += !touches && next.bits != 0;
        }
        count = left;
    }
}

/// The same for all of the surfaces.
void markTouching(const StrandSet& set, std::span<const std::uint32_t> strands,
                  std::span<const CollideSurface> surfaces, const CollideSettings& settings,
                  std::span<std::uint8_t> marks) {
    std::ranges::fill(marks, std::uint8_t(0));
    for (const CollideSurface& surface : surfaces) {
        // Places of points are 32 bits there.
        if (surface.field && set.pointCount() <= std::numeric_limits<std::uint32_t>::max()) {
            markTouching(set, strands, *surface.field, settings, marks);
            continue;
        }
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const auto points = set.pointsOf(strands[k]);
            marks[k] |= firstTouching(points, surface, settings) < points.size();
        }
    }
}

/// The marked strands of a batch, pushed.
void pushMarked(const StrandSet& in, std::span<const std::uint32_t> strands,
                std::span<const CollideSurface> surfaces, const CollideSettings& settings,
                std::span<const std::uint8_t> marks, std::span<Vec3f> out) {
    std::array<std::uint32_t, StrandPick::kBatch> listed;
    std::size_t count = 0;
    for (std::size_t k = 0; k < strands.size(); ++k) {
        listed[count] = strands[k];
        count += marks[k];
    }
    if (count == 0) return;
    const auto list = std::span<const std::uint32_t>(listed).first(count);
    const auto single = [&](std::size_t k) {
        const auto points = in.pointsOf(list[k]);
        collideStrand(points, surfaces, settings,
                      out.subspan(in.offsets()[list[k]], points.size()));
    };
    PushJob job{.points = lanePoints(in, list, out),
                .offset = settings.offset,
                .maxDepth = settings.maxDepth,
                .iterations = settings.iterations};
    for (const CollideSurface& surface : surfaces)
        if (surface.field) job.fields[job.fieldCount++] = surface.field->grid();
    if (job.fieldCount == surfaces.size())
        return deformStrands(collideKernels().push, job, in, list, single);
    for (std::size_t k = 0; k < count; ++k) single(k);
}

/// 1 for each strand of `pick` that touches a surface; [strands].
std::vector<std::uint8_t> touchMarks(const StrandSet& strands, const StrandPick& pick,
                                     std::span<const CollideSurface> surfaces,
                                     const CollideSettings& settings) {
    std::vector<std::uint8_t> touches(strands.strandCount(), 0);
    pick.forEachBatch([&](std::span<const std::uint32_t> batch) {
        std::array<std::uint8_t, StrandPick::kBatch> marks;
        markTouching(strands, batch, surfaces, settings, std::span(marks).first(batch.size()));
        for (std::size_t k = 0; k < batch.size(); ++k) touches[batch[k]] = marks[k];
    });
    return touches;
}

}  // namespace

std::vector<std::uint32_t> touchingStrands(const StrandSet& strands, const StrandPick& pick,
                                           std::span<const CollideSurface> surfaces,
                                           const CollideSettings& settings) {
    const std::vector<std::uint8_t> touches = touchMarks(strands, pick, surfaces, settings);
    std::vector<std::uint32_t> list;
    for (std::size_t s = 0; s < touches.size(); ++s)
        if (touches[s]) list.push_back(std::uint32_t(s));
    return list;
}

StrandsPtr collide(const StrandsPtr& in, std::span<const CollideSurface> surfaces,
                   const CollideSettings& settings) {
    const StrandPick all(in->strandCount());
    const std::vector<std::uint8_t> touches = touchMarks(*in, all, surfaces, settings);
    if (std::ranges::find(touches, 1) == touches.end()) return in;
    auto out = std::make_shared<StrandSet>(*in);
    const std::span<Vec3f> points = out->overwritePoints();
    const std::span<const std::uint64_t> offsets = in->offsets();
    all.forEachBatch([&](std::span<const std::uint32_t> batch) {
        // Copied together, then those that touch once more.
        const auto first = std::ptrdiff_t(offsets[batch.front()]);
        const auto end = std::ptrdiff_t(offsets[batch.back() + 1]);
        std::copy(in->points().begin() + first, in->points().begin() + end, points.begin() + first);
        pushMarked(*in, batch, surfaces, settings,
                   std::span(touches).subspan(batch.front(), batch.size()), points);
    });
    return out;
}

StrandsPtr collideAfter(const StrandsPtr& in, StrandsPtr previous,
                        std::span<const std::uint32_t> changed,
                        std::span<const CollideSurface> surfaces, const CollideSettings& settings) {
    auto out = std::make_shared<StrandSet>(*in);
    out->sharePoints(*previous);
    previous.reset();
    if (changed.empty()) return out;
    const std::span<Vec3f> points = out->mutablePoints();
    StrandPick(changed).forEachBatch([&](std::span<const std::uint32_t> batch) {
        std::array<std::uint8_t, StrandPick::kBatch> marks;
        markTouching(*in, batch, surfaces, settings, std::span(marks).first(batch.size()));
        for (const std::uint32_t s : batch)
            std::ranges::copy(in->pointsOf(s), points.begin() + std::ptrdiff_t(in->offsets()[s]));
        pushMarked(*in, batch, surfaces, settings, marks, points);
    });
    return out;
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "offset",
     .defaultValue = 0.05,
     .description = "Distance kept between strands and the surfaces",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 0.5,
     .min = 0.0},
    {.name = "maxDepth",
     .defaultValue = 3.0,
     .description = "Points deeper under a surface than this are not pushed",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 10.0,
     .min = 0.0},
    {.name = "iterations",
     .defaultValue = 2.0,
     .description = "Root-to-tip passes",
     .whole = true,
     .min = 1.0,
     .max = 16.0},
    {.name = "method",
     .defaultValue = std::string("field"),
     .description = "field: each surface's signed distance field alone, made once and kept (fast, "
                    "within a small fraction of the offset of exact; what the GPU preview runs); "
                    "exact: the closest point on the mesh at every point (the CPU's alone)",
     .choices = {"field", "exact"}},
};

class Collide final : public Operator {
public:
    std::string type() const override { return "Collide"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Pushes strands out of the scalp and any collider. Best last.";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands},
                {"scalp", PortType::Mesh, true},
                {"collider", PortType::Mesh, true}};
    }
    std::vector<ParamSpec> spec() const override { return kParams; }

    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        const CollideSettings settings = readSettings();
        const std::vector<CollideSurface> surfaces = readSurfaces(inputs, settings);
        if (surfaces.empty()) return strands;
        return collide(strands, surfaces, settings);
    }

    bool update(const EvalContext&, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        if (request.ownChanged || request.inputs[0].kind == SlotChanges::Kind::Unknown)
            return false;
        for (std::size_t slot = 1; slot < request.inputs.size(); ++slot)
            if (request.inputs[slot].kind != SlotChanges::Kind::None) return false;
        const StrandsPtr strands = requireStrands(*this, inputs);
        StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
        if (!held || !*held || !(*held)->sameLayout(*strands)) return false;
        const StrandChangesPtr changes = request.inputs[0].changes
                                             ? request.inputs[0].changes
                                             : std::make_shared<const StrandChanges>();
        const CollideSettings settings = readSettings();
        const std::vector<CollideSurface> surfaces = readSurfaces(inputs, settings);
        result.outputs = {surfaces.empty() ? strands
                                           : collideAfter(strands, std::move(*held),
                                                          changes->strands, surfaces, settings)};
        result.changes = {changes};
        return true;
    }

private:
    CollideSettings readSettings() const {
        return {.offset = float(number("offset")),
                .maxDepth = float(number("maxDepth")),
                .iterations = whole("iterations")};
    }

    /// The connected meshes that have triangles. Warns when nothing is connected.
    std::vector<CollideSurface> readSurfaces(const NodeInputs& inputs,
                                             const CollideSettings& settings) const {
        if (!inputs.isConnected(1) && !inputs.isConnected(2))
            warn("nothing to collide with: connect the scalp or a collider");
        const bool byField = choice("method") == "field";
        std::vector<CollideSurface> surfaces;
        for (const std::size_t slot : {std::size_t(1), std::size_t(2)}) {
            const ScalpPtr mesh = inputs.mesh(slot);
            if (!mesh) continue;
            const auto [first, end] = mesh->activeTriangles();
            if (first == end) continue;
            CollideSurface surface;
            // A mesh that has no field, for its size, is asked itself.
            if (byField) surface.field = sharedDistanceField(mesh, settings.offset);
            if (!surface.field) surface.exact = sharedExactDistance(mesh);
            surfaces.push_back(std::move(surface));
        }
        return surfaces;
    }
};

}  // namespace

OperatorPtr makeCollide() { return std::make_unique<Collide>(); }

}  // namespace corvelle
