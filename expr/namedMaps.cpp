#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "expr/batchBuffer.h"
#include "expr/mapCatalog.h"
#include "model/hash.h"
#include "model/pointIndex.h"
#include "model/strandSet.h"

namespace corvelle {

namespace {

constexpr std::size_t kBatch = 256;

/// A root's position is its strand's first point.
inline Vec3f rootPosition(const StrandSet& set, std::size_t strand) {
    const std::span<const std::uint64_t> offsets = set.offsets();
    const std::uint64_t first = offsets[strand];
    return offsets[strand + 1] > first ? set.points()[std::size_t(first)] : Vec3f{};
}

/// Maps that are read at places on a scalp. The sampler has values(roots, component, out) and
/// colors(roots, out) over valid roots or unrooted ones, which read 0.
template <class Sampler>
class SurfaceMap final : public NamedMap {
public:
    SurfaceMap(ScalpPtr scalp, Sampler sampler, std::uint64_t hash)
        : scalp_(std::move(scalp)), sampler_(std::move(sampler)), hash_(hash) {}

    float at(const StrandRoot& root, Vec3f position, MapComponent component) const override {
        float out = 0.0f;
        SurfaceMap::values({&root, 1}, {&position, 1}, component, {&out, 1});
        return out;
    }
    Color4f colorAt(const StrandRoot& root, Vec3f position) const override {
        Color4f out;
        SurfaceMap::colors({&root, 1}, {&position, 1}, {&out, 1});
        return out;
    }
    void values(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                MapComponent component, std::span<float> out) const override {
        for (std::size_t b = 0; b < roots.size(); b += kBatch) {
            const std::size_t n = std::min(kBatch, roots.size() - b);
            onScalp(
                roots.subspan(b, n), [&](std::size_t i) { return positions[b + i]; },
                [&](std::span<const StrandRoot> found) {
                    sampler_.values(found, component, out.subspan(b, n));
                });
        }
    }
    void colors(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                std::span<Color4f> out) const override {
        for (std::size_t b = 0; b < roots.size(); b += kBatch) {
            const std::size_t n = std::min(kBatch, roots.size() - b);
            onScalp(
                roots.subspan(b, n), [&](std::size_t i) { return positions[b + i]; },
                [&](std::span<const StrandRoot> found) {
                    sampler_.colors(found, out.subspan(b, n));
                });
        }
    }
    void strandValues(const StrandSet& set, std::span<const std::uint32_t> strands,
                      MapComponent component, std::span<float> out) const override {
        forEachStrandBatch(set, strands, [&](std::size_t b, std::span<const StrandRoot> found) {
            sampler_.values(found, component, out.subspan(b, found.size()));
        });
    }
    void strandColors(const StrandSet& set, std::span<const std::uint32_t> strands,
                      std::span<Color4f> out) const override {
        forEachStrandBatch(set, strands, [&](std::size_t b, std::span<const StrandRoot> found) {
            sampler_.colors(found, out.subspan(b, found.size()));
        });
    }
    std::uint64_t hash() const override { return hash_; }

private:
    /// Calls body(roots): the given ones where all of a batch are on the scalp, else with the
    /// closest places in the stead of the others. positionOf(i) is asked for those alone.
    template <class PositionOf, class Body>
    void onScalp(std::span<const StrandRoot> roots, PositionOf&& positionOf, Body&& body) const {
        const std::uint32_t triangles = std::uint32_t(scalp_->triangles().size());
        bool off = false;  // -1 is a large unsigned number
        for (const StrandRoot& r : roots) off |= std::uint32_t(r.triangle) >= triangles;
        if (!off) return body(roots);
        BatchBuffer<StrandRoot, kBatch> buffer;
        const std::span<StrandRoot> found = buffer.first(roots.size());
        for (std::size_t i = 0; i < roots.size(); ++i) {
            found[i] = roots[i];
            if (std::uint32_t(roots[i].triangle) < triangles) continue;
            SurfaceHit hit;
            found[i] = scalp_->closestPoint(positionOf(i), ScalpMesh::kAnyDistance, hit)
                           ? hit.root()
                           : StrandRoot{};
        }
        body(std::span<const StrandRoot>(found));
    }

    template <class Body>
    void forEachStrandBatch(const StrandSet& set, std::span<const std::uint32_t> strands,
                            Body&& body) const {
        const std::span<const StrandRoot> held = set.roots();
        BatchBuffer<StrandRoot, kBatch> buffer;
        for (std::size_t b = 0; b < strands.size(); b += kBatch) {
            const std::span<const std::uint32_t> some =
                strands.subspan(b, std::min(kBatch, strands.size() - b));
            std::span<const StrandRoot> roots;
            if (isRun(some)) {
                roots = held.subspan(some[0], some.size());
            } else {
                const std::span<StrandRoot> gathered = buffer.first(some.size());
                for (std::size_t i = 0; i < some.size(); ++i) gathered[i] = held[some[i]];
                roots = gathered;
            }
            onScalp(
                roots, [&](std::size_t i) { return rootPosition(set, some[i]); },
                [&](std::span<const StrandRoot> found) { body(b, found); });
        }
    }

    ScalpPtr scalp_;
    Sampler sampler_;
    std::uint64_t hash_;
};

template <class T>
inline T mixed(const StrandRoot& r, T a, T b, T c) {
    return a * r.u + b * r.v + c * (1.0f - r.u - r.v);
}
inline Vec2f mixed(const StrandRoot& r, Vec2f a, Vec2f b, Vec2f c) {
    return {mixed(r, a.x, b.x, c.x), mixed(r, a.y, b.y, c.y)};
}
inline Color4f mixed(const StrandRoot& r, const Color4f& a, const Color4f& b, const Color4f& c) {
    return {mixed(r, a.r, b.r, c.r), mixed(r, a.g, b.g, c.g), mixed(r, a.b, b.b, c.b),
            mixed(r, a.a, b.a, c.a)};
}

/// Fills out with read(root), 0 for the unrooted.
template <class T, class Read>
inline void fill(std::span<const StrandRoot> roots, std::span<T> out, T none, Read&& read) {
    for (std::size_t i = 0; i < roots.size(); ++i)
        out[i] = roots[i].triangle < 0 ? none : read(roots[i]);
}
constexpr Color4f kNoColor{0.0f, 0.0f, 0.0f, 0.0f};

struct TextureSampler {
    TexturePtr texture;
    std::span<const Vec2f> uvs;  ///< 3 a triangle

    Vec2f uvAt(const StrandRoot& r) const {
        const Vec2f* corner = uvs.data() + std::size_t(r.triangle) * 3;
        return mixed(r, corner[0], corner[1], corner[2]);
    }
    /// The UVs of a batch; the unrooted get one that reads 0.
    std::span<const Vec2f> gather(std::span<const StrandRoot> roots,
                                  BatchBuffer<Vec2f, kBatch>& buffer) const {
        constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
        const std::span<Vec2f> gathered = buffer.first(roots.size());
        fill(roots, gathered, Vec2f{kNone, kNone}, [&](const StrandRoot& r) { return uvAt(r); });
        return gathered;
    }
    void values(std::span<const StrandRoot> roots, MapComponent c, std::span<float> out) const {
        BatchBuffer<Vec2f, kBatch> buffer;
        texture->sample(gather(roots, buffer), c, out);
    }
    void colors(std::span<const StrandRoot> roots, std::span<Color4f> out) const {
        BatchBuffer<Vec2f, kBatch> buffer;
        texture->sampleColors(gather(roots, buffer), out);
    }
};

/// One of four floats a place, or their luminance: `at(root, channel)` mixes one channel.
template <class At>
inline void fillComponent(std::span<const StrandRoot> roots, MapComponent c, std::span<float> out,
                          At&& at) {
    if (c == MapComponent::Luminance)
        fill(roots, out, 0.0f,
             [&](const StrandRoot& r) { return luminance(at(r, 0), at(r, 1), at(r, 2)); });
    else
        fill(roots, out, 0.0f, [&](const StrandRoot& r) { return at(r, std::size_t(c)); });
}

struct ColorSetSampler {
    const Color4f* colors_;  ///< 3 a triangle

    void values(std::span<const StrandRoot> roots, MapComponent c, std::span<float> out) const {
        static_assert(sizeof(Color4f) == 4 * sizeof(float));
        const float* flat = &colors_->r;
        fillComponent(roots, c, out, [flat](const StrandRoot& r, std::size_t channel) {
            const float* corner = flat + std::size_t(r.triangle) * 12 + channel;
            return mixed(r, corner[0], corner[4], corner[8]);
        });
    }
    void colors(std::span<const StrandRoot> roots, std::span<Color4f> out) const {
        fill(roots, out, kNoColor, [&](const StrandRoot& r) {
            const Color4f* corner = colors_ + std::size_t(r.triangle) * 3;
            return mixed(r, corner[0], corner[1], corner[2]);
        });
    }
};

struct VertexSampler {
    std::shared_ptr<const std::vector<float>> held;
    std::span<const Triangle> triangles;
    int channels = 1;

    float gray(const StrandRoot& r) const {
        const float* v = held->data();
        const Triangle& t = triangles[std::size_t(r.triangle)];
        return mixed(r, v[t[0]], v[t[1]], v[t[2]]);
    }
    float channelAt(const StrandRoot& r, std::size_t channel) const {
        const float* v = held->data() + channel;
        const Triangle& t = triangles[std::size_t(r.triangle)];
        return mixed(r, v[std::size_t(t[0]) * 4], v[std::size_t(t[1]) * 4],
                     v[std::size_t(t[2]) * 4]);
    }
    void values(std::span<const StrandRoot> roots, MapComponent c, std::span<float> out) const {
        if (channels == 4)
            fillComponent(roots, c, out, [this](const StrandRoot& r, std::size_t channel) {
                return channelAt(r, channel);
            });
        else if (c == MapComponent::A)
            fill(roots, out, 0.0f, [](const StrandRoot&) { return 1.0f; });
        else
            fill(roots, out, 0.0f, [this](const StrandRoot& r) { return gray(r); });
    }
    void colors(std::span<const StrandRoot> roots, std::span<Color4f> out) const {
        fill(roots, out, kNoColor, [this](const StrandRoot& r) {
            if (channels == 4)
                return Color4f{channelAt(r, 0), channelAt(r, 1), channelAt(r, 2), channelAt(r, 3)};
            const float g = gray(r);
            return Color4f{g, g, g, 1.0f};
        });
    }
};

/// Values at scattered places, between which it blends.
class GuideLayerMap final : public NamedMap {
public:
    GuideLayerMap(const GuideSet& guides, std::string layer)
        : layer_(std::move(layer)), hash_(guideLayerHash(guides, layer_)) {
        std::vector<Vec3f> places;
        for (std::size_t g = 0; g < guides.size(); ++g) {
            const GuideDetail& detail = guides.detail(g);
            const auto whole = detail.attributes.find(layer_);
            const auto along = detail.pointAttributes.find(layer_);
            const bool hasAlong = along != detail.pointAttributes.end() && !along->second.empty();
            if (whole == detail.attributes.end() && !hasAlong) continue;
            places.push_back(guides.pointsOf(g)[0]);
            values_.push_back(whole != detail.attributes.end() ? whole->second
                                                               : along->second.front());
        }
        index_ = PointIndex(places);
    }

    float at(const StrandRoot&, Vec3f position, MapComponent component) const override {
        return component == MapComponent::A ? 1.0f : value(position);
    }
    Color4f colorAt(const StrandRoot&, Vec3f position) const override {
        const float v = value(position);
        return {v, v, v, 1.0f};
    }
    void values(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                MapComponent component, std::span<float> out) const override {
        for (std::size_t i = 0; i < roots.size(); ++i)
            out[i] = component == MapComponent::A ? 1.0f : value(positions[i]);
    }
    void colors(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                std::span<Color4f> out) const override {
        for (std::size_t i = 0; i < roots.size(); ++i) {
            const float v = value(positions[i]);
            out[i] = {v, v, v, 1.0f};
        }
    }
    std::string channel() const override { return layer_; }
    std::uint64_t hash() const override { return hash_; }

private:
    float value(Vec3f position) const {
        constexpr float kLeast = 1e-6f;
        std::array<Neighbor, 4> near;
        const std::size_t n = index_.nearest(position, near);
        float sum = 0.0f, weights = 0.0f;
        for (std::size_t i = 0; i < n; ++i) {
            const float w = 1.0f / std::max(near[i].distanceSquared, kLeast * kLeast);
            sum += w * values_[near[i].index];
            weights += w;
        }
        return weights > 0.0f ? sum / weights : 0.0f;
    }

    std::string layer_;
    std::uint64_t hash_;
    PointIndex index_;
    std::vector<float> values_;
};

class ChannelOnlyMap final : public NamedMap {
public:
    explicit ChannelOnlyMap(std::string layer) : layer_(std::move(layer)) {}
    float at(const StrandRoot&, Vec3f, MapComponent) const override { return 0.0f; }
    Color4f colorAt(const StrandRoot&, Vec3f) const override { return kNoColor; }
    std::string channel() const override { return layer_; }
    std::uint64_t hash() const override { return hashOf(layer_); }

private:
    std::string layer_;
};

std::uint64_t mapHash(std::string_view kind, std::uint64_t content, const ScalpMesh& scalp) {
    return hashCombine(hashCombine(hashOf(kind), content), scalp.fullHash());
}

}  // namespace

void NamedMap::values(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                      MapComponent component, std::span<float> out) const {
    for (std::size_t i = 0; i < roots.size(); ++i) out[i] = at(roots[i], positions[i], component);
}

void NamedMap::colors(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                      std::span<Color4f> out) const {
    for (std::size_t i = 0; i < roots.size(); ++i) out[i] = colorAt(roots[i], positions[i]);
}

namespace {

/// Calls body(begin, roots, positions) for batches of strands.
template <class Body>
void forEachPlaceOf(const StrandSet& set, std::span<const std::uint32_t> strands, Body&& body) {
    const std::span<const StrandRoot> held = set.roots();
    BatchBuffer<StrandRoot, kBatch> rootBuffer;
    BatchBuffer<Vec3f, kBatch> positionBuffer;
    for (std::size_t b = 0; b < strands.size(); b += kBatch) {
        const std::size_t n = std::min(kBatch, strands.size() - b);
        const std::span<StrandRoot> roots = rootBuffer.first(n);
        const std::span<Vec3f> positions = positionBuffer.first(n);
        for (std::size_t i = 0; i < n; ++i) {
            roots[i] = held[strands[b + i]];
            positions[i] = rootPosition(set, strands[b + i]);
        }
        body(b, roots, positions);
    }
}

}  // namespace

void NamedMap::strandValues(const StrandSet& set, std::span<const std::uint32_t> strands,
                            MapComponent component, std::span<float> out) const {
    forEachPlaceOf(set, strands, [&](std::size_t b, auto roots, auto positions) {
        values(roots, positions, component, out.subspan(b, roots.size()));
    });
}

void NamedMap::strandColors(const StrandSet& set, std::span<const std::uint32_t> strands,
                            std::span<Color4f> out) const {
    forEachPlaceOf(set, strands, [&](std::size_t b, auto roots, auto positions) {
        colors(roots, positions, out.subspan(b, roots.size()));
    });
}

NamedMapPtr textureMap(TexturePtr texture, ScalpPtr scalp) {
    if (!texture || !scalp || scalp->uvs().empty()) return nullptr;
    const std::uint64_t hash = mapHash("texture", texture->hash(), *scalp);
    TextureSampler sampler{std::move(texture), scalp->uvs()};
    return std::make_shared<SurfaceMap<TextureSampler>>(std::move(scalp), std::move(sampler), hash);
}

NamedMapPtr colorSetMap(ScalpPtr scalp, const std::string& name) {
    if (!scalp) return nullptr;
    const auto set = scalp->colorSets().find(name);
    if (set == scalp->colorSets().end()) return nullptr;
    const std::uint64_t hash = mapHash("colorSet", hashOf(name), *scalp);
    const ColorSetSampler sampler{set->second.data()};
    return std::make_shared<SurfaceMap<ColorSetSampler>>(std::move(scalp), sampler, hash);
}

NamedMapPtr vertexMap(std::shared_ptr<const std::vector<float>> values, int channels,
                      ScalpPtr scalp) {
    if (!values || !scalp || (channels != 1 && channels != 4)) return nullptr;
    if (values->size() != scalp->points().size() * std::size_t(channels)) return nullptr;
    const PaintedMap content{.channels = channels, .values = values};
    const std::uint64_t hash = mapHash("vertices", content.hash(), *scalp);
    VertexSampler sampler{std::move(values), scalp->triangles(), channels};
    return std::make_shared<SurfaceMap<VertexSampler>>(std::move(scalp), std::move(sampler), hash);
}

NamedMapPtr guideLayerMap(GuidesPtr guides, ScalpPtr, const std::string& layer) {
    if (!guides || !carriesLayer(*guides, layer)) return nullptr;
    return std::make_shared<GuideLayerMap>(*guides, layer);
}

NamedMapPtr channelOnlyMap(const std::string& layer) {
    return std::make_shared<ChannelOnlyMap>(layer);
}

bool carriesLayer(const GuideSet& guides, std::string_view layer) {
    for (std::size_t g = 0; g < guides.size(); ++g) {
        const GuideDetail& detail = guides.detail(g);
        if (detail.attributes.contains(layer)) return true;
        const auto along = detail.pointAttributes.find(layer);
        if (along != detail.pointAttributes.end() && !along->second.empty()) return true;
    }
    return false;
}

std::uint64_t guideLayerHash(const GuideSet& guides, std::string_view layer) {
    std::uint64_t h = hashCombine(hashOf(layer), guides.rootsHash());
    for (std::size_t g = 0; g < guides.size(); ++g) {
        const GuideDetail& detail = guides.detail(g);
        const auto whole = detail.attributes.find(layer);
        const bool carried = whole != detail.attributes.end();
        h = hashCombine(h, carried);
        if (carried) h = hashCombine(h, whole->second);
        const auto along = detail.pointAttributes.find(layer);
        if (along == detail.pointAttributes.end()) continue;
        h = hashCombine(h, std::uint64_t(along->second.size()));
        for (const float v : along->second) h = hashCombine(h, v);
    }
    return h;
}

}  // namespace corvelle
