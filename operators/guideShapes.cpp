#include "operators/guideShapes.h"

#include <algorithm>

#include "model/parallel.h"
#include "model/polyline.h"
#include "model/soleOwner.h"

namespace corvelle {

float sampleGuide(std::span<const Vec3f> guide, bool smooth, std::span<Vec3f> out,
                  std::vector<Vec3f>& scratch) {
    std::span<const Vec3f> curve = guide;
    const std::size_t n = guide.size();
    if (smooth && n >= 3) {
        const std::size_t perSpan = std::max<std::size_t>(4, (n + 2 * (out.size() - 1)) / (n - 1));
        scratch.resize((n - 1) * perSpan + 1);
        catmullRom(guide, int(perSpan), scratch);
        curve = scratch;
    }
    resamplePolyline(curve, out);
    return polylineLength(curve);
}

namespace {

/// Values at the guide's points, read at equal shares of its arc length.
void sampleAttribute(std::span<const float> values, std::span<const float> shares,
                     std::size_t count, float* out) {
    if (values.size() < 2 || count < 2) {
        std::fill_n(out, count, values.empty() ? 0.0f : values.front());
        return;
    }
    const std::size_t last = std::min(values.size(), shares.size()) - 1;
    std::size_t k = 0;
    for (std::size_t j = 0; j < count; ++j) {
        const float share = float(j) / float(count - 1);
        while (k + 1 < last && shares[k + 1] <= share) ++k;
        const float span = shares[k + 1] - shares[k];
        const float along = span > 0.0f ? std::clamp((share - shares[k]) / span, 0.0f, 1.0f) : 0.0f;
        out[j] = mix(values[k], values[k + 1], along);
    }
}

struct Scratch {
    std::vector<Vec3f> curve, sampled;
    std::vector<float> shares;
};

void sampleInto(const GuideSet& guides, std::size_t g, Vec3f normal, GuideShapes& shapes,
                Scratch& scratch) {
    const std::size_t m = shapes.points;
    scratch.sampled.resize(m);
    const std::span<const Vec3f> points = guides.pointsOf(g);
    shapes.lengths[g] = sampleGuide(points, shapes.smooth, scratch.sampled, scratch.curve);
    float* x = shapes.xyz.data() + g * 3 * shapes.stride;
    float* y = x + shapes.stride;
    float* z = y + shapes.stride;
    for (std::size_t j = 0; j < m; ++j) {
        const Vec3f p = halfTurn(normal, scratch.sampled[j] - points[0]);
        x[j] = p.x;
        y[j] = p.y;
        z[j] = p.z;
    }
    if (!shapes.attributeNames.empty()) {
        scratch.shares.resize(points.size());
        polylineShares(points, scratch.shares);
        for (std::size_t a = 0; a < shapes.attributeNames.size(); ++a) {
            const auto& carried = guides.detail(g).pointAttributes;
            const auto at = carried.find(shapes.attributeNames[a]);
            sampleAttribute(
                at == carried.end() ? std::span<const float>() : at->second, scratch.shares, m,
                shapes.attributes.data() + (a * shapes.lengths.size() + g) * shapes.stride);
        }
    }
    shapes.normals[g] = normal;
    shapes.hashes[g] = guides.hashes()[g];
}

std::shared_ptr<GuideShapes> refreshed(const GuideSet& guides, std::span<const Vec3f> normals,
                                       std::size_t points, bool smooth,
                                       std::shared_ptr<GuideShapes> shapes) {
    const std::size_t count = guides.size();
    const bool usable = shapes && shapes->smooth == smooth && shapes->hashes.size() == count &&
                        shapes->attributeNames == guides.pointAttributeNames();
    std::vector<std::uint32_t> stale;
    for (std::size_t g = 0; g < count; ++g)
        if (!usable || shapes->hashes[g] != guides.hashes()[g] ||
            !(shapes->normals[g] == normals[g]))
            stale.push_back(std::uint32_t(g));
    if (usable && stale.empty()) return shapes;
    if (!usable) {
        shapes = std::make_shared<GuideShapes>();
        shapes->points = points;
        shapes->stride = (points + 7) / 8 * 8;
        shapes->smooth = smooth;
        shapes->xyz.assign(count * 3 * shapes->stride, 0.0f);
        shapes->lengths.assign(count, 0.0f);
        shapes->attributeNames = guides.pointAttributeNames();
        shapes->attributes.assign(shapes->attributeNames.size() * count * shapes->stride, 0.0f);
        shapes->normals.assign(count, Vec3f{});
        shapes->hashes.assign(count, 0);
    } else if (!isSoleOwner(shapes)) {
        shapes = std::make_shared<GuideShapes>(*shapes);
    }
    parallelRange(0, stale.size(), 32, [&](std::size_t begin, std::size_t end) {
        Scratch scratch;
        for (std::size_t i = begin; i < end; ++i)
            sampleInto(guides, stale[i], normals[stale[i]], *shapes, scratch);
    });
    return shapes;
}

}  // namespace

std::vector<GuideShapesPtr> GuideShapeCache::shapes(const GuideSet& guides,
                                                    std::span<const Vec3f> normals,
                                                    std::span<const std::size_t> counts,
                                                    bool smooth) {
    std::map<std::size_t, std::shared_ptr<GuideShapes>> taken;
    {
        const std::lock_guard lock(mutex_);
        taken.swap(held_);
    }
    std::map<std::size_t, std::shared_ptr<GuideShapes>> made;
    std::vector<GuideShapesPtr> result;
    for (const std::size_t count : counts) {
        const auto before = taken.find(count);
        auto shapes = refreshed(guides, normals, count, smooth,
                                before == taken.end() ? nullptr : std::move(before->second));
        result.push_back(shapes);
        made.emplace(count, std::move(shapes));
    }
    const std::lock_guard lock(mutex_);
    held_.swap(made);
    return result;
}

void GuideShapeCache::copyFrom(const GuideShapeCache& other) {
    std::map<std::size_t, std::shared_ptr<GuideShapes>> copy;
    {
        const std::lock_guard lock(other.mutex_);
        copy = other.held_;
    }
    const std::lock_guard lock(mutex_);
    held_.swap(copy);
}

}  // namespace corvelle
