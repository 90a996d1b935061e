#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "graph/evalContext.h"
#include "graph/nodeValue.h"
#include "model/strandSet.h"

namespace corvelle {

class Operator;
class ScalarField;

/// A number that may differ from strand to strand or point to point: a constant, a map, an
/// expression, or what a Field node gives. Immutable once bound; sampling is safe from parallel
/// bodies and never throws. Loops use the batch forms: one dispatch a batch, with the bits of the
/// single forms.
class FieldValue {
public:
    virtual ~FieldValue() = default;
    /// At a bare place in groom space.
    virtual float sampleAt(Vec3f position) const = 0;
    /// At a root already found on the scalp: no search for the closest point.
    virtual float sampleRoot(const StrandRoot& root, Vec3f position) const;
    virtual float sampleStrand(const StrandSet& strands, std::size_t index) const;
    virtual float samplePoint(const StrandSet& strands, std::size_t index, std::size_t point) const;

    /// out[i] for strands[i].
    virtual void sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands, std::span<float> out) const;
    /// out: the points of the listed strands, one strand after the other.
    virtual void samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands, std::span<float> out) const;
    virtual void sampleRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions, std::span<float> out) const;

    /// Varies along a strand; final after bind.
    virtual bool perPoint() const { return false; }
    /// The one value it has everywhere, when that is known.
    virtual std::optional<float> constant() const { return std::nullopt; }
    /// An upper bound (for an expression a guess only: probe it).
    virtual float maxValue() const = 0;
    /// A copy with the channels of `strands` resolved, to be used while that set lives; null when
    /// there is nothing to bind. Throws GraphError for a channel that is not there.
    virtual FieldPtr bind(const StrandSet&) const { return nullptr; }
    /// Depends on the set it is read from; depends on other strands of it (`longest`).
    virtual bool readsSet() const { return false; }
    virtual bool readsWholeSet() const { return false; }
    virtual bool worksAtPosition() const { return true; }
    virtual const ScalarField* scalarField() const { return nullptr; }
};

/// `field` bound to `strands`, or itself.
FieldPtr boundTo(const FieldPtr& field, const StrandSet& strands);

/// The field of a mappable param of a node that makes strands: its constant, its map, or the Field
/// node that drives it times its scale. `guides` serve guide layers. Throws GraphError with the param's
/// name, also for a map or field that needs strands to be read.
FieldPtr fieldFromParam(const Operator& op, std::string_view param, const EvalContext& context,
                        const GuidesPtr& guides = nullptr);
/// The same, bound to the strands a run works on.
FieldPtr fieldFromParam(const Operator& op, std::string_view param, const EvalContext& context,
                        const StrandSet& strands, const GuidesPtr& guides = nullptr);

/// A vec3 param that may be an expression giving a vector per strand.
class VectorField {
public:
    virtual ~VectorField() = default;
    virtual std::optional<Vec3f> constant() const = 0;
    virtual void sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands, std::span<Vec3f> out) const = 0;
    virtual bool readsWholeSet() const = 0;
};
std::shared_ptr<const VectorField> vectorFromParam(const Operator& op, std::string_view param,
                                                   const EvalContext& context, const StrandSet& strands,
                                                   const GuidesPtr& guides = nullptr);

/// The expression environment of a context: its maps, scalp and time.
struct ExpressionEnvironment;
ExpressionEnvironment expressionEnvironment(const EvalContext& context, const GuidesPtr& guides = nullptr);

/// What a mapped param reads, for a node's hash: texture signature, scalp, guide layer values, maps, time.
std::uint64_t mapReadsHash(const MapSource& source, const EvaluationData& data, const GuidesPtr& guides);
/// The map's values differ from frame to frame on their own: an expression of `frame` or `time`.
bool mapReadsTime(const MapSource& source);

}  // namespace corvelle
