#include "graph/field.h"

#include <algorithm>

#include "expr/batchBuffer.h"

namespace corvelle {

namespace {

constexpr std::size_t kBatch = 256;

}  // namespace

float FieldValue::sampleRoot(const StrandRoot&, Vec3f position) const { return sampleAt(position); }

float FieldValue::sampleStrand(const StrandSet& strands, std::size_t index) const {
    return sampleRoot(strands.roots()[index], strands.rootPosition(index));
}

float FieldValue::samplePoint(const StrandSet& strands, std::size_t index, std::size_t) const {
    return sampleStrand(strands, index);
}

void FieldValue::sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                               std::span<float> out) const {
    BatchBuffer<StrandRoot, kBatch> rootBuffer;
    BatchBuffer<Vec3f, kBatch> positionBuffer;
    const std::span<const StrandRoot> held = set.roots();
    const std::span<const std::uint64_t> offsets = set.offsets();
    const std::span<const Vec3f> points = set.points();
    for (std::size_t b = 0; b < strands.size(); b += kBatch) {
        const std::size_t n = std::min(kBatch, strands.size() - b);
        const std::span<StrandRoot> roots = rootBuffer.first(n);
        const std::span<Vec3f> positions = positionBuffer.first(n);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t s = strands[b + i];
            roots[i] = held[s];
            const bool any = offsets[s + 1] > offsets[s];
            positions[i] = any ? points[std::size_t(offsets[s])] : Vec3f{};
        }
        sampleRoots(roots, positions, out.subspan(b, n));
    }
}

void FieldValue::samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                              std::span<float> out) const {
    BatchBuffer<float, kBatch> buffer;
    std::size_t at = 0;
    for (std::size_t b = 0; b < strands.size(); b += kBatch) {
        const std::size_t n = std::min(kBatch, strands.size() - b);
        const std::span<float> values = buffer.first(n);
        sampleStrands(set, strands.subspan(b, n), values);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t points = set.pointCountOf(strands[b + i]);
            std::fill_n(out.begin() + std::ptrdiff_t(at), points, values[i]);
            at += points;
        }
    }
}

void FieldValue::sampleRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                             std::span<float> out) const {
    for (std::size_t i = 0; i < roots.size(); ++i) out[i] = sampleRoot(roots[i], positions[i]);
}

FieldPtr boundTo(const FieldPtr& field, const StrandSet& strands) {
    if (!field) return field;
    FieldPtr bound = field->bind(strands);
    return bound ? bound : field;
}

}  // namespace corvelle
