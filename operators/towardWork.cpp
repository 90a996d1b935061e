#include "operators/towardWork.h"

#include <algorithm>
#include <array>

#include "operators/rootFrame.h"
#include "operators/segmentTurn.h"

namespace corvelle {

namespace {

class TowardWork final : public StrandWork {
public:
    std::shared_ptr<const VectorField> direction;
    FieldPtr strength;
    TowardSettings settings;
    LaneRamp keys;  ///< the profile again

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override {
        return strength->readsWholeSet() || direction->readsWholeSet();
    }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        std::array<Vec3f, StrandPick::kBatch> directions;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        direction->sampleStrands(in, strands, std::span(directions).first(strands.size()));
        const ScalpMesh* const surface = settings.surface.get();
        const bool flat = settings.profile.isConstant(1.0f);
        const float most = flat ? std::min(settings.most, 1.0f) : settings.most;
        LaneNumbers<4> toward, normals;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            strengths[k] = strengths[k] > 0.0f ? std::min(strengths[k], most) : 0.0f;
            toward.set(k, 0, directions[k], strengths[k]);
            if (surface) normals.set(k, 0, scalpNormal(surface, in.roots()[strands[k]]), 0.0f);
        }
        std::vector<float> scratch;
        const auto single = [&](std::size_t k) {
            const std::size_t s = strands[k];
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.points.subspan(in.offsets()[s], points.size());
            const float* const n = normals.at(k);
            const Vec3f way =
                surface ? laidOnSurface(directions[k], {n[0], n[1], n[2]}) : directions[k];
            if (flat) return turnSegments(points, way, std::span(&strengths[k], 1), to);
            scratch.resize(points.size());
            segmentShares(points, settings.profile, strengths[k], scratch);
            turnSegments(points, way, scratch, to);
        };
        turnStrands(in, strands, toward, surface ? &normals : nullptr, false,
                    flat ? nullptr : &keys, out.points, single);
    }
};

}  // namespace

std::unique_ptr<StrandWork> towardWork(const Operator& node, const EvalContext& context,
                                       const StrandSet& strands, TowardSettings settings) {
    auto work = std::make_unique<TowardWork>();
    work->direction = vectorFromParam(node, settings.direction, context, strands);
    work->strength = fieldFromParam(node, settings.strength, context, strands);
    if (work->strength->constant().value_or(1.0f) <= 0.0f || settings.profile.isConstant(0.0f) ||
        work->direction->constant() == Vec3f{})
        return nullptr;
    work->keys = LaneRamp(settings.profile);
    work->settings = std::move(settings);
    return work;
}

}  // namespace corvelle
