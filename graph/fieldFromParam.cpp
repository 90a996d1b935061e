#include <algorithm>

#include "graph/field.h"
#include "graph/operator.h"
#include "graph/paramError.h"
#include "graph/scalarField.h"

namespace corvelle {

namespace {

/// The one field a param reads, for strands that are at hand or for a node that makes them.
class FieldMaker {
public:
    FieldMaker(const Operator& op, std::string_view param, const EvalContext& context,
               const StrandSet* strands, const GuidesPtr& guides)
        : op_(op), param_(param), data_(context.data()), strands_(strands), guides_(guides) {}

    FieldPtr make() const {
        FieldPtr field = build();
        return strands_ ? boundTo(field, *strands_) : field;
    }

private:
    FieldPtr build() const {
        ScalarFieldParts parts;
        parts.param = param_;
        if (const Operator::DrivenField* driven = op_.drivenField(param_);
            driven && driven->field) {
            if (!strands_ && !driven->field->worksAtPosition())
                failParam(param_,
                          "no strands yet, so the field that drives it must be one of places "
                          "(P, N, u, v, noise or maps), not of strands");
            parts.input = driven->field;
            parts.scale = driven->scale;
            return std::make_shared<ScalarField>(std::move(parts));
        }
        const auto* source = std::get_if<MapSource>(&op_.value(param_));
        if (!source) {
            parts.value = float(op_.number(param_));
            return std::make_shared<ScalarField>(std::move(parts));
        }
        parts.mapped = true;
        parts.kind = source->kind;
        parts.source = source->source;
        parts.component = source->component;
        parts.low = source->low;
        parts.high = source->high;
        switch (source->kind) {
            case MapKind::Texture:
                parts.map = texture(source->source);
                break;
            case MapKind::ColorSet:
                parts.map = colorSet(source->source);
                break;
            case MapKind::Attribute:
                parts.map = attribute(source->source);
                break;
            case MapKind::GuideLayer:
                parts.map = guideLayer(source->source);
                break;
            case MapKind::Expression:
                expression(*source, parts);
                break;
        }
        return std::make_shared<ScalarField>(std::move(parts));
    }

    NamedMapPtr texture(const std::string& path) const {
        if (!data_.scalp || data_.scalp->uvs().empty())
            failParam(param_, "a texture map needs a scalp with UVs");
        try {
            return textureMap(
                Texture::load(path, searchPathResolver(data_.directory, data_.searchPaths)),
                data_.scalp);
        } catch (const TextureError& error) {
            failParam(param_, error.what());
        }
    }
    NamedMapPtr colorSet(const std::string& name) const {
        NamedMapPtr map = colorSetMap(data_.scalp, name);
        if (!map) failParam(param_, "the scalp has no color set '" + name + "'");
        return map;
    }
    NamedMapPtr attribute(const std::string& name) const {
        NamedMapPtr map = guideLayerMap(guides_, data_.scalp, name);
        if (!map && !strands_)
            failParam(param_,
                      "no strands yet, so '" + name +
                          "' must be a layer painted on the guides, with the guides connected "
                          "to this node");
        return map;
    }
    NamedMapPtr guideLayer(const std::string& layer) const {
        const bool onStrands =
            strands_ && (strands_->strandChannel(layer) || strands_->pointChannel(layer));
        NamedMapPtr map = guideLayerMap(guides_, data_.scalp, layer);
        if (map || onStrands) return map;
        if (guides_) failParam(param_, "no guide carries the layer '" + layer + "'");
        if (!strands_)
            failParam(param_,
                      "a guide map here needs guides: connect them to this node's guides input");
        return nullptr;  // bind says what is missing
    }
    void expression(const MapSource& source, ScalarFieldParts& parts) const {
        const ParamSpec* spec = op_.paramSpec(param_);
        parts.perPointAllowed = spec && spec->perPoint();
        parts.scope = std::make_shared<const ExpressionScope>(data_, guides_,
                                                              expressionReads(source.source).maps);
        auto environment =
            std::make_shared<const ExpressionEnvironment>(parts.scope->environmentFor(strands_));
        try {
            parts.expression =
                compileExpression(source.source, *environment, parts.perPointAllowed);
        } catch (const ExpressionError& error) {
            failParam(param_, error.what());
        }
        parts.environment = std::move(environment);
        if (strands_) return;
        requireChannels(*parts.expression, nullptr, param_);
        if (parts.expression->readsStrands())
            failParam(param_,
                      "the expression reads strands, and there are none yet: use P, N, u, v, "
                      "noise or maps");
    }

    const Operator& op_;
    const std::string param_;
    const EvaluationData& data_;
    const StrandSet* strands_;
    const GuidesPtr& guides_;
};

}  // namespace

FieldPtr fieldFromParam(const Operator& op, std::string_view param, const EvalContext& context,
                        const GuidesPtr& guides) {
    return FieldMaker(op, param, context, nullptr, guides).make();
}

FieldPtr fieldFromParam(const Operator& op, std::string_view param, const EvalContext& context,
                        const StrandSet& strands, const GuidesPtr& guides) {
    return FieldMaker(op, param, context, &strands, guides).make();
}

}  // namespace corvelle
