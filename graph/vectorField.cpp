#include <algorithm>

#include "expr/expressionMap.h"
#include "graph/expressionScope.h"
#include "graph/field.h"
#include "graph/operator.h"
#include "graph/paramError.h"

namespace corvelle {

namespace {

class ConstantVector final : public VectorField {
public:
    explicit ConstantVector(Vec3f value) : value_(value) {}
    std::optional<Vec3f> constant() const override { return value_; }
    void sampleStrands(const StrandSet&, std::span<const std::uint32_t>,
                       std::span<Vec3f> out) const override {
        std::fill(out.begin(), out.end(), value_);
    }
    bool readsWholeSet() const override { return false; }

private:
    Vec3f value_;
};

class ExpressionVector final : public VectorField {
public:
    ExpressionVector(ExpressionPtr expression, const StrandSet& strands,
                     ExpressionEnvironment environment)
        : expression_(std::move(expression)),
          environment_(std::move(environment)),
          bound_(expression_->bind(strands, environment_)) {}
    std::optional<Vec3f> constant() const override { return std::nullopt; }
    void sampleStrands(const StrandSet&, std::span<const std::uint32_t> strands,
                       std::span<Vec3f> out) const override {
        bound_.strandVectors(strands, out);
    }
    bool readsWholeSet() const override { return expression_->readsWholeSet(); }

private:
    ExpressionPtr expression_;
    ExpressionEnvironment environment_;
    ExpressionMap::Bound bound_;
};

}  // namespace

std::shared_ptr<const VectorField> vectorFromParam(const Operator& op, std::string_view param,
                                                   const EvalContext& context,
                                                   const StrandSet& strands,
                                                   const GuidesPtr& guides) {
    const auto* source = std::get_if<MapSource>(&op.value(param));
    if (!source) return std::make_shared<ConstantVector>(op.vec3(param));
    const std::string name(param);
    if (source->kind != MapKind::Expression) failVectorMap(name, source->kind);
    const ExpressionScope scope(context.data(), guides, expressionReads(source->source).maps);
    ExpressionEnvironment environment = scope.environmentFor(&strands);
    try {
        ExpressionPtr expression =
            compileExpression(source->source, environment, false, ExpressionMap::Shape::Vector);
        requireChannels(*expression, &strands, name);
        return std::make_shared<ExpressionVector>(std::move(expression), strands,
                                                  std::move(environment));
    } catch (const ExpressionError& error) {
        failParam(name, error.what());
    }
}

}  // namespace corvelle
