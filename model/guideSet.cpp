#include "model/guideSet.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "model/hash.h"

namespace corvelle {
namespace {

const std::shared_ptr<const GuideDetail>& plainDetail() {
    static const auto plain = std::make_shared<const GuideDetail>();
    return plain;
}

std::uint64_t hashRoot(std::uint64_t h, const StrandRoot& root) {
    const float uv[] = {root.u, root.v};
    return hashFloatBits(hashCombine(h, root.triangle), uv, 2);
}

std::uint64_t hashDetail(std::uint64_t h, const GuideDetail& detail) {
    h = hashCombine(hashCombine(hashCombine(h, detail.parent), detail.group), detail.level);
    h = hashPointBits(h, {&detail.frameUp, 1});
    h = hashCombine(hashFloatBits(h, detail.tubeRadius.data(), detail.tubeRadius.size()),
                    detail.tubeTwist);
    h = hashCombine(h, std::uint64_t(detail.attributes.size()));
    for (const auto& [name, value] : detail.attributes) h = hashCombine(hashText(h, name), value);
    h = hashCombine(h, std::uint64_t(detail.pointAttributes.size()));
    for (const auto& [name, values] : detail.pointAttributes)
        h = hashFloatBits(hashText(h, name), values.data(), values.size());
    return h;
}

/// Adds the keys of one guide to an ascending list. Guides mostly carry the same names, so the
/// common case is one comparison a name.
template <class Map>
void addNames(const Map& map, std::vector<std::string>& names) {
    if (map.size() == names.size() &&
        std::equal(map.begin(), map.end(), names.begin(),
                   [](const auto& entry, const std::string& name) { return entry.first == name; }))
        return;
    for (const auto& entry : map) {
        const auto at = std::lower_bound(names.begin(), names.end(), entry.first);
        if (at == names.end() || *at != entry.first) names.insert(at, entry.first);
    }
}

std::vector<GuideView> viewsOf(const std::vector<GuideCurve>& curves) {
    std::vector<GuideView> views;
    views.reserve(curves.size());
    for (const GuideCurve& curve : curves)
        views.push_back(
            {.id = curve.id, .root = curve.root, .points = curve.points, .detail = curve.detail});
    return views;
}

}  // namespace

std::uint64_t hashFloatBits(std::uint64_t h, const float* values, std::size_t count) {
    // Each step is a bijection of its chain, so no single change is lost before the chains meet.
    std::uint64_t lanes[4] = {h ^ count, h + kGoldenGamma, ~h, std::rotl(h, 32)};
    const auto step = [](std::uint64_t& lane, std::uint64_t word) {
        lane = std::rotl((lane ^ word) * 0xbf58476d1ce4e5b9u, 29);
    };
    const auto wordAt = [&](std::size_t i) {
        return std::uint64_t(std::bit_cast<std::uint32_t>(values[i])) |
               std::uint64_t(std::bit_cast<std::uint32_t>(values[i + 1])) << 32;
    };
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8)
        for (std::size_t lane = 0; lane < 4; ++lane) step(lanes[lane], wordAt(i + 2 * lane));
    for (std::size_t lane = 0; i + 2 <= count; i += 2) step(lanes[lane++], wordAt(i));
    if (i < count) step(lanes[3], std::bit_cast<std::uint32_t>(values[i]));
    return hashCombine(mix64(lanes[0] + std::rotl(lanes[1], 21)),
                       lanes[2] ^ std::rotl(lanes[3], 42));
}

std::uint64_t guideHash(std::uint64_t id, const StrandRoot& root, std::span<const Vec3f> points,
                        const GuideDetail& detail) {
    std::uint64_t h = hashCombine(hashOf("guide"), id);
    h = hashRoot(h, root);
    h = hashDetail(hashPointBits(h, points), detail);
    return h != 0 ? h : 1;
}

GuideSet::GuideSet(const std::vector<GuideCurve>& curves)
    : GuideSet(std::span<const GuideView>(viewsOf(curves))) {}

GuideSet::GuideSet(std::span<const GuideView> curves) {
    const std::size_t count = curves.size();
    std::size_t pointCount = 0;
    for (const GuideView& curve : curves) {
        if (curve.id == 0) throw std::invalid_argument("guides: a guide ID is a positive integer");
        if (curve.points.size() < 2)
            throw std::invalid_argument("guides: guide " + std::to_string(curve.id) + " has " +
                                        std::to_string(curve.points.size()) +
                                        " points, give at least 2");
        pointCount += curve.points.size();
    }
    if (count > 0) {
        slots_.assign(std::bit_ceil(2 * count), 0);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = 0; i < count; ++i) {
            std::size_t slot = mix64(curves[i].id) & mask;
            for (; slots_[slot] != 0; slot = (slot + 1) & mask)
                if (curves[slots_[slot] - 1].id == curves[i].id)
                    throw std::invalid_argument("guides: guide ID " + std::to_string(curves[i].id) +
                                                " is given twice");
            slots_[slot] = std::uint32_t(i + 1);
        }
    }

    ids_.reserve(count);
    roots_.reserve(count);
    offsets_.reserve(count + 1);
    points_.reserve(pointCount);
    details_.reserve(count);
    hashes_.reserve(count);
    std::uint64_t rootsHash = hashCombine(hashOf("guideRoots"), std::uint64_t(count));
    std::uint64_t contentHash = hashCombine(hashOf("guideSet"), std::uint64_t(count));
    const GuideDetail* named = nullptr;  // the last detail whose names were taken
    for (const GuideView& curve : curves) {
        const std::shared_ptr<const GuideDetail>& detail =
            curve.detail ? curve.detail : plainDetail();
        ids_.push_back(curve.id);
        roots_.push_back(curve.root);
        points_.insert(points_.end(), curve.points.begin(), curve.points.end());
        offsets_.push_back(points_.size());
        details_.push_back(detail);
        hashes_.push_back(curve.hash != 0 ? curve.hash
                                          : guideHash(curve.id, curve.root, curve.points, *detail));
        if (detail.get() != named) {
            addNames(detail->attributes, attributeNames_);
            addNames(detail->pointAttributes, pointAttributeNames_);
            named = detail.get();
        }
        // One link of the chain a guide; what it holds is hashed beside it.
        std::uint64_t root = hashRoot(curve.id, curve.root);
        root = hashPointBits(root, curve.points.first(1));
        rootsHash = hashCombine(rootsHash, root);
        contentHash = hashCombine(contentHash, hashes_.back());
    }
    rootsHash_ = rootsHash;
    contentHash_ = contentHash;
}

std::size_t GuideSet::indexOf(std::uint64_t id) const {
    if (slots_.empty()) return 0;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = mix64(id) & mask; slots_[slot] != 0; slot = (slot + 1) & mask)
        if (ids_[slots_[slot] - 1] == id) return slots_[slot] - 1;
    return size();
}

bool GuideSet::hasAttribute(std::string_view name) const {
    return std::binary_search(attributeNames_.begin(), attributeNames_.end(), name) ||
           std::binary_search(pointAttributeNames_.begin(), pointAttributeNames_.end(), name);
}

float GuideSet::attribute(std::size_t guide, std::string_view name) const {
    const auto& attributes = details_[guide]->attributes;
    const auto at = attributes.find(name);
    return at != attributes.end() ? at->second : 0.0f;
}

float GuideSet::pointAttribute(std::size_t guide, std::string_view name, float share) const {
    const auto& attributes = details_[guide]->pointAttributes;
    const auto at = attributes.find(name);
    if (at == attributes.end() || at->second.empty()) return 0.0f;
    const std::vector<float>& values = at->second;
    if (values.size() == 1 || !(share > 0.0f)) return values.front();
    if (share >= 1.0f) return values.back();
    const float place = share * float(values.size() - 1);
    const std::size_t before = std::min(values.size() - 2, std::size_t(place));
    return mix(values[before], values[before + 1], place - float(before));
}

std::vector<GuideCurve> GuideSet::curves() const {
    std::vector<GuideCurve> curves;
    curves.reserve(size());
    for (std::size_t i = 0; i < size(); ++i) {
        const std::span<const Vec3f> points = pointsOf(i);
        curves.push_back({.id = ids_[i],
                          .root = roots_[i],
                          .points = {points.begin(), points.end()},
                          .detail = details_[i]});
    }
    return curves;
}

}  // namespace corvelle
