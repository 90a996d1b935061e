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

using AddTurned = void (*)(std::span<const GuideWeight>, const GuideShapes&, Vec3f, float*);

void addTurnedPlain(std::span<const GuideWeight> pairs, const GuideShapes& shapes, Vec3f normal,
                    float* sum) {
    addTurnedBody(pairs, shapes, normal, sum);
}

#if defined(__GNUC__) && defined(__x86_64__)
/// Eight points at a time: the same operations a lane, none fused, so the same bits.
__attribute__((target("avx2"))) void addTurnedWide(std::span<const GuideWeight> pairs,
                                                   const GuideShapes& shapes, Vec3f normal,
                                                   float* sum) {
    addTurnedBody(pairs, shapes, normal, sum);
}
#endif

AddTurned pickAddTurned() {
#if defined(__GNUC__) && defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) return addTurnedWide;
#endif
    return addTurnedPlain;
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
    static const AddTurned addTurned = pickAddTurned();
    std::size_t widest = 0;
    for (const GuideShapesPtr& shapes : source.shapes) widest = std::max(widest, shapes->stride);
    Room room(widest);  // of 4 lanes: 3 coordinates and the segments
    float* sum = room.get();
    std::vector<Vec3f> scratch;
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
        if (!shapes || shapes->points != m)
            shapes = std::lower_bound(
                         source.shapes.begin(), source.shapes.end(), m,
                         [](const GuideShapesPtr& a, std::size_t n) { return a->points < n; })
                         ->get();
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
            addTurned(pairs, *shapes, source.strandNormals[s], sum);
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
            if (source.clearance)
                keepClearance(*source.clearance, pairs, in.roots()[s], to, scratch);
        }
        if (influence < 1.0f)
            for (std::size_t j = 1; j < m; ++j) to[j] = mix(from[j], to[j], influence);
    }
}

}  // namespace corvelle
