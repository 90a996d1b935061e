#include "operators/transform.h"

#include <algorithm>
#include <array>

#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/placeStrands.h"
#include "operators/strandOperator.h"

namespace corvelle {

Rotation turnInFrame(Vec3f degrees, const RootFrame& frame) {
    const Lanes3<float> radians(turnRadians(degrees.x), turnRadians(degrees.y),
                                turnRadians(degrees.z));
    return rotation(turnAbout(radians, lanes3(frame.x), lanes3(frame.y), lanes3(frame.z)));
}

void placeStrand(std::span<const Vec3f> points, float scale, const Rotation& turn, Vec3f root,
                 std::span<Vec3f> out) {
    if (points.empty()) return;
    const Rotation scaled{turn.row0 * scale, turn.row1 * scale, turn.row2 * scale};
    const Vec3f from = points[0];
    out[0] = root;
    for (std::size_t i = 1; i < points.size(); ++i) out[i] = root + scaled(points[i] - from);
}

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "space",
     .defaultValue = std::string("strand"),
     .description = "strand: each strand about its own root, in its root's frame (x along the "
                    "scalp's U, y its normal, "
                    "z across); world: the whole set about the pivot, in world axes",
     .choices = {"strand", "world"}},
    {.name = "translate",
     .defaultValue = Vec3f{},
     .description = "Move, scene units: along the root's frame (strand) or world axes (world)",
     .unit = "length"},
    {.name = "rotate",
     .defaultValue = Vec3f{},
     .description = "Turn, degrees about x, then y, then z: the root's frame's axes (strand) or "
                    "the world's through "
                    "the pivot (world)",
     .unit = "angle"},
    {.name = "scale",
     .defaultValue = 1.0,
     .description = "Uniform scale about the root (strand) or the pivot (world) (mappable)",
     .softMin = 0.0,
     .softMax = 2.0,
     .min = 0.0},
    {.name = "pivot",
     .defaultValue = Vec3f{},
     .description = "World: the point the set turns and scales about",
     .unit = "length",
     .worldDirection = true,
     .showWhen = {{.param = "space", .values = {"world"}}}},
    {.name = "translateRandom",
     .defaultValue = Vec3f{},
     .description = "Up to this much more or less move per strand, per axis, scene units",
     .unit = "length",
     .group = "Random"},
    {.name = "rotateRandom",
     .defaultValue = Vec3f{},
     .description = "Up to this many degrees more or less turn per strand, per axis",
     .unit = "angle",
     .group = "Random"},
    {.name = "scaleRandom",
     .defaultValue = 0.0,
     .description = "Each strand's scale up to this share more or less, at random",
     .unit = "fraction",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

using AxisBases = std::array<std::uint64_t, 3>;

/// Up to `scale` more or less along each axis, by the strands of a batch.
struct AxisDraws {
    LaneDraws x, y, z;
    AxisDraws(const StrandSet& in, std::span<const std::uint32_t> strands, const AxisBases& bases,
              Vec3f scale)
        : x(in, strands, bases[0], scale.x),
          y(in, strands, bases[1], scale.y),
          z(in, strands, bases[2], scale.z) {}
    Vec3f operator[](std::size_t k) const { return {x.centered(k), y.centered(k), z.centered(k)}; }
};

class TransformWork final : public StrandWork {
public:
    FieldPtr scale;
    bool world = false;
    Vec3f translate, rotate, pivot, translateRandom, rotateRandom;
    float scaleRandom = 0.0f;
    AxisBases translateBases{}, rotateBases{};
    std::uint64_t scaleBase = 0;
    ScalpPtr scalp;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return scale->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> scales;
        scale->sampleStrands(in, strands, std::span(scales).first(strands.size()));
        LaneNumbers<TransformJob::kNumbers> numbers;
        const LaneDraws sizes(in, strands, scaleBase, scaleRandom);
        const AxisDraws moves(in, strands, translateBases, translateRandom);
        const AxisDraws turns(in, strands, rotateBases, rotateRandom);
        const bool ownTurn = !(rotateRandom == Vec3f{}), ownMove = !(translateRandom == Vec3f{});
        const bool inFrame =
            !world && (ownTurn || ownMove || !(rotate == Vec3f{}) || !(translate == Vec3f{}));
        const ScalpMesh* const surface = inFrame ? scalp.get() : nullptr;
        const Rotation setTurn = world ? turnInFrame(rotate, {}) : Rotation{};
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const float size = std::max(scales[k], 0.0f);
            const float ownSize = size * (1.0f + sizes.centered(k));
            const Vec3f turn = rotate + turns[k];
            Vec3f move = moves[k];
            // The set's root goes with the set; what is the strand's own happens about that root.
            if (world)
                move += points.empty() ? Vec3f{} : movedRoot(points[0], size, setTurn);
            else
                move += translate;
            const StrandRoot& root = in.roots()[s];
            setNormal(numbers, k, 0, surface, root, ownSize);
            setTangent(numbers, k, 1, surface, root, 0.0f);
            numbers.set(k, 2, {turnRadians(turn.x), turnRadians(turn.y), turnRadians(turn.z)},
                        0.0f);
            numbers.set(k, 3, move, 0.0f);
        }
        placeStrands(laneKernels().transform,
                     TransformJob{lanePoints(in, strands, out.points), numbers.data(), world}, in,
                     strands, out.points);
    }

private:
    Vec3f movedRoot(Vec3f root, float size, const Rotation& setTurn) const {
        const bool still = size == 1.0f && rotate == Vec3f{};  // no rounding about a pivot then
        return (still ? root : pivot + setTurn(root - pivot) * size) + translate;
    }
};

class Transform final : public StrandOperator {
public:
    std::string type() const override { return "Transform"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Moves, turns and scales strands about their roots (or the whole set), with "
               "randomness.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<TransformWork>();
        work->world = choice("space") == "world";
        work->scale = fieldFromParam(*this, "scale", context, strands);
        work->translate = vec3("translate");
        work->rotate = vec3("rotate");
        work->translateRandom = vec3("translateRandom");
        work->rotateRandom = vec3("rotateRandom");
        work->scaleRandom = float(number("scaleRandom"));
        const Vec3f none;
        if (work->translate == none && work->rotate == none && work->translateRandom == none &&
            work->rotateRandom == none && work->scaleRandom == 0.0f &&
            work->scale->constant() == 1.0f)
            return nullptr;
        work->pivot = vec3("pivot");
        const auto base = [&](const char* use) { return drawBase(seed(), use); };
        work->translateBases = {base("Transform.translateX"), base("Transform.translateY"),
                                base("Transform.translateZ")};
        work->rotateBases = {base("Transform.rotateX"), base("Transform.rotateY"),
                             base("Transform.rotateZ")};
        work->scaleBase = base("Transform.scale");
        work->scalp = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makeTransform() { return std::make_unique<Transform>(); }

}  // namespace corvelle
