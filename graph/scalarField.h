#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "expr/expressionMap.h"
#include "expr/mapSource.h"
#include "expr/namedMap.h"
#include "graph/expressionScope.h"
#include "graph/field.h"

namespace corvelle {

/// What a ScalarField is made of.
struct ScalarFieldParts {
    std::string param;  ///< the param's name, for messages
    float value = 0.0f;
    bool mapped = false;
    MapKind kind = MapKind::Expression;
    std::string source;  ///< as in MapSource
    MapComponent component = MapComponent::Luminance;
    float low = 0.0f;
    float high = 1.0f;
    NamedMapPtr map;  ///< textures, colour sets; a guide layer by position, null where there is none
    ExpressionPtr expression;
    std::shared_ptr<const ExpressionScope> scope;              ///< of the expression
    std::shared_ptr<const ExpressionEnvironment> environment;  ///< what it was compiled in
    bool perPointAllowed = false;                              ///< of the expression
    bool needsStrands = false;  ///< the expression reads a guide layer that only strands can give
    FieldPtr input;             ///< the Field node that drives the param, times `scale`
    float scale = 1.0f;
};

/// The value of one mappable param: a constant, a map, an expression or a driving field. A batch is
/// one dispatch and one loop; the single forms are batches of one.
class ScalarField final : public FieldValue {
public:
    explicit ScalarField(ScalarFieldParts parts);

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
    /// Throws GraphError:
    ///   "param '<name>': strands have no attribute '<source>'",
    ///   "param '<name>': no guide layer '<source>' on the strands (Interpolate writes it; paint it
    ///    on the guides)",
    ///   "param '<name>': the expression reads '<x>', which is neither a variable nor a channel of
    ///    the strands".
    FieldPtr bind(const StrandSet& strands) const override;
    bool readsSet() const override;
    bool readsWholeSet() const override;
    bool worksAtPosition() const override;
    const ScalarField* scalarField() const override { return this; }

    const ScalarFieldParts& parts() const { return parts_; }

private:
    enum class Way { Constant, Input, Expression, StrandChannel, PointChannel, Map, None };
    Way way() const { return way_; }
    void bindChannel(const StrandSet& strands);
    void bindExpression(const StrandSet& strands);
    void spread(std::span<float> values) const;

    ScalarFieldParts parts_;
    Way way_;
    // Once bound:
    bool bound_ = false;
    const float* channel_ = nullptr;
    ExpressionMap::Bound expression_;
};

/// A field over a map: of a Map node, or made for a caller that has one at hand. A map with a
/// `channel()` reads the strands that carry it instead.
FieldPtr mapField(NamedMapPtr map, MapComponent component, std::string param);

/// A field over an expression, compiled for strands that come later. Throws ExpressionError.
FieldPtr expressionField(const std::string& text, std::string param,
                         std::shared_ptr<const ExpressionScope> scope,
                         std::map<std::string, std::variant<float, Vec3f>> variables = {});

}  // namespace corvelle
