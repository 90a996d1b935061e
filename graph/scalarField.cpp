#include "graph/scalarField.h"

#include <algorithm>

#include "expr/batchBuffer.h"
#include "graph/paramError.h"

namespace corvelle {

ScalarField::ScalarField(ScalarFieldParts parts) : parts_(std::move(parts)) {
    if (parts_.input)
        way_ = Way::Input;
    else if (!parts_.mapped)
        way_ = Way::Constant;
    else if (parts_.kind == MapKind::Expression)
        way_ = Way::Expression;
    else
        way_ = parts_.map ? Way::Map : Way::None;
}

void ScalarField::spread(std::span<float> values) const {
    const float low = parts_.low, range = parts_.high - parts_.low;
    if (low == 0.0f && range == 1.0f) return;
    for (float& v : values) v = low + range * v;
}

float ScalarField::sampleAt(Vec3f position) const {
    if (way_ == Way::Input) return parts_.input->sampleAt(position) * parts_.scale;
    if (way_ == Way::Expression) {
        SurfaceHit hit;
        const ScalpPtr& scalp = parts_.environment->scalp;
        if (scalp && scalp->closestPoint(position, ScalpMesh::kAnyDistance, hit))
            return sampleRoot(hit.root(), position);
    }
    return sampleRoot({}, position);
}

float ScalarField::sampleRoot(const StrandRoot& root, Vec3f position) const {
    float out = 0.0f;
    sampleRoots({&root, 1}, {&position, 1}, {&out, 1});
    return out;
}

float ScalarField::sampleStrand(const StrandSet& strands, std::size_t index) const {
    const std::uint32_t strand = std::uint32_t(index);
    float out = 0.0f;
    sampleStrands(strands, {&strand, 1}, {&out, 1});
    return out;
}

float ScalarField::samplePoint(const StrandSet& strands, std::size_t index,
                               std::size_t point) const {
    switch (way_) {
        case Way::Input:
            return parts_.input->samplePoint(strands, index, point) * parts_.scale;
        case Way::PointChannel: {
            float out = channel_[std::size_t(strands.offsets()[index]) + point];
            spread({&out, 1});
            return out;
        }
        case Way::Expression:
            if (perPoint()) {
                const std::uint32_t strand = std::uint32_t(index);
                std::vector<float> all(strands.pointCountOf(index));
                samplePoints(strands, {&strand, 1}, all);
                return all[point];
            }
            [[fallthrough]];
        default:
            return sampleStrand(strands, index);
    }
}

void ScalarField::sampleStrands(const StrandSet& set, std::span<const std::uint32_t> strands,
                                std::span<float> out) const {
    switch (way_) {
        case Way::Constant:
            std::fill(out.begin(), out.end(), parts_.value);
            return;
        case Way::Input:
            parts_.input->sampleStrands(set, strands, out);
            for (float& v : out) v *= parts_.scale;
            return;
        case Way::StrandChannel:
            if (!strands.empty() && isRun(strands))
                std::copy_n(channel_ + strands[0], strands.size(), out.begin());
            else
                for (std::size_t i = 0; i < strands.size(); ++i) out[i] = channel_[strands[i]];
            return spread(out);
        case Way::PointChannel: {
            const std::span<const std::uint64_t> offsets = set.offsets();
            for (std::size_t i = 0; i < strands.size(); ++i) {
                const std::uint64_t first = offsets[strands[i]];
                out[i] = offsets[strands[i] + 1] > first ? channel_[std::size_t(first)] : 0.0f;
            }
            return spread(out);
        }
        case Way::Expression:
            if (!bound_) break;
            expression_.strands(strands, out);
            return spread(out);
        case Way::Map:
            parts_.map->strandValues(set, strands, parts_.component, out);
            return spread(out);
        case Way::None:
            break;
    }
    FieldValue::sampleStrands(set, strands, out);  // gathers the roots for sampleRoots
}

void ScalarField::samplePoints(const StrandSet& set, std::span<const std::uint32_t> strands,
                               std::span<float> out) const {
    switch (way_) {
        case Way::Constant:
            std::fill(out.begin(), out.end(), parts_.value);
            return;
        case Way::Input:
            parts_.input->samplePoints(set, strands, out);
            for (float& v : out) v *= parts_.scale;
            return;
        case Way::PointChannel: {
            const std::span<const std::uint64_t> offsets = set.offsets();
            float* to = out.data();
            for (const std::uint32_t s : strands)
                to = std::copy(channel_ + offsets[s], channel_ + offsets[s + 1], to);
            return spread(out);
        }
        case Way::Expression:
            if (!bound_ || !expression_.perPoint()) break;
            expression_.points(strands, out);
            return spread(out);
        default:
            break;
    }
    FieldValue::samplePoints(set, strands, out);  // one value a strand
}

void ScalarField::sampleRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                              std::span<float> out) const {
    switch (way_) {
        case Way::Constant:
            std::fill(out.begin(), out.end(), parts_.value);
            return;
        case Way::Input:
            parts_.input->sampleRoots(roots, positions, out);
            for (float& v : out) v *= parts_.scale;
            return;
        case Way::Expression:
            parts_.expression->atRoots(roots, positions, *parts_.environment, out);
            return spread(out);
        default:
            break;
    }
    // A channel has no values away from its strands; a layer may have them on the guides.
    if (parts_.map)
        parts_.map->values(roots, positions, parts_.component, out);
    else
        std::fill(out.begin(), out.end(), 0.0f);
    spread(out);
}

bool ScalarField::perPoint() const {
    switch (way_) {
        case Way::Input:
            return parts_.input->perPoint();
        case Way::Expression:
            return bound_ ? expression_.perPoint() : parts_.expression->perPoint();
        case Way::PointChannel:
            return true;
        default:
            return false;
    }
}

std::optional<float> ScalarField::constant() const {
    if (way_ == Way::Constant) return parts_.value;
    if (way_ != Way::Input) return std::nullopt;
    const std::optional<float> driven = parts_.input->constant();
    return driven ? std::optional<float>(*driven * parts_.scale) : std::nullopt;
}

float ScalarField::maxValue() const {
    if (way_ == Way::Constant) return parts_.value;
    if (way_ == Way::Input) return parts_.input->maxValue() * parts_.scale;
    return std::max(parts_.low, parts_.high);
}

FieldPtr ScalarField::bind(const StrandSet& strands) const {
    if (way_ == Way::Input) {
        FieldPtr input = parts_.input->bind(strands);
        if (!input) return nullptr;
        ScalarFieldParts parts = parts_;
        parts.input = std::move(input);
        return std::make_shared<ScalarField>(std::move(parts));
    }
    if (!parts_.mapped) return nullptr;
    switch (parts_.kind) {
        case MapKind::Expression: {
            auto copy = std::make_shared<ScalarField>(parts_);
            copy->bindExpression(strands);
            return copy;
        }
        case MapKind::Attribute:
        case MapKind::GuideLayer: {
            auto copy = std::make_shared<ScalarField>(parts_);
            copy->bindChannel(strands);
            return copy;
        }
        case MapKind::Texture:
        case MapKind::ColorSet:
            break;
    }
    return nullptr;
}

void ScalarField::bindChannel(const StrandSet& strands) {
    const std::vector<float>* perStrand = strands.strandChannel(parts_.source);
    const std::vector<float>* perPointValues = strands.pointChannel(parts_.source);
    // An attribute is read as fine as it is there; a layer painted along guides also comes with a
    // value a strand, which then is the layer.
    if (parts_.kind == MapKind::Attribute && perPointValues) perStrand = nullptr;
    bound_ = true;
    if (perStrand) {
        way_ = Way::StrandChannel;
        channel_ = perStrand->data();
    } else if (perPointValues) {
        way_ = Way::PointChannel;
        channel_ = perPointValues->data();
    } else if (!parts_.map) {
        if (parts_.kind == MapKind::Attribute)
            failParam(parts_.param, "strands have no attribute '" + parts_.source + "'");
        failParam(parts_.param,
                  "no guide layer '" + parts_.source +
                      "' on the strands (Interpolate writes it; paint it on the guides)");
    }
}

void ScalarField::bindExpression(const StrandSet& strands) {
    ExpressionEnvironment environment = parts_.scope->environmentFor(&strands);
    environment.variables = parts_.environment->variables;
    try {
        parts_.expression = compileExpression(parts_.source, environment, parts_.perPointAllowed);
        requireChannels(*parts_.expression, &strands, parts_.param);
        expression_ = parts_.expression->bind(strands, environment);
    } catch (const ExpressionError& error) {
        failParam(parts_.param, error.what());
    }
    parts_.environment = std::make_shared<const ExpressionEnvironment>(std::move(environment));
    bound_ = true;
}

bool ScalarField::readsSet() const {
    if (parts_.input) return parts_.input->readsSet();
    if (!parts_.mapped) return false;
    switch (parts_.kind) {
        case MapKind::Expression:
            return parts_.needsStrands || parts_.expression->readsStrands() ||
                   !parts_.expression->channelNames().empty();
        case MapKind::Attribute:
        case MapKind::GuideLayer:
            return true;
        case MapKind::Texture:
        case MapKind::ColorSet:
            break;
    }
    return false;
}

bool ScalarField::readsWholeSet() const {
    if (parts_.input) return parts_.input->readsWholeSet();
    return parts_.mapped && parts_.kind == MapKind::Expression &&
           parts_.expression->readsWholeSet();
}

bool ScalarField::worksAtPosition() const {
    if (parts_.input) return parts_.input->worksAtPosition();
    if (!parts_.mapped || parts_.map) return true;
    return parts_.kind == MapKind::Expression && !readsSet();
}

FieldPtr mapField(NamedMapPtr map, MapComponent component, std::string param) {
    ScalarFieldParts parts;
    parts.param = std::move(param);
    parts.mapped = true;
    parts.source = map->channel();
    parts.kind = parts.source.empty() ? MapKind::Texture : MapKind::GuideLayer;
    parts.component = component;
    parts.map = std::move(map);
    return std::make_shared<ScalarField>(std::move(parts));
}

FieldPtr expressionField(const std::string& text, std::string param,
                         std::shared_ptr<const ExpressionScope> scope,
                         std::map<std::string, std::variant<float, Vec3f>> variables) {
    ScalarFieldParts parts;
    parts.param = std::move(param);
    parts.mapped = true;
    parts.kind = MapKind::Expression;
    parts.source = text;
    parts.perPointAllowed = true;
    ExpressionEnvironment environment = scope->environmentFor(nullptr);
    environment.variables = variables;
    try {
        parts.expression = compileExpression(text, environment, true);
    } catch (const ExpressionError&) {
        // Either a mistake, which the second compile tells, or a layer that strands must bring.
        environment = scope->environment();
        environment.variables = std::move(variables);
        parts.expression = compileExpression(text, environment, true);
        parts.needsStrands = true;
    }
    parts.scope = std::move(scope);
    parts.environment = std::make_shared<const ExpressionEnvironment>(std::move(environment));
    return std::make_shared<ScalarField>(std::move(parts));
}

}  // namespace corvelle
