#include "operators/interpolateBlend.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "model/polyline.h"

namespace corvelle {

namespace {

constexpr float kMostScale = 2.0f;     ///< preserveLength never lengthens a blend more than this
constexpr float kLeastLength = 1e-8f;  ///< cm: below it a strand has no direction to scale along
constexpr float kNoMiddle = 2e-3f;     ///< |from + to|^2 below this: all but opposite

/// What takes the shape of a guide of normal `from`, kept half turned about it, to a strand of
/// normal `to`, by the shortest arc and times `weight`: the half turn about the middle of both,
/// 2 m m^T - I. By columns xx, xy, xz, yx, ... of a symmetric matrix.
using Turn = float[9];

void turnByHalves(Vec3f from, Vec3f to, float weight, Turn& t) {
    const Rotation half{halfTurn(from, {1, 0, 0}), halfTurn(from, {0, 1, 0}),
                        halfTurn(from, {0, 0, 1})};
    const Rotation turn = Rotation::shortest(from, to).after(half);
    const Vec3f rows[3] = {turn.row0 * weight, turn.row1 * weight, turn.row2 * weight};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) t[3 * r + c] = rows[r][c];
}

inline void weightedTurn(Vec3f from, Vec3f to, float weight, Turn& t) {
    const Vec3f s = from + to;
    const float square = lengthSquared(s);
    if (!(square > kNoMiddle)) return turnByHalves(from, to, weight, t);
    const Vec3f m = s * (2.0f * weight / square);
    t[0] = m.x * s.x - weight;
    t[1] = t[3] = m.x * s.y;
    t[2] = t[6] = m.x * s.z;
    t[4] = m.y * s.y - weight;
    t[5] = t[7] = m.y * s.z;
    t[8] = m.z * s.z - weight;
}

#if defined(__GNUC__)
#define CORVELLE_INLINE inline __attribute__((always_inline))
/// Eight floats side by side, in whatever registers the function's target has.
using Lanes = float __attribute__((vector_size(32), aligned(4), may_alias));
#else
#define CORVELLE_INLINE __forceinline
struct Lanes {
    float lane[8];
    friend Lanes operator+(Lanes a, const Lanes& b) {
        for (int i = 0; i < 8; ++i) a.lane[i] += b.lane[i];
        return a;
    }
    friend Lanes operator*(float s, Lanes a) {
        for (int i = 0; i < 8; ++i) a.lane[i] *= s;
        return a;
    }
};
#endif
constexpr std::size_t kLanes = 8;

/// Adds the turned and weighted points of all guides of a strand into `sum`, [3][stride].
CORVELLE_INLINE void addTurnedBody(std::span<const GuideWeight> pairs, const GuideShapes& shapes,
                                   Vec3f normal, float* sum) {
    const std::size_t runs = shapes.stride / kLanes;
    Lanes* const sx = reinterpret_cast<Lanes*>(sum);
    Lanes* const sy = sx + runs;
    Lanes* const sz = sy + runs;
    for (const GuideWeight& pair : pairs) {
        Turn t;
        weightedTurn(shapes.normals[pair.guide], normal, pair.weight, t);
        // Copies: stores into `sum` may not be known to leave an array alone.
        const float xx = t[0], xy = t[1], xz = t[2], yx = t[3], yy = t[4], yz = t[5], zx = t[6],
                    zy = t[7], zz = t[8];
        const Lanes* const guide = reinterpret_cast<const Lanes*>(shapes.of(pair.guide));
        for (std::size_t j = 0; j < runs; ++j) {
            const Lanes x = guide[j], y = guide[runs + j], z = guide[2 * runs + j];
            sx[j] = sx[j] + (xx * x + xy * y + xz * z);
            sy[j] = sy[j] + (yx * x + yy * y + yz * z);
            sz[j] = sz[j] + (zx * x + zy * y + zz * z);
        }
    }
}

/// Adds the weighted heights of all guides of a strand into `sum`, [stride].
CORVELLE_INLINE void addHeightsBody(std::span<const GuideWeight> pairs, const ClearanceTable& table,
                                    float* sum) {
    const std::size_t runs = table.stride / kLanes;
    Lanes* const heights = reinterpret_cast<Lanes*>(sum);
    for (const GuideWeight& pair : pairs) {
        const float weight = pair.weight;
        const Lanes* const guide = reinterpret_cast<const Lanes*>(table.of(pair.guide));
        for (std::size_t j = 0; j < runs; ++j) heights[j] = heights[j] + weight * guide[j];
    }
}

void addTurnedPlain(std::span<const GuideWeight> pairs, const GuideShapes& shapes, Vec3f normal,
                    float* sum) {
    addTurnedBody(pairs, shapes, normal, sum);
}
void addHeightsPlain(std::span<const GuideWeight> pairs, const ClearanceTable& table, float* sum) {
    addHeightsBody(pairs, table, sum);
}

#if defined(__GNUC__) && defined(__x86_64__)
/// Eight points at a time: the same operations a lane, none fused, so the same bits.
__attribute__((target("avx2"))) void addTurnedWide(std::span<const GuideWeight> pairs,
                                                   const GuideShapes& shapes, Vec3f normal,
                                                   float* sum) {
    addTurnedBody(pairs, shapes, normal, sum);
}
__attribute__((target("avx2"))) void addHeightsWide(std::span<const GuideWeight> pairs,
                                                    const ClearanceTable& table, float* sum) {
    addHeightsBody(pairs, table, sum);
}
#endif

struct AddKernels {
    void (*turned)(std::span<const GuideWeight>, const GuideShapes&, Vec3f, float*);
    void (*heights)(std::span<const GuideWeight>, const ClearanceTable&, float*);
};

AddKernels pickAddKernels() {
#if defined(__GNUC__) && defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) return {addTurnedWide, addHeightsWide};
#endif
    return {addTurnedPlain, addHeightsPlain};
}

/// Arc length of `count` points, `stride` a coordinate. Four sums, joined in order.
float sumLength(const float* sum, std::size_t stride, std::size_t count, float* segments) {
    const float *x = sum, *y = sum + stride, *z = sum + 2 * stride;
    const std::size_t n = count - 1;
    for (std::size_t j = 0; j < n; ++j) {
        const float dx = x[j + 1] - x[j], dy = y[j + 1] - y[j], dz = z[j + 1] - z[j];
        segments[j] = std::sqrt(dx * dx + dy * dy + dz * dz);
    }
    float parts[4] = {};
    std::size_t j = 0;
    for (; j + 4 <= n; j += 4)
        for (std::size_t k = 0; k < 4; ++k) parts[k] += segments[j + k];
    for (std::size_t k = 0; j < n; ++j, ++k) parts[k] += segments[j];
    return (parts[0] + parts[1]) + (parts[2] + parts[3]);
}

/// The four-aligned room of one batch: three coordinates and the segments.
class Room {
public:
    explicit Room(std::size_t stride) : blocks_(stride) {}
    float* get() { return blocks_.data()->lanes; }

private:
    struct alignas(16) Block {
        float lanes[4];
    };
    std::vector<Block> blocks_;
};

/// The strands of a batch that may have to be lifted, those of one point count at a time.
class LiftBatch {
public:
    LiftBatch(const StrandSet& in, const ClearanceGoals* goals, std::size_t strands,
              std::size_t stride)
        : in_(in), goals_(goals) {
        if (!goals) return;
        strands_.reserve(strands);
        wanted_.reserve(strands * stride);
    }
    /// The table that the strands to come go by.
    void turnTo(std::size_t table, std::span<Vec3f> out) {
        if (!goals_) return;
        lift(out);
        table_ = &goals_->tables[table];
    }
    const ClearanceTable& table() const { return *table_; }
    /// Where its wanted heights go, zeros until then.
    float* add(std::uint32_t strand) {
        strands_.push_back(strand);
        wanted_.resize(wanted_.size() + table_->stride);
        return wanted_.data() + wanted_.size() - table_->stride;
    }
    void lift(std::span<Vec3f> out) {
        if (strands_.empty()) return;
        liftStrands(goals_->space,
                    {.strands = strands_,
                     .wanted = wanted_,
                     .points = table_->points,
                     .stride = table_->stride},
                    in_.roots(), in_.offsets(), out);
        strands_.clear();
        wanted_.clear();
    }

private:
    const StrandSet& in_;
    const ClearanceGoals* goals_;
    const ClearanceTable* table_ = nullptr;
    std::vector<std::uint32_t> strands_;
    std::vector<float> wanted_;
};

}  // namespace

float guideInfluence(const WeightTable& weights, std::size_t strand,
                     const BlendSettings& settings) {
    if (weights.of(strand).empty()) return 0.0f;
    if (!(settings.limitDistance > 0.0f)) return 1.0f;
    const float d = weights.nearest[strand];
    if (!(d <= settings.limitDistance)) return 0.0f;
    return std::clamp(settings.falloff(d / settings.limitDistance), 0.0f, 1.0f);
}

void blendStrands(const StrandSet& in, std::span<const std::uint32_t> strands,
                  const BlendSource& source, const BlendSettings& settings, std::span<Vec3f> out) {
    static const AddKernels add = pickAddKernels();
    std::size_t widest = 0;
    for (const GuideShapesPtr& shapes : source.shapes) widest = std::max(widest, shapes->stride);
    Room room(widest);  // of 4 lanes: 3 coordinates and the segments
    float* sum = room.get();
    LiftBatch low(in, source.clearance, strands.size(), widest);
    std::vector<std::pair<std::uint32_t, float>> mixed;  // strands that follow their guides in part
    const GuideShapes* shapes = nullptr;
    for (const std::uint32_t s : strands) {
        const std::span<const Vec3f> from = in.pointsOf(s);
        const std::size_t m = from.size();
        const std::span<Vec3f> to = out.subspan(std::size_t(in.offsets()[s]), m);
        const std::span<const GuideWeight> pairs = source.weights->of(s);
        const float influence = guideInfluence(*source.weights, s, settings);
        if (m < 2 || !(influence > 0.0f)) {
            std::copy(from.begin(), from.end(), to.begin());
            continue;
        }
        if (!shapes || shapes->points != m) {
            const auto found = std::lower_bound(
                source.shapes.begin(), source.shapes.end(), m,
                [](const GuideShapesPtr& a, std::size_t n) { return a->points < n; });
            shapes = found->get();
            low.turnTo(std::size_t(found - source.shapes.begin()), out);
        }
        float wanted = 0.0f;  // cm
        for (const GuideWeight& pair : pairs) wanted += pair.weight * shapes->lengths[pair.guide];
        const Vec3f root = from[0];
        if (settings.takeLength) {
            const float length = polylineLength(from);
            const float scale = length > kLeastLength && wanted > 0.0f ? wanted / length : 1.0f;
            to[0] = root;
            for (std::size_t j = 1; j < m; ++j) to[j] = root + (from[j] - root) * scale;
        } else {
            const std::size_t stride = shapes->stride;
            std::fill_n(sum, 3 * stride, 0.0f);
            add.turned(pairs, *shapes, source.strandNormals[s], sum);
            float scale = 1.0f;
            if (settings.preserveLength) {
                const float length = sumLength(sum, stride, m, sum + 3 * stride);
                if (length > kLeastLength && wanted > 0.0f)
                    scale = std::min(wanted / length, kMostScale);
            }
            const float *x = sum, *y = sum + stride, *z = sum + 2 * stride;
            to[0] = root;
            for (std::size_t j = 1; j < m; ++j)
                to[j] = Vec3f{root.x + x[j] * scale, root.y + y[j] * scale, root.z + z[j] * scale};
            if (source.clearance) add.heights(pairs, low.table(), low.add(s));
        }
        if (influence < 1.0f) mixed.emplace_back(s, influence);
    }
    low.lift(out);
    for (const auto& [s, influence] : mixed) {
        const std::span<const Vec3f> from = in.pointsOf(s);
        Vec3f* const to = out.data() + in.offsets()[s];
        for (std::size_t j = 1; j < from.size(); ++j) to[j] = mix(from[j], to[j], influence);
    }
}

}  // namespace corvelle
