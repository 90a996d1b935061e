#include <algorithm>

#include "expr/expressionMap.h"
#include "graph/expressionScope.h"
#include "graph/field.h"
#include "graph/graphError.h"
#include "graph/operator.h"

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
    const std::string head = "param '" + std::string(param) + "': ";
    if (source->kind != MapKind::Expression)
        throw GraphError(head + "a vector takes an expression (a " + mapKindKey(source->kind) +
                         " map gives one number)");
    const ExpressionScope scope(context.data(), guides, expressionReads(source->source).maps);
    ExpressionEnvironment environment = scope.environmentFor(&strands);
    try {
        ExpressionPtr expression = compileExpression(source->source, environment, false,
                                                     ExpressionMap::Shape::Vector);
        for (const std::string& name : expression->channelNames())
            if (!strands.strandChannel(name) && !strands.pointChannel(name))
                throw GraphError(head + "the expression reads '" + name +
                                 "', which is neither a variable nor a channel of the strands");
        return std::make_shared<ExpressionVector>(std::move(expression), strands,
                                                  std::move(environment));
    } catch (const ExpressionError& error) {
        throw GraphError(head + error.what());
    }
}

}  // namespace corvelle
