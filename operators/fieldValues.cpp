#include "operators/fieldValues.h"

#include <algorithm>
#include <array>
#include <vector>

#include "graph/graphError.h"
#include "model/noise.h"

namespace corvelle {

namespace {

constexpr std::size_t kBatch = 256;

float clamp01(float x) { return x > 0.0f ? std::min(x, 1.0f) : 0.0f; }  // NaN gives 0

}  // namespace

// A constant.

void ConstantFieldValue::sampleStrands(const StrandSet&, std::span<const std::uint32_t>,
                                       std::span<float> out) const {
    std::fill(out.begin(), out.end(), value_);
}
void ConstantFieldValue::samplePoints(const StrandSet&, std::span<const std::uint32_t>,
                                      std::span<float> out) const {
    std::fill(out.begin(), out.end(), value_);
}
void ConstantFieldValue::sampleRoots(std::span<const StrandRoot>, std::span<const Vec3f>,
                                     std::span<float> out) const {
    std::fill(out.begin(), out.end(), value_);
}

// Noise.

float NoiseFieldValue::sampleAt(Vec3f position) const {
    const NoiseFieldSettings& s = settings_;
    const float n = fbm(position * s.frequency + s.offset, s.seed, s.octaves) * 0.5f + 0.5f;
    return s.low + (s.high - s.low) * clamp01(n);
}
void NoiseFieldValue::sampleRoots(std::span<const StrandRoot>, std::span<const Vec3f> positions,
                                  std::span<float> out) const {
    for (std::size_t i = 0; i < positions.size(); ++i)
        out[i] = NoiseFieldValue::sampleAt(positions[i]);
}
float NoiseFieldValue::maxValue() const { return std::max(settings_.low, settings_.high); }

// A remap.

namespace {

/// The output at a height of the curve: exactly outMin and outMax at its ends.
float remapOutput(const RemapFieldSettings& s, float c) {
    return c == 0.0f ? s.outMin : c == 1.0f ? s.outMax : s.outMin + (s.outMax - s.outMin) * c;
}

}  // namespace

float remapValue(const RemapFieldSettings& s, float value) {
    const float range = s.inMax - s.inMin;
    const float t =
        range == 0.0f ? (value >= s.inMin ? 1.0f : 0.0f) : clamp01((value - s.inMin) / range);
    return remapOutput(s, s.curve(t));
}

RemapFieldValue::RemapFieldValue(FieldPtr input, RemapFieldSettings settings)
    : input_(std::move(input)), settings_(std::move(settings)) {}

void RemapFieldValue::apply(std::span<float> values) const {
    for (float& v : values) v = remapValue(settings_, v);
}
float RemapFieldValue::sampleAt(Vec3f position) const {
    return remapValue(settings_, input_->sampleAt(position));
}
float RemapFieldValue::sampleRoot(const StrandRoot& root, Vec3f position) const {
    return remapValue(settings_, input_->sampleRoot(root, position));
}
float RemapFieldValue::sampleStrand(const StrandSet& strands, std::size_t index) const {
    return remapValue(settings_, input_->sampleStrand(strands, index));
}
float RemapFieldValue::samplePoint(const StrandSet& strands, std::size_t index,
                                   std::size_t point) const {
    return remapValue(settings_, input_->samplePoint(strands, index, point));
}
void RemapFieldValue::sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                                    std::span<float> out) const {
    input_->sampleStrands(set, strands, out);
    apply(out);
}
void RemapFieldValue::samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                                   std::span<float> out) const {
    if (!input_->perPoint())
        return FieldValue::samplePoints(set, strands, out);  // the curve once a strand
    input_->samplePoints(set, strands, out);
    apply(out);
}
void RemapFieldValue::sampleRoots(std::span<const StrandRoot> roots,
                                  std::span<const Vec3f> positions, std::span<float> out) const {
    input_->sampleRoots(roots, positions, out);
    apply(out);
}
std::optional<float> RemapFieldValue::constant() const {
    const std::optional<float> input = input_->constant();
    return input ? std::optional<float>(remapValue(settings_, *input)) : std::nullopt;
}
float RemapFieldValue::maxValue() const {
    float most = remapOutput(settings_, settings_.curve(0.0f));
    for (const auto& [position, value] : settings_.curve.keys())
        most = std::max(most, remapOutput(settings_, value));
    return most;
}
FieldPtr RemapFieldValue::bind(const StrandSet& strands) const {
    FieldPtr input = input_->bind(strands);
    return input ? std::make_shared<RemapFieldValue>(std::move(input), settings_) : nullptr;
}

// A combination.

CombineMode combineModeFromName(std::string_view name) {
    constexpr std::array<std::string_view, 6> kNames = {"multiply", "add", "subtract",
                                                        "min",      "max", "mix"};
    const auto at = std::find(kNames.begin(), kNames.end(), name);
    if (at == kNames.end())
        throw GraphError("FieldCombine: unknown mode '" + std::string(name) + "'");
    return static_cast<CombineMode>(at - kNames.begin());
}

namespace {

template <CombineMode Mode>
inline float combineOne(float a, float b, float fraction) {
    switch (Mode) {
        case CombineMode::Multiply:
            return a * b;
        case CombineMode::Add:
            return a + b;
        case CombineMode::Subtract:
            return a - b;
        case CombineMode::Min:
            return std::min(a, b);
        case CombineMode::Max:
            return std::max(a, b);
        case CombineMode::Mix:
            break;
    }
    return a + (b - a) * fraction;
}

/// Calls body.operator()<mode>() for the mode at hand: one branch a batch.
template <class Body>
void withMode(CombineMode mode, Body&& body) {
    switch (mode) {
        case CombineMode::Multiply:
            return body.template operator()<CombineMode::Multiply>();
        case CombineMode::Add:
            return body.template operator()<CombineMode::Add>();
        case CombineMode::Subtract:
            return body.template operator()<CombineMode::Subtract>();
        case CombineMode::Min:
            return body.template operator()<CombineMode::Min>();
        case CombineMode::Max:
            return body.template operator()<CombineMode::Max>();
        case CombineMode::Mix:
            return body.template operator()<CombineMode::Mix>();
    }
}

}  // namespace

CombineFieldValue::CombineFieldValue(FieldPtr a, FieldPtr b, float bValue, CombineMode mode,
                                     float fraction)
    : a_(std::move(a)), b_(std::move(b)), bValue_(bValue), mode_(mode), fraction_(fraction) {}

float CombineFieldValue::combined(float a, float b) const {
    combine({&a, 1}, {&b, 1});
    return a;
}
void CombineFieldValue::combine(std::span<float> a, std::span<const float> b) const {
    withMode(mode_, [&]<CombineMode Mode>() {
        for (std::size_t i = 0; i < a.size(); ++i) a[i] = combineOne<Mode>(a[i], b[i], fraction_);
    });
}
float CombineFieldValue::sampleAt(Vec3f position) const {
    return combined(a_->sampleAt(position), b_ ? b_->sampleAt(position) : bValue_);
}
float CombineFieldValue::sampleRoot(const StrandRoot& root, Vec3f position) const {
    return combined(a_->sampleRoot(root, position), b_ ? b_->sampleRoot(root, position) : bValue_);
}
float CombineFieldValue::sampleStrand(const StrandSet& strands, std::size_t index) const {
    return combined(a_->sampleStrand(strands, index),
                    b_ ? b_->sampleStrand(strands, index) : bValue_);
}
float CombineFieldValue::samplePoint(const StrandSet& strands, std::size_t index,
                                     std::size_t point) const {
    return combined(a_->samplePoint(strands, index, point),
                    b_ ? b_->samplePoint(strands, index, point) : bValue_);
}

namespace {

/// Cuts [0, count) into batches and gives each a buffer of b's values, filled by read(begin, n,
/// out) or with the one value there is.
template <class Read, class Use>
void forEachBatch(std::size_t count, bool hasB, float bValue, Read&& read, Use&& use) {
    std::array<float, kBatch> buffer;
    if (!hasB) buffer.fill(bValue);
    for (std::size_t begin = 0; begin < count; begin += kBatch) {
        const std::size_t n = std::min(kBatch, count - begin);
        if (hasB) read(begin, n, std::span<float>(buffer.data(), n));
        use(begin, n, std::span<const float>(buffer.data(), n));
    }
}

}  // namespace

void CombineFieldValue::sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                                      std::span<float> out) const {
    a_->sampleStrands(set, strands, out);
    forEachBatch(
        strands.size(), b_ != nullptr, bValue_,
        [&](std::size_t begin, std::size_t n, std::span<float> b) {
            b_->sampleStrands(set, strands.subspan(begin, n), b);
        },
        [&](std::size_t begin, std::size_t n, std::span<const float> b) {
            combine(out.subspan(begin, n), b);
        });
}

void CombineFieldValue::samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                                     std::span<float> out) const {
    if (!CombineFieldValue::perPoint()) return FieldValue::samplePoints(set, strands, out);
    a_->samplePoints(set, strands, out);
    if (!b_)
        return forEachBatch(
            out.size(), false, bValue_, [](auto&&...) {},
            [&](std::size_t begin, std::size_t n, std::span<const float> b) {
                combine(out.subspan(begin, n), b);
            });
    // Whole strands at a time, as many as fit the buffer; a longer one takes a buffer of its own.
    constexpr std::size_t kPoints = 4096;
    std::array<float, kPoints> buffer;
    std::vector<float> big;
    std::size_t at = 0;
    for (std::size_t s = 0; s < strands.size();) {
        std::size_t end = s, points = 0;
        do {
            points += set.pointCountOf(strands[end++]);
        } while (end < strands.size() && points + set.pointCountOf(strands[end]) <= kPoints);
        if (points > kPoints) big.resize(points);
        const std::span<float> b(points > kPoints ? big.data() : buffer.data(), points);
        b_->samplePoints(set, strands.subspan(s, end - s), b);
        combine(out.subspan(at, points), b);
        at += points;
        s = end;
    }
}

void CombineFieldValue::sampleRoots(std::span<const StrandRoot> roots,
                                    std::span<const Vec3f> positions, std::span<float> out) const {
    a_->sampleRoots(roots, positions, out);
    forEachBatch(
        roots.size(), b_ != nullptr, bValue_,
        [&](std::size_t begin, std::size_t n, std::span<float> b) {
            b_->sampleRoots(roots.subspan(begin, n), positions.subspan(begin, n), b);
        },
        [&](std::size_t begin, std::size_t n, std::span<const float> b) {
            combine(out.subspan(begin, n), b);
        });
}

bool CombineFieldValue::perPoint() const { return a_->perPoint() || (b_ && b_->perPoint()); }
std::optional<float> CombineFieldValue::constant() const {
    const std::optional<float> a = a_->constant();
    const std::optional<float> b = b_ ? b_->constant() : std::optional<float>(bValue_);
    return a && b ? std::optional<float>(combined(*a, *b)) : std::nullopt;
}
float CombineFieldValue::maxValue() const {
    const float a = a_->maxValue();
    const float b = b_ ? b_->maxValue() : bValue_;
    if (b_ && mode_ == CombineMode::Subtract) return a - std::min(0.0f, b);
    if (b_ && mode_ == CombineMode::Mix) return std::max(a, b);
    return combined(a, b);
}
FieldPtr CombineFieldValue::bind(const StrandSet& strands) const {
    FieldPtr a = a_->bind(strands);
    FieldPtr b = b_ ? b_->bind(strands) : nullptr;
    if (!a && !b) return nullptr;
    return std::make_shared<CombineFieldValue>(a ? a : a_, b ? b : b_, bValue_, mode_, fraction_);
}
bool CombineFieldValue::readsSet() const { return a_->readsSet() || (b_ && b_->readsSet()); }
bool CombineFieldValue::readsWholeSet() const {
    return a_->readsWholeSet() || (b_ && b_->readsWholeSet());
}
bool CombineFieldValue::worksAtPosition() const {
    return a_->worksAtPosition() && (!b_ || b_->worksAtPosition());
}

}  // namespace corvelle
