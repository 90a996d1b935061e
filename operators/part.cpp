#include "operators/part.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "model/hash.h"
#include "operators/nearPartLanes.h"
#include "operators/nodeFactories.h"
#include "operators/partLanes.h"
#include "operators/placeStrands.h"
#include "operators/rootFrame.h"
#include "operators/segmentTurn.h"
#include "operators/strandOperator.h"

namespace corvelle {

void turnAway(std::span<const Vec3f> points, Vec3f normal, Vec3f away,
              std::span<const float> shares, std::span<Vec3f> out) {
    if (points.empty()) return;
    std::ranges::copy(points, out.begin());
    awayAcross(&out[0].x, out.size(), lanes3(normal), lanes3(away), shares.data());
}

namespace {

constexpr std::size_t kAhead = 8;  ///< strands, for the caches
constexpr std::uint64_t kSide = hashOf("Part.side");
/// Of a root's coordinates: what is nearer to the line than they round has no side of its own.
constexpr float kOnLine = 4e-6f;

const std::vector<ParamSpec> kParams = {
    {.name = "width",
     .defaultValue = 1.5,
     .description = "Distance from the part over which strands lean away (scene units)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 5.0,
     .min = 1e-6},
    {.name = "strength",
     .defaultValue = 1.0,
     .description = "How far strands at the part turn away from it, 0-1 (mappable)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Turn along the length, root to tip"},
    {.name = "part",
     .defaultValue = std::string(),
     .description = "Only this part (empty: every part)"},
};

class PartWork final : public StrandWork {
public:
    FieldPtr strength;
    Ramp profile;
    LaneRamp keys;  ///< the same again
    float width = 0.0f;
    std::shared_ptr<const PartLines> parts;
    std::int32_t part = -1;  ///< by the parts' number, -1: all
    ScalpPtr scalp;

    WrittenArrays writes() const override { return {.points = true}; }
    bool readsWholeSet() const override { return strength->readsWholeSet(); }
    void run(const StrandSet& in, std::span<const std::uint32_t> strands,
             const OpenArrays& out) const override {
        std::array<float, StrandPick::kBatch> strengths;
        strength->sampleStrands(in, strands, std::span(strengths).first(strands.size()));
        std::array<std::uint32_t, StrandPick::kBatch> listed;
        LaneNumbers<AwayJob::kNumbers> numbers;
        const std::size_t count = listNear(in, strands, strengths.data(), listed.data(), numbers);
        copyOthers(in, strands, std::span(listed).first(count), out.points);
        const auto near = std::span<const std::uint32_t>(listed).first(count);
        std::vector<float> shares;
        const auto single = [&](std::size_t k) {
            const auto points = in.pointsOf(near[k]);
            const auto at = [&](std::size_t i) { return Lanes3<float>::at(numbers.at(k) + i); };
            const Lanes3<float> normal = normalAcross(at(0), lanes3(firstDirection(points)));
            const float* const n = numbers.at(k);
            shares.resize(points.size());
            segmentShares(points, profile, n[3], shares);
            turnAway(points, vec3(normal), vec3(wayFromPart(normal, at(4), at(8), n[7])), shares,
                     out.points.subspan(in.offsets()[near[k]], points.size()));
        };
        const bool flat = profile.isConstant(1.0f);
        if (flat || keys.fits()) {
            const AwayJob job{lanePoints(in, near, out.points), numbers.data(),
                              flat ? RampKeys{} : keys.keys()};
            return deformStrands(laneKernels().away, job, in, near, single);
        }
        for (std::size_t k = 0; k < count; ++k) single(k);
    }

private:
    static constexpr std::size_t kBatch = StrandPick::kBatch;

    /// Lists those of a batch that turn, in their order, and what is known of their roots. Returns
    /// how many.
    std::size_t listNear(const StrandSet& in, std::span<const std::uint32_t> strands,
                         const float* strengths, std::uint32_t* listed,
                         LaneNumbers<AwayJob::kNumbers>& numbers) const {
        // First those that the box of all parts is near enough to.
        const PartTable table = parts->table();
        const PartNode& whole = table.nodes[0];
        const float limit = width * width;
        std::array<std::uint32_t, kBatch> asked;  // the strands, and their places in the batch
        std::array<std::uint32_t, kBatch> places;
        std::size_t count = 0;
        for (std::size_t k = 0; k < strands.size(); ++k) {
            const auto points = in.pointsOf(strands[k]);
            if (k + kAhead < strands.size()) {
                const auto next = in.pointsOf(strands[k + kAhead]);
                fetchFloats(reinterpret_cast<const float*>(next.data()), 3 * next.size());
            }
            if (points.size() < 2 || !(strengths[k] > 0.0f)) continue;
            const float root[3] = {points[0].x, points[0].y, points[0].z};
            asked[count] = strands[k];
            places[count] = std::uint32_t(k);
            count += boxAwayAcross(whole, root) <= limit;
        }
        if (count == 0) return 0;
        alignas(kLaneAlignment) std::array<float, 4 * kBatch> from;
        std::array<float, kBatch> segments;
        const NearPartJob job{.points = &in.points()[0].x,
                              .offsets = in.offsets().data(),
                              .strands = asked.data(),
                              .table = table,
                              .part = part,
                              .maxDistance = width,
                              .from = from.data(),
                              .segments = segments.data()};
        laneKernels().nearPart(job, count);
        std::size_t near = 0;
        for (std::size_t k = 0; k < count; ++k) {
            if (segments[k] < 0.0f) continue;
            const std::size_t s = asked[k];
            const float* const v = &from[4 * k];
            const float x = std::min(v[3] / width, 1.0f);
            const float share = 1.0f - x * x * (3.0f - 2.0f * x);
            const float side = hashCombine(kSide, in.ids()[s]) & 1u ? 1.0f : -1.0f;
            const bool onLine = v[3] <= kOnLine * length(in.pointsOf(s)[0]);
            const float* const way = table.segments[std::size_t(segments[k])].way;
            setNormal(numbers, near, 0, scalp.get(), in.roots()[s],
                      clampShare(strengths[places[k]]) * share);
            numbers.set(near, 1, onLine ? Vec3f{} : Vec3f{v[0], v[1], v[2]}, side);
            numbers.set(near, 2, {way[0], way[1], way[2]}, 0.0f);
            listed[near++] = std::uint32_t(s);
        }
        return near;
    }

    /// The strands that are not listed stay; those that follow one another are copied at once.
    static void copyOthers(const StrandSet& in, std::span<const std::uint32_t> strands,
                           std::span<const std::uint32_t> listed, std::span<Vec3f> out) {
        const auto offsets = in.offsets();
        std::size_t next = 0;
        for (std::size_t k = 0; k < strands.size();) {
            if (next < listed.size() && listed[next] == strands[k]) {
                ++next;
                ++k;
                continue;
            }
            const std::size_t begin = offsets[strands[k]];
            std::size_t end = begin;
            while (k < strands.size() && offsets[strands[k]] == end &&
                   !(next < listed.size() && listed[next] == strands[k]))
                end = offsets[strands[k++] + 1];
            // Bytes: many compilers copy vectors of three floats one after the other.
            if (end > begin)
                std::memcpy(&out[begin], &in.points()[begin], (end - begin) * sizeof(Vec3f));
        }
    }
};

class Part final : public StrandOperator {
public:
    std::string type() const override { return "Part"; }
    std::string category() const override { return "shape"; }
    std::string description() const override {
        return "Opens a gap along the parts drawn on the scalp.";
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override { return reads::kScalp | reads::kParts; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs&,
                                        const StrandSet& strands) override {
        auto work = std::make_unique<PartWork>();
        work->parts = context.parts();
        if (!work->parts || work->parts->empty()) {
            warn("no parts drawn: draw some with the Part tool; the strands pass through");
            return nullptr;
        }
        if (const std::string& wanted = text("part"); !wanted.empty()) {
            work->part = work->parts->find(wanted);
            if (work->part < 0) {
                warn("no part named '" + wanted + "'; the strands pass through");
                return nullptr;
            }
        }
        work->strength = fieldFromParam(*this, "strength", context, strands);
        work->profile = ramp("profile");
        work->keys = LaneRamp(work->profile);
        if (work->strength->constant().value_or(1.0f) <= 0.0f || work->profile.isConstant(0.0f))
            return nullptr;
        work->width = float(number("width"));
        work->scalp = context.scalp();
        return work;
    }
};

}  // namespace

OperatorPtr makePart() { return std::make_unique<Part>(); }

}  // namespace corvelle
