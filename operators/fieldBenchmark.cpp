// Sampling a mapped param at the roots of a full head, against the plainest loop that gives the same
// numbers: flat arrays, no dispatch, no scalp. "virtual" calls the single form strand by strand.
#include <benchmark/benchmark.h>

#include <cmath>
#include <numeric>

#include "expr/mapCatalog.h"
#include "graph/scalarField.h"
#include "model/hash.h"
#include "model/noise.h"
#include "model/pointIndex.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"
#include "operators/fieldValues.h"

namespace corvelle {
namespace {

constexpr std::size_t kStrands = 100'000;
constexpr std::size_t kBatch = 256;
constexpr int kSize = 1024;  // of the picture

struct Head {
    ScalpPtr scalp;
    StrandSet strands;
    std::vector<std::uint32_t> all;
    std::vector<Vec3f> rootPositions;
    std::vector<std::uint8_t> pixels;
    std::shared_ptr<std::vector<float>> values;
    GuidesPtr guides;
    std::vector<Vec3f> guideRoots;

    Head() {
        ScalpMesh mesh = makeSphere(200, 500, 10.0f);
        std::vector<Color4f> colors(mesh.triangles().size() * 3);
        for (std::size_t i = 0; i < colors.size(); ++i) colors[i] = {unitHash(i), unitHash(i + 1), unitHash(i + 2), 1};
        mesh.addColorSet("paint", std::move(colors));
        const int triangles = int(mesh.triangles().size());
        scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
        strands = makeTuft({.strands = kStrands, .pointsPerStrand = 16, .seed = 7, .triangles = triangles});
        all.resize(kStrands);
        std::iota(all.begin(), all.end(), 0u);
        for (std::size_t s = 0; s < kStrands; ++s) rootPositions.push_back(strands.pointsOf(s)[0]);
        for (int i = 0; i < kSize * kSize; ++i)
            for (int c = 0; c < 4; ++c) pixels.push_back(std::uint8_t(mix64(std::uint64_t(4 * i + c))));
        values = std::make_shared<std::vector<float>>();
        for (std::size_t i = 0; i < scalp->points().size(); ++i) values->push_back(unitHash(i));
        std::vector<GuideCurve> curves;
        for (std::size_t g = 0; g < 2000; ++g) {
            GuideDetail detail;
            detail.attributes["layer"] = unitHash(g);
            const Vec3f root = rootPositions[g * 50];
            guideRoots.push_back(root);
            curves.push_back({g + 1, {}, {root, root + Vec3f{0, 1, 0}}, std::make_shared<const GuideDetail>(detail)});
        }
        guides = std::make_shared<const GuideSet>(std::move(curves));
    }
};
const Head& head() {
    static const Head made;
    return made;
}

template <class T>
T mixed(const StrandRoot& r, T a, T b, T c) {
    return a * r.u + b * r.v + c * (1.0f - r.u - r.v);
}

// The plain loops.

void texturePlain(std::span<float> out) {
    const Head& h = head();
    const Vec2f* uvs = h.scalp->uvs().data();
    const std::span<const StrandRoot> roots = h.strands.roots();
    for (std::size_t s = 0; s < kStrands; ++s) {
        const StrandRoot& r = roots[s];
        const Vec2f* corner = uvs + std::size_t(r.triangle) * 3;
        const auto wrap = [](float x) { return x >= 0.0f && x <= 1.0f ? x : x - std::floor(x); };
        const float x = wrap(mixed(r, corner[0].x, corner[1].x, corner[2].x)) * kSize - 0.5f;
        const float y = (1.0f - wrap(mixed(r, corner[0].y, corner[1].y, corner[2].y))) * kSize - 0.5f;
        const float fx = x - std::floor(x), fy = y - std::floor(y);
        const auto edge = [](float at) { return std::size_t(std::clamp(int(at), 0, kSize - 1)); };
        const std::size_t x0 = edge(std::floor(x)), x1 = edge(std::floor(x) + 1.0f);
        const std::size_t y0 = edge(std::floor(y)), y1 = edge(std::floor(y) + 1.0f);
        const auto at = [&](std::size_t px, std::size_t py) { return float(h.pixels[(py * kSize + px) * 4]) / 255.0f; };
        out[s] = mix(mix(at(x0, y0), at(x1, y0), fx), mix(at(x0, y1), at(x1, y1), fx), fy);
    }
}
void colorSetPlain(std::span<float> out) {
    const Head& h = head();
    const Color4f* colors = h.scalp->colorSets().at("paint").data();
    const std::span<const StrandRoot> roots = h.strands.roots();
    for (std::size_t s = 0; s < kStrands; ++s) {
        const Color4f* corner = colors + std::size_t(roots[s].triangle) * 3;
        out[s] = mixed(roots[s], corner[0].r, corner[1].r, corner[2].r);
    }
}
void verticesPlain(std::span<float> out) {
    const Head& h = head();
    const Triangle* triangles = h.scalp->triangles().data();
    const float* v = h.values->data();
    const std::span<const StrandRoot> roots = h.strands.roots();
    for (std::size_t s = 0; s < kStrands; ++s) {
        const Triangle& t = triangles[roots[s].triangle];
        out[s] = mixed(roots[s], v[t[0]], v[t[1]], v[t[2]]);
    }
}
void attributePlain(std::span<float> out) {
    const std::vector<float>& tone = *head().strands.strandChannel("tone");
    for (std::size_t s = 0; s < kStrands; ++s) out[s] = 2.0f + 3.0f * tone[s];
}
void guidesPlain(std::span<float> out) {
    const Head& h = head();
    static const PointIndex index(h.guideRoots);
    static const std::vector<float> values = [] {
        std::vector<float> v;
        for (std::size_t g = 0; g < 2000; ++g) v.push_back(unitHash(g));
        return v;
    }();
    for (std::size_t s = 0; s < kStrands; ++s) {
        std::array<Neighbor, 4> near;
        const std::size_t n = index.nearest(h.rootPositions[s], near);
        float sum = 0.0f, weights = 0.0f;
        for (std::size_t i = 0; i < n; ++i) {
            const float w = 1.0f / std::max(near[i].distanceSquared, 1e-12f);
            sum += w * values[near[i].index];
            weights += w;
        }
        out[s] = sum / weights;
    }
}
void noisePlain(std::span<float> out) {
    for (std::size_t s = 0; s < kStrands; ++s)
        out[s] = std::clamp(fbm(head().rootPositions[s] * 0.3f, 0, 2) * 0.5f + 0.5f, 0.0f, 1.0f);
}
const Ramp& bump() {
    static const Ramp ramp({{0.0f, 0.0f}, {0.3f, 1.0f}, {1.0f, 0.2f}});
    return ramp;
}
void remapPlain(std::span<float> out) {
    const std::vector<float>& tone = *head().strands.strandChannel("tone");
    for (std::size_t s = 0; s < kStrands; ++s) {
        const float v = 2.0f + 3.0f * tone[s];
        const float t = (v - 2.0f) / 3.0f;
        const float c = bump()(t > 0.0f ? std::min(t, 1.0f) : 0.0f);
        out[s] = c == 0.0f ? 0.0f : c == 1.0f ? 1.0f : 0.0f + 1.0f * c;
    }
}
void combinePlain(std::span<float> out) {
    const std::vector<float>& tone = *head().strands.strandChannel("tone");
    for (std::size_t s = 0; s < kStrands; ++s) {
        const float v = 2.0f + 3.0f * tone[s];
        out[s] = v * v;
    }
}

// The fields.

FieldPtr textureField() {
    const Head& h = head();
    return mapField(textureMap(Texture::fromPixels(kSize, kSize, 4, h.pixels), h.scalp), MapComponent::R, "p");
}
FieldPtr colorSetField() { return mapField(colorSetMap(head().scalp, "paint"), MapComponent::R, "p"); }
FieldPtr verticesField() { return mapField(vertexMap(head().values, 1, head().scalp), MapComponent::R, "p"); }
FieldPtr attributeField() {
    ScalarFieldParts parts;
    parts.mapped = true;
    parts.kind = MapKind::Attribute;
    parts.source = "tone";
    parts.low = 2.0f;
    parts.high = 5.0f;
    return boundTo(std::make_shared<const ScalarField>(std::move(parts)), head().strands);
}
FieldPtr guidesField() { return mapField(guideLayerMap(head().guides, head().scalp, "layer"), MapComponent::R, "p"); }
FieldPtr noiseField() { return std::make_shared<const NoiseFieldValue>(NoiseFieldSettings{}); }
FieldPtr remapField() {
    return std::make_shared<const RemapFieldValue>(
        attributeField(), RemapFieldSettings{.inMin = 2.0f, .inMax = 5.0f, .curve = bump()});
}
FieldPtr combineField() {
    const FieldPtr tone = attributeField();
    return std::make_shared<const CombineFieldValue>(tone, tone, 1.0f, CombineMode::Multiply, 0.5f);
}

bool same(std::span<const float> a, std::span<const float> b) {
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!(a[i] == b[i])) return false;
    return true;
}

enum class Form { Plain, Batch, Virtual };

template <void (*Plain)(std::span<float>), FieldPtr (*Make)(), Form F>
void timeField(benchmark::State& state) {
    const Head& h = head();
    const FieldPtr field = Make();
    std::vector<float> out(kStrands), want(kStrands);
    const auto run = [&] {
        if (F == Form::Plain) {
            Plain(out);
        } else if (F == Form::Batch) {
            for (std::size_t b = 0; b < kStrands; b += kBatch) {
                const std::size_t n = std::min(kBatch, kStrands - b);
                field->sampleStrands(h.strands, std::span(h.all).subspan(b, n), std::span(out).subspan(b, n));
            }
        } else {
            for (std::size_t s = 0; s < kStrands; ++s) out[s] = field->sampleStrand(h.strands, s);
        }
    };
    Plain(want);
    run();
    if (!same(out, want)) return state.SkipWithError("result differs from the baseline");
    for (auto _ : state) {
        run();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kStrands));
}

#define CORVELLE_FIELD_BENCHMARKS(name)                                                    \
    BENCHMARK(timeField<name##Plain, name##Field, Form::Plain>)->Name("field/" #name "/baseline"); \
    BENCHMARK(timeField<name##Plain, name##Field, Form::Batch>)->Name("field/" #name "/batch");    \
    BENCHMARK(timeField<name##Plain, name##Field, Form::Virtual>)->Name("field/" #name "/virtual")
CORVELLE_FIELD_BENCHMARKS(texture);
CORVELLE_FIELD_BENCHMARKS(colorSet);
CORVELLE_FIELD_BENCHMARKS(vertices);
CORVELLE_FIELD_BENCHMARKS(attribute);
CORVELLE_FIELD_BENCHMARKS(guides);
CORVELLE_FIELD_BENCHMARKS(noise);
CORVELLE_FIELD_BENCHMARKS(remap);
CORVELLE_FIELD_BENCHMARKS(combine);

}  // namespace
}  // namespace corvelle
