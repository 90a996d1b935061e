#include "operators/fieldNodes.h"

#include <algorithm>
#include <cmath>

#include <nlohmann/json.hpp>

#include "graph/colorMap.h"
#include "graph/expressionScope.h"
#include "graph/operator.h"
#include "graph/scalarField.h"
#include "model/hash.h"
#include "operators/fieldValues.h"
#include "operators/registerOperators.h"

namespace corvelle {

std::string variablesWithControls(const std::string& variables,
                                  const std::map<std::string, double>& controls) {
    nlohmann::json json = nlohmann::json::parse(variables, nullptr, false);
    if (!json.is_object()) return variables;
    for (auto& [name, value] : json.items()) {
        if (!value.is_object()) continue;
        const auto number = value.find("value");
        const auto control = value.find("control");
        if (number == value.end() || !number->is_number() || control == value.end() ||
            !control->is_string())
            continue;
        const auto held = controls.find(control->get_ref<const std::string&>());
        const double driven = held == controls.end() ? number->get<double>() : held->second;
        value = driven;
    }
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

namespace {

Ramp straight() { return Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}}, true); }

/// What all of them share.
class FieldNode : public Operator {
public:
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"field", PortType::Field}; }
};

class CurveNode final : public FieldNode {
public:
    std::string type() const override { return "Curve"; }
    std::string description() const override { return "A ramp shared by several params."; }
    PortSpec output() const override { return {"curve", PortType::Curve}; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "curve", .defaultValue = straight(), .description = "The ramp, 0 to 1"}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override {
        return std::make_shared<const Ramp>(ramp("curve"));
    }
};

class ControlNode final : public FieldNode {
public:
    std::string type() const override { return "Control"; }
    std::string description() const override {
        return "A keyable slider on the groom (channel box) driving a param.";
    }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "name",
                 .defaultValue = std::string("control1"),
                 .description = "The control's name on the host"},
                {.name = "default",
                 .defaultValue = 1.0,
                 .description = "Value where the host sets none",
                 .animatable = true,
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "min", .defaultValue = 0.0, .description = "Lowest value"},
                {.name = "max", .defaultValue = 1.0, .description = "Highest value"}};
    }
    std::uint64_t contextHash(const EvalContext& context) const override {
        const auto held = context.data().controls.find(text("name"));
        return held == context.data().controls.end() ? 0 : hashCombine(1, held->second);
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override {
        const auto& controls = context.data().controls;
        const auto held = controls.find(text("name"));
        const double value = held == controls.end() || !std::isfinite(held->second)
                                 ? number("default")
                                 : held->second;
        const auto [low, high] = std::minmax({number("min"), number("max")});
        return std::make_shared<const ConstantFieldValue>(float(std::clamp(value, low, high)));
    }
};

class ExpressionNode final : public FieldNode {
public:
    std::string type() const override { return "Expression"; }
    std::string description() const override {
        return "A value per strand from a formula, feeding any param.";
    }
    std::vector<ParamSpec> spec() const override {
        return {
            {.name = "expression",
             .defaultValue = std::string("1"),
             .description =
                 "Per strand: length, longest, reach, straightness, lift, tipx/y/z, u, v, x, y, "
                 "z, nx, ny, nz, rand, index, any strand channel (e.g. clumpId, "
                 "guideInfluence); per point: t (root 0 to tip 1 by arc length), pt (by point "
                 "index), px/py/pz, pointIndex, any point channel; frame, time; vectors [x, y, "
                 "z], P, N, tip, pointP, .x .y .z; + - * / ^, comparisons, c ? a : b; sin cos "
                 "abs sqrt min max clamp mix smoothstep fit remap step, dot cross length "
                 "normalize rotate, noise fbm turbulence voronoi cellnoise vnoise, curve "
                 "spline, pick choose cycle, map(\"name\") ..."},
            {.name = "variables",
             .defaultValue = std::string("{}"),
             .description =
                 "The node's own variables as JSON, numbers and vectors: {\"amount\": 0.5, "
                 "\"center\": [0, 1, 0]}, read as $amount and $center.x (.y, .z); a keyable "
                 "number is {\"value\": 0.5, \"control\": \"name\"}, set by the host's control "
                 "of that name (ctl_name on the groom in Maya)"}};
    }
    /// Only time is declared: what else a formula reads is in the context hash, by its words.
    std::uint32_t contextReads() const override {
        return expressionReads(text("expression")).time ? std::uint32_t(reads::kTime) : 0;
    }
    std::uint64_t contextHash(const EvalContext& context) const override {
        const EvaluationData& data = context.data();
        const MapSource source{.kind = MapKind::Expression, .source = text("expression")};
        const bool maps = expressionReads(source.source).maps;
        const std::uint64_t h = mapReadsHash(source, data, maps ? groomGuides(data) : nullptr);
        return hashCombine(h, hashOf(variablesWithControls(text("variables"), data.controls)));
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override {
        const EvaluationData& data = context.data();
        const std::string& formula = text("expression");
        const bool maps = expressionReads(formula).maps;
        try {
            auto variables =
                expressionVariables(variablesWithControls(text("variables"), data.controls));
            auto scope = std::make_shared<const ExpressionScope>(
                data, maps ? groomGuides(data) : nullptr, maps);
            return expressionField(formula, "expression", std::move(scope), std::move(variables));
        } catch (const ExpressionError& error) {
            throw GraphError("Expression: " + std::string(error.what()));
        }
    }
};

class FieldNoiseNode final : public FieldNode {
public:
    std::string type() const override { return "FieldNoise"; }
    std::string description() const override {
        return "Smooth noise over the scalp, feeding any param.";
    }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "frequency",
                 .defaultValue = 0.3,
                 .description = "Features per scene unit",
                 .unit = "perLength",
                 .softMin = 0.0,
                 .softMax = 5.0,
                 .min = 0.0},
                {.name = "octaves",
                 .defaultValue = 2.0,
                 .description = "Layers of detail, each twice as fine and half as strong",
                 .whole = true,
                 .min = 1.0,
                 .max = 8.0},
                {.name = "low",
                 .defaultValue = 0.0,
                 .description = "Value in the noise's valleys",
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "high",
                 .defaultValue = 1.0,
                 .description = "Value on the noise's peaks",
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "offset",
                 .defaultValue = Vec3f{},
                 .description = "Moves the noise, in its own units"},
                {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override {
        return std::make_shared<const NoiseFieldValue>(
            NoiseFieldSettings{.offset = vec3("offset"),
                               .frequency = float(number("frequency")),
                               .seed = seed(),
                               .octaves = whole("octaves"),
                               .low = float(number("low")),
                               .high = float(number("high"))});
    }
};

class FieldRemapNode final : public FieldNode {
public:
    std::string type() const override { return "FieldRemap"; }
    std::string description() const override { return "Reshapes a field through a curve."; }
    std::vector<PortSpec> inputs() const override { return {{"field", PortType::Field}}; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "inMin",
                 .defaultValue = 0.0,
                 .description = "Input at the curve's left end; above inMax: the input is flipped",
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "inMax",
                 .defaultValue = 1.0,
                 .description = "Input at the curve's right end",
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "curve",
                 .defaultValue = straight(),
                 .description = "From input to output, both 0 to 1"},
                {.name = "outMin",
                 .defaultValue = 0.0,
                 .description = "Value where the curve is 0",
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "outMax",
                 .defaultValue = 1.0,
                 .description = "Value where the curve is 1",
                 .softMin = 0.0,
                 .softMax = 1.0}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        FieldPtr field = inputs.field(0);
        if (!field) throwNotConnected(*this, 0);
        return std::make_shared<const RemapFieldValue>(
            std::move(field), RemapFieldSettings{.inMin = float(number("inMin")),
                                                 .inMax = float(number("inMax")),
                                                 .curve = ramp("curve"),
                                                 .outMin = float(number("outMin")),
                                                 .outMax = float(number("outMax"))});
    }
};

class FieldCombineNode final : public FieldNode {
public:
    std::string type() const override { return "FieldCombine"; }
    std::string description() const override { return "Two fields multiplied, added, mixed..."; }
    std::vector<PortSpec> inputs() const override {
        return {{"a", PortType::Field}, {"b", PortType::Field, true}};
    }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "mode",
                 .defaultValue = std::string("multiply"),
                 .description = "multiply, add, subtract, min, max or mix",
                 .choices = {"multiply", "add", "subtract", "min", "max", "mix"}},
                {.name = "bValue",
                 .defaultValue = 1.0,
                 .description = "Stands for b where nothing is connected to it",
                 .softMin = 0.0,
                 .softMax = 1.0},
                {.name = "fraction",
                 .defaultValue = 0.5,
                 .description = "mix: 0 all a, 1 all b",
                 .unit = "fraction",
                 .showWhen = {{.param = "mode", .values = {"mix"}, .unit = {}}},
                 .min = 0.0,
                 .max = 1.0}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const CombineMode mode = combineModeFromName(text("mode"));
        FieldPtr a = inputs.field(0);
        if (!a) throwNotConnected(*this, 0);
        return std::make_shared<const CombineFieldValue>(std::move(a), inputs.field(1),
                                                         float(number("bValue")), mode,
                                                         float(number("fraction")));
    }
};

class MapNode final : public FieldNode {
public:
    std::string type() const override { return "Map"; }
    std::string description() const override {
        return "A map painted in Groom Tools > Paint (or an image), feeding any param.";
    }
    PortSpec output() const override { return {"luminance", PortType::Field}; }
    std::vector<PortSpec> outputs() const override {
        return {{"luminance", PortType::Field},
                {"r", PortType::Field},
                {"g", PortType::Field},
                {"b", PortType::Field},
                {"a", PortType::Field}};
    }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "name",
                 .defaultValue = std::string(),
                 .description = "A map painted in Groom Tools > Paint, by name, or an image file "
                                "sampled at the scalp's UVs"}};
    }
    std::uint64_t contextHash(const EvalContext& context) const override {
        return colorMapHash(text("name"), context.data(), nullptr, wants(context));
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        return evaluateAll(context, inputs).front();
    }
    std::vector<NodeValue> evaluateAll(const EvalContext& context, const NodeInputs&) override {
        const std::string& wanted = text("name");
        if (wanted.empty()) throw GraphError("Map: name the map (Groom Tools > Paint)");
        const ColorMapLookup found = readColorMap(wanted, context, nullptr, wants(context));
        if (!found) throw GraphError(faultText(wanted, found));
        std::vector<NodeValue> values;
        for (const MapComponent component : {MapComponent::Luminance, MapComponent::R,
                                             MapComponent::G, MapComponent::B, MapComponent::A}) {
            // A layer on strands is one number; its alpha is 1 wherever it is read.
            if (found.kind == ColorMapLookup::Kind::Guides && component == MapComponent::A)
                values.push_back(FieldPtr(std::make_shared<const ConstantFieldValue>(1.0f)));
            else
                values.push_back(mapField(found.map, component, "name"));
        }
        return values;
    }

private:
    /// The groom's guides, gathered only where a layer of theirs is named.
    ColorMapWants wants(const EvalContext& context) const {
        static const GuidesPtr none = std::make_shared<const GuideSet>();
        const EvaluationData& data = context.data();
        const std::string& wanted = text("name");
        const PaintedMap* entry = data.maps ? data.maps->find(wanted) : nullptr;
        const bool layer =
            entry ? entry->kind == PaintedMap::Kind::Guides : isGroomLayer(wanted, data);
        GuidesPtr guides = layer ? groomGuides(data) : nullptr;
        return {.colorSets = false, .guides = guides ? std::move(guides) : none};
    }
    static std::string faultText(const std::string& wanted, const ColorMapLookup& found) {
        if (found.kind == ColorMapLookup::Kind::None)
            return "Map: no map or image named '" + wanted +
                   "' (Groom Tools > Paint > New... makes a map)";
        const std::string head = "Map '" + wanted + "': ";
        switch (found.fault) {
            case MapFault::NoImage:
                return head +
                       "the texture map has no image file yet (paint it in Groom Tools > Paint)";
            case MapFault::WrongScalp:
                return head +
                       "the vertex map does not fit this scalp (paint it again, or convert it, in "
                       "Groom Tools > Paint)";
            case MapFault::NoLayer:
            case MapFault::NoGuides:
                return head + "no guide carries the layer (paint it in Groom Tools > Paint)";
            case MapFault::NoUvs:
                return head + "a texture map needs a scalp with UVs";
            case MapFault::Unreadable:
                break;
        }
        return head + found.detail;
    }
};

template <class Type>
void add(const char* type) {
    OperatorRegistry::instance().add(type, [] { return std::make_unique<Type>(); });
}

}  // namespace

void registerFieldOperators() {
    add<CurveNode>("Curve");
    add<ControlNode>("Control");
    add<ExpressionNode>("Expression");
    add<FieldNoiseNode>("FieldNoise");
    add<FieldRemapNode>("FieldRemap");
    add<FieldCombineNode>("FieldCombine");
    add<MapNode>("Map");
}

}  // namespace corvelle
