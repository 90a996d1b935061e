#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "model/elementary.h"
#include "model/polyline.h"
#include "operators/nodeFactories.h"
#include "operators/pointArrays.h"
#include "operators/splineResample.h"
#include "operators/strandLoop.h"
#include "operators/strandSpline.h"

namespace corvelle {

namespace {

constexpr float kLengthShare =
    0.25f;  ///< curvature mode: how much of the spacing goes by length alone

const std::vector<ParamSpec> kParams = {
    {.name = "segments",
     .defaultValue = 8.0,
     .description = "Segments per strand (points = segments + 1); every Scatter grows its strands "
                    "with them. 0: keep "
                    "each strand's",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 64.0,
     .whole = true,
     .min = 0.0,
     .max = 1024.0},
    {.name = "mode",
     .defaultValue = std::string("even"),
     .description = "even: segments for every strand; curvature: fewer points for render and "
                    "export, fewer for "
                    "straighter strands, placed where they bend; length: fewer for shorter strands",
     .choices = {"even", "curvature", "length"},
     .animatable = false},
    {.name = "minSegments",
     .defaultValue = 2.0,
     .description = "With curvature or length: the least segments a strand gets",
     .animatable = false,
     .showWhen = {{.param = "mode", .values = {"curvature", "length"}}},
     .whole = true,
     .min = 1.0,
     .max = 256.0},
    {.name = "maxAngle",
     .defaultValue = 10.0,
     .description = "With curvature: about how far (degrees) a strand may turn per segment; "
                    "smaller keeps curls "
                    "rounder with more points",
     .unit = "angle",
     .animatable = false,
     .softMin = 1.0,
     .softMax = 45.0,
     .showWhen = {{.param = "mode", .values = {"curvature"}}},
     .min = 0.1,
     .max = 90.0},
};

enum class Mode { Even, Curvature, Length };

/// The places of one strand's new points, as params of its spline.
class Placer {
public:
    Placer(Mode mode, int segments, int minSegments, float maxAngleRadians)
        : mode_(mode),
          segments_(segments),
          minSegments_(std::min(minSegments, segments)),
          maxAngle_(maxAngleRadians) {}

    /// Curvature mode: how many segments the strand's turning asks for.
    int segmentsFor(const StrandSpline& spline) {
        measure(spline);
        const float wanted = std::ceil(turn_.back() / maxAngle_);
        return std::clamp(int(std::min(wanted, 1e6f)), minSegments_, segments_);
    }

    void params(const StrandSpline& spline, std::span<float> out) {
        if (mode_ != Mode::Curvature) return spline.evenParams(out);
        measure(spline);
        const float length = places_.back().length, turning = turn_.back();
        if (!(length > 0.0f) || !(turning > 0.0f)) return spline.evenParams(out);
        // Evenly along a measure of turning and length: dense where the strand bends, never empty.
        const auto measureAt = [&](std::size_t k) {
            return (1.0f - kLengthShare) * turn_[k] / turning +
                   kLengthShare * places_[k].length / length;
        };
        const std::size_t last = out.size() - 1;
        std::size_t k = 0;
        out[0] = 0.0f;
        for (std::size_t j = 1; j < last; ++j) {
            const float target = float(j) / float(last);
            while (k + 2 < turn_.size() && measureAt(k + 1) < target) ++k;
            const float a = measureAt(k), b = measureAt(k + 1);
            const float t = b > a ? std::clamp((target - a) / (b - a), 0.0f, 1.0f) : 0.0f;
            out[j] = mix(places_[k].param, places_[k + 1].param, t);
        }
        out[last] = float(spline.pointCount() - 1);
    }

private:
    static constexpr std::size_t kPieces = 4;  ///< that a span between two points is walked in
    struct Place {
        float param = 0.0f, length = 0.0f;
    };

    /// Walks the spline in fine steps and adds up how far it goes and its direction turns.
    void measure(const StrandSpline& spline) {
        const std::size_t steps = (spline.pointCount() - 1) * kPieces;
        places_.resize(steps + 1);
        turn_.assign(steps + 1, 0.0f);
        Vec3f from = spline.at(0.0f), before;
        for (std::size_t k = 0; k <= steps; ++k) {
            const float param = float(k) / float(kPieces);
            places_[k] = {param, 0.0f};
            if (k == 0) continue;
            const Vec3f to = spline.at(param);
            places_[k].length = places_[k - 1].length + distance(from, to);
            const Vec3f direction = normalized(to - from);
            const bool turns = lengthSquared(before) > 0.0f && lengthSquared(direction) > 0.0f;
            turn_[k] = turn_[k - 1] +
                       (turns ? math::acos(std::clamp(dot(before, direction), -1.0f, 1.0f)) : 0.0f);
            if (lengthSquared(direction) > 0.0f) before = direction;
            from = to;
        }
    }

    Mode mode_;
    int segments_, minSegments_;
    float maxAngle_;
    std::vector<Place> places_;
    std::vector<float> turn_;
};

class Resample final : public Operator {
public:
    std::string type() const override { return "Resample"; }
    std::string category() const override { return "shape"; }
    std::string description() const override { return "Evens out the points along each strand."; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override {
        return text("mode") == "curvature" ? std::uint32_t(reads::kViewport) : 0u;
    }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        const Mode mode = modeFor(context);
        const int segments = whole("segments");
        if (segments == 0 || strands->strandCount() == 0) return strands;
        auto out = std::make_shared<StrandSet>();
        layOut(*strands, mode, segments, *out);
        const std::vector<PointArray> arrays = openPointArrays(*strands, *out, true);
        run(*strands, *out, arrays, mode, StrandPick(strands->strandCount()));
        return StrandsPtr(std::move(out));
    }

    /// Strand by strand where every strand keeps its count. By length all hang on the longest.
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        if (request.ownChanged || request.inputs[0].kind == SlotChanges::Kind::Unknown)
            return false;
        const StrandsPtr strands = requireStrands(*this, inputs);
        StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
        const int segments = whole("segments");
        const StrandChangesPtr changes = request.inputs[0].changes
                                             ? request.inputs[0].changes
                                             : std::make_shared<const StrandChanges>();
        if (!held || !*held) return false;
        if (segments == 0) {
            result.outputs = {strands};
            result.changes = {changes};
            return true;
        }
        const Mode mode = modeFor(context);
        if (mode == Mode::Length || (*held)->strandCount() != strands->strandCount()) return false;
        if (!std::ranges::equal((*held)->ids(), strands->ids())) return false;
        const StrandPick pick{std::span<const std::uint32_t>(changes->strands)};
        if (mode == Mode::Curvature) {
            const std::vector<std::uint64_t> counts = pointCounts(*strands, mode, segments, pick);
            for (std::size_t k = 0; k < counts.size(); ++k)
                if ((*held)->pointCountOf(changes->strands[k]) != counts[k]) return false;
        }
        auto out = std::make_shared<StrandSet>(**held);
        if (!takeStrandData(*strands, *out)) return false;
        if (out->pointChannelNames() != strands->pointChannelNames()) return false;
        held->reset();  // let go: arrays no one else holds are written in place
        const std::vector<PointArray> arrays = openPointArrays(*strands, *out, false);
        run(*strands, *out, arrays, mode, pick);
        result.outputs = {StrandsPtr(std::move(out))};
        result.changes = {changes};
        return true;
    }

private:
    Mode modeFor(const EvalContext& context) const {
        const std::string& mode = choice("mode");
        if (mode == "length") return Mode::Length;
        // A viewport keeps even strands: their counts must not change under a brush.
        return mode == "curvature" && !context.viewport() ? Mode::Curvature : Mode::Even;
    }

    Placer placer(Mode mode) const {
        return Placer(mode, whole("segments"), whole("minSegments"),
                      float(number("maxAngle")) * std::numbers::pi_v<float> / 180.0f);
    }

    /// How many points each strand of the pick gets, by curvature or by length.
    std::vector<std::uint64_t> pointCounts(const StrandSet& in, Mode mode, int segments,
                                           const StrandPick& pick) const {
        std::vector<std::uint64_t> counts(pick.size());
        const float longest = mode == Mode::Length ? longestInPreview(in) : 0.0f;
        pick.forEachBatchAt([&](std::size_t first, std::span<const std::uint32_t> batch) {
            Placer places = placer(mode);
            StrandSpline spline;
            for (std::size_t k = 0; k < batch.size(); ++k) {
                const auto points = in.pointsOf(batch[k]);
                int wanted = std::min(whole("minSegments"), segments);
                if (points.size() >= 2 && mode == Mode::Length) {
                    const float share = longest > 0.0f ? polylineLength(points) / longest : 1.0f;
                    wanted = std::clamp(int(std::ceil(std::min(share, 1.0f) * float(segments))),
                                        wanted, segments);
                } else if (points.size() >= 2) {
                    spline.build(points);
                    wanted = places.segmentsFor(spline);
                }
                counts[first + k] = std::uint64_t(wanted) + 1;
            }
        });
        return counts;
    }

    void layOut(const StrandSet& in, Mode mode, int segments, StrandSet& out) const {
        const std::size_t count = in.strandCount();
        constexpr unsigned kFlags = StrandSet::kLeavePoints | StrandSet::kLeaveWidths;
        std::size_t kept = 0;
        while (kept < count && in.pointCountOf(kept) == std::size_t(segments) + 1) ++kept;
        if (mode == Mode::Even && kept == count) {
            out = in;  // the layout stays: what is not written is shared
            return;
        }
        if (mode == Mode::Even) {
            out.allocateUniform(count, std::size_t(segments) + 1, kFlags);
        } else {
            out.allocate(pointCounts(in, mode, segments, StrandPick(count)), kFlags);
        }
        takeStrandData(in, out);
    }

    /// Of the strands that every preview holds, so that a thinned view gives a strand the same
    /// points.
    static float longestInPreview(const StrandSet& in) {
        const std::vector<float>* preview = in.strandChannel("_preview");
        const bool marked =
            preview && std::ranges::any_of(*preview, [](float p) { return p >= 0.5f; });
        const std::size_t chunks = (in.strandCount() + kChunkStrands - 1) / kChunkStrands;
        std::vector<float> longest(chunks, 0.0f);
        parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c)
                for (std::size_t s = c * kChunkStrands;
                     s < std::min(in.strandCount(), (c + 1) * kChunkStrands); ++s)
                    if (!marked || (*preview)[s] >= 0.5f)
                        longest[c] = std::max(longest[c], polylineLength(in.pointsOf(s)));
        });
        return std::ranges::max(longest);
    }

    void run(const StrandSet& in, StrandSet& out, std::span<const PointArray> arrays, Mode mode,
             const StrandPick& pick) const {
        const std::span<Vec3f> points = out.mutablePoints();
        if (points.empty()) return;
        const SplineJob job{.from = in.points().empty() ? nullptr : &in.points()[0].x,
                            .to = &points[0].x,
                            .fromOffsets = in.offsets().data(),
                            .toOffsets = out.offsets().data(),
                            .arrays = arrays.data(),
                            .arrayCount = arrays.size()};
        const Placer places = placer(mode);
        pick.forEachBatch([&](std::span<const std::uint32_t> batch) {
            std::array<std::uint32_t, StrandPick::kBatch> curves;  // what has two points or more
            std::size_t count = 0;
            for (const std::uint32_t s : batch) {
                if (in.pointCountOf(s) >= 2)
                    curves[count++] = s;
                else
                    spreadPoint(in, s, job);
            }
            const std::span<const std::uint32_t> list(curves.data(), count);
            if (mode == Mode::Curvature)
                placeByCurvature(in, list, job, places);
            else
                SplineResampler().run(job, list);
        });
    }

    /// A strand of one point, or of none, has it at all its new points.
    static void spreadPoint(const StrandSet& in, std::uint32_t s, const SplineJob& job) {
        const std::size_t from = job.fromOffsets[s], to = job.toOffsets[s],
                          count = job.toOffsets[s + 1] - to;
        const bool any = in.pointCountOf(s) > 0;
        for (std::size_t j = 3 * to; j < 3 * (to + count); ++j)
            job.to[j] = any ? job.from[3 * from + j % 3] : 0.0f;
        for (const PointArray& array : std::span(job.arrays, job.arrayCount))
            std::fill_n(array.to + to, count, any ? array.from[from] : 0.0f);
    }

    static void placeByCurvature(const StrandSet& in, std::span<const std::uint32_t> strands,
                                 const SplineJob& job, Placer places) {
        StrandSpline spline;
        std::vector<float> params;
        for (const std::uint32_t s : strands) {
            const auto from = in.pointsOf(s);
            params.resize(job.toOffsets[s + 1] - job.toOffsets[s]);
            spline.build(from);
            places.params(spline, params);
            float* to = job.to + 3 * job.toOffsets[s];
            for (const float param : params) {
                const Vec3f p = spline.at(param);
                for (int axis = 0; axis < 3; ++axis) *to++ = p[axis];
            }
            for (const PointArray& array : std::span(job.arrays, job.arrayCount)) {
                const std::span<const float> values(array.from + job.fromOffsets[s], from.size());
                float* value = array.to + job.toOffsets[s];
                for (const float param : params) *value++ = valueAt(values, param, array.discrete);
            }
        }
    }
};

}  // namespace

OperatorPtr makeResample() { return std::make_unique<Resample>(); }

}  // namespace corvelle
