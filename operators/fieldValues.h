#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "graph/field.h"
#include "model/ramp.h"

namespace corvelle {

/// One value at any place.
class ConstantFieldValue final : public FieldValue {
public:
    explicit ConstantFieldValue(float value) : value_(value) {}
    float sampleAt(Vec3f) const override { return value_; }
    void sampleStrands(const StrandSet&, std::span<const std::uint32_t>,
                       std::span<float> out) const override;
    void samplePoints(const StrandSet&, std::span<const std::uint32_t>,
                      std::span<float> out) const override;
    void sampleRoots(std::span<const StrandRoot>, std::span<const Vec3f>,
                     std::span<float> out) const override;
    std::optional<float> constant() const override { return value_; }
    float maxValue() const override { return value_; }

private:
    float value_;
};

struct NoiseFieldSettings {
    Vec3f offset;            ///< in noise units
    float frequency = 0.3f;  ///< features per centimetre
    std::uint64_t seed = 0;
    int octaves = 2;
    float low = 0.0f;
    float high = 1.0f;
};

/// low + (high - low) * n with n = fbm(p * frequency + offset, seed, octaves) / 2 + 1/2, clamped to
/// 0..1, at the root of a strand.
class NoiseFieldValue final : public FieldValue {
public:
    explicit NoiseFieldValue(const NoiseFieldSettings& settings) : settings_(settings) {}
    float sampleAt(Vec3f position) const override;
    void sampleRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                     std::span<float> out) const override;
    float maxValue() const override;

private:
    NoiseFieldSettings settings_;
};

struct RemapFieldSettings {
    float inMin = 0.0f;
    float inMax = 1.0f;  ///< below inMin: the input is flipped
    Ramp curve;
    float outMin = 0.0f;
    float outMax = 1.0f;
};
float remapValue(const RemapFieldSettings& settings, float value);

/// A field through a curve.
class RemapFieldValue final : public FieldValue {
public:
    RemapFieldValue(FieldPtr input, RemapFieldSettings settings);
    float sampleAt(Vec3f position) const override;
    float sampleRoot(const StrandRoot& root, Vec3f position) const override;
    float sampleStrand(const StrandSet& strands, std::size_t index) const override;
    float samplePoint(const StrandSet& strands, std::size_t index,
                      std::size_t point) const override;
    void sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                       std::span<float> out) const override;
    void samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                      std::span<float> out) const override;
    void sampleRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                     std::span<float> out) const override;
    bool perPoint() const override { return input_->perPoint(); }
    std::optional<float> constant() const override;
    float maxValue() const override;
    FieldPtr bind(const StrandSet& strands) const override;
    bool readsSet() const override { return input_->readsSet(); }
    bool readsWholeSet() const override { return input_->readsWholeSet(); }
    bool worksAtPosition() const override { return input_->worksAtPosition(); }
    const ScalarField* scalarField() const override { return input_->scalarField(); }

private:
    void apply(std::span<float> values) const;
    FieldPtr input_;
    RemapFieldSettings settings_;
};

enum class CombineMode { Multiply, Add, Subtract, Min, Max, Mix };
/// Throws GraphError "FieldCombine: unknown mode '<mode>'".
CombineMode combineModeFromName(std::string_view name);

/// Two fields, or a field and a number, as one.
class CombineFieldValue final : public FieldValue {
public:
    /// `b` may be null: `bValue` stands for it. `fraction` is for Mix, 0 a to 1 b.
    CombineFieldValue(FieldPtr a, FieldPtr b, float bValue, CombineMode mode, float fraction);
    float sampleAt(Vec3f position) const override;
    float sampleRoot(const StrandRoot& root, Vec3f position) const override;
    float sampleStrand(const StrandSet& strands, std::size_t index) const override;
    float samplePoint(const StrandSet& strands, std::size_t index,
                      std::size_t point) const override;
    void sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                       std::span<float> out) const override;
    void samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                      std::span<float> out) const override;
    void sampleRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                     std::span<float> out) const override;
    bool perPoint() const override;
    std::optional<float> constant() const override;
    float maxValue() const override;
    FieldPtr bind(const StrandSet& strands) const override;
    bool readsSet() const override;
    bool readsWholeSet() const override;
    bool worksAtPosition() const override;

private:
    float combined(float a, float b) const;
    void combine(std::span<float> a, std::span<const float> b) const;
    FieldPtr a_, b_;
    float bValue_;
    CombineMode mode_;
    float fraction_;
};

}  // namespace corvelle
