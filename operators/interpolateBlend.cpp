#include "operators/interpolateBlend.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "model/polyline.h"
#include "model/simd4.h"

namespace corvelle {

namespace {

constexpr float kMostScale = 2.0f;     ///< preserveLength never lengthens a blend more than this
constexpr float kLeastLength = 1e-8f;  ///< cm: below it a strand has no direction to scale along
constexpr float kNearlyOpposite = -0.999f;

/// The matrix that turns `from` to `to` by the shortest arc, times `weight`, by rows. The closed
/// form of Moeller, Hughes, "Efficiently building a matrix to rotate one vector to another", JGT
/// 4(4), 1999, where it is sound.
void weightedTurn(Vec3f from, Vec3f to, float weight, float (&m)[9]) {
    const float c = dot(from, to);
    const Vec3f v = cross(from, to);
    if (from == to || !(c > kNearlyOpposite) || !(c * c + dot(v, v) > 0.5f)) {  // or no directions
        const Rotation r = from == to ? Rotation{} : Rotation::shortest(from, to);
        const Vec3f rows[3] = {r.row0 * weight, r.row1 * weight, r.row2 * weight};
        for (int i = 0; i < 3; ++i)
            for (int k = 0; k < 3; ++k) m[3 * i + k] = rows[i][k];
        return;
    }
    const float h = weight / (1.0f + c);
    const Vec3f hv = v * h, wv = v * weight;
    const float wc = weight * c;
    m[0] = wc + hv.x * v.x;
    m[1] = hv.x * v.y - wv.z;
    m[2] = hv.x * v.z + wv.y;
    m[3] = hv.x * v.y + wv.z;
    m[4] = wc + hv.y * v.y;
    m[5] = hv.y * v.z - wv.x;
    m[6] = hv.x * v.z - wv.y;
    m[7] = hv.y * v.z + wv.x;
    m[8] = wc + hv.z * v.z;
}

/// Adds a guide's turned and weighted points, `stride` a coordinate.
void addTurned(const float (&m)[9], const float* guide, std::size_t stride, float* sum) {
    const Float4 m0(m[0]), m1(m[1]), m2(m[2]), m3(m[3]), m4(m[4]), m5(m[5]), m6(m[6]), m7(m[7]),
        m8(m[8]);
    for (std::size_t j = 0; j < stride; j += 4) {
        const Float4 x = Float4::loadUnaligned(guide + j);
        const Float4 y = Float4::loadUnaligned(guide + stride + j);
        const Float4 z = Float4::loadUnaligned(guide + 2 * stride + j);
        (Float4::load(sum + j) + (m0 * x + m1 * y + m2 * z)).store(sum + j);
        (Float4::load(sum + stride + j) + (m3 * x + m4 * y + m5 * z)).store(sum + stride + j);
        (Float4::load(sum + 2 * stride + j) + (m6 * x + m7 * y + m8 * z))
            .store(sum + 2 * stride + j);
    }
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
    std::size_t widest = 0;
    for (const GuideShapesPtr& shapes : source.shapes) widest = std::max(widest, shapes->stride);
    Room room(widest);  // of 4 lanes: 3 coordinates and the segments
    float* sum = room.get();
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
            const Vec3f normal = source.strandNormals[s];
            for (const GuideWeight& pair : pairs) {
                float turn[9];
                weightedTurn(source.guideNormals[pair.guide], normal, pair.weight, turn);
                addTurned(turn, shapes->of(pair.guide), stride, sum);
            }
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
        }
        if (influence < 1.0f)
            for (std::size_t j = 1; j < m; ++j) to[j] = mix(from[j], to[j], influence);
    }
}

}  // namespace corvelle
