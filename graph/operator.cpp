#include "graph/operator.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <numeric>

#include "graph/paramError.h"
#include "graph/rampText.h"

namespace corvelle {

namespace {

const ParamSpec& affectSpec() {
    static const ParamSpec spec{
        .name = "affect",
        .defaultValue = 1.0,
        .description =
            "Where the node works, 0-1 per strand (mappable, per point): 1 its whole result, 0 the "
            "strands as they came in, between a mix of the two. Map it to a Group node's group (an "
            "attribute map of the group's name), a painted map or an expression. IDs (clumpId...) "
            "switch at 0.5. A node that adds, removes or resamples strands leaves it alone",
        .mappable = true,
        .unit = "fraction",
        .group = "Common",
        .softMin = 0.0,
        .softMax = 1.0,
    };
    return spec;
}

}  // namespace

/// The params of a type in panel order, and the order of their names for look-ups.
struct Operator::ParamTable {
    std::vector<ParamSpec> specs;
    std::vector<std::uint32_t> byName;
    bool commonAffect = false;

    ParamTable(std::vector<ParamSpec> declared, bool withAffect)
        : specs(std::move(declared)), commonAffect(withAffect) {
        if (withAffect) specs.push_back(affectSpec());
        byName.resize(specs.size());
        std::iota(byName.begin(), byName.end(), 0u);
        std::sort(byName.begin(), byName.end(),
                  [&](std::uint32_t a, std::uint32_t b) { return specs[a].name < specs[b].name; });
    }
    const ParamSpec* find(std::string_view wantedName) const {
        const auto at = std::lower_bound(
            byName.begin(), byName.end(), wantedName,
            [&](std::uint32_t i, std::string_view wanted) { return specs[i].name < wanted; });
        return at != byName.end() && specs[*at].name == wantedName ? &specs[*at] : nullptr;
    }
};

const Operator::ParamTable& Operator::table() const {
    if (table_) return *table_;
    // One table a type, so that making a node costs no copy of its texts.
    static std::mutex mutex;
    static auto& tables = *new std::map<std::string, std::shared_ptr<const ParamTable>>;
    const bool shared = !ownSpec();
    const std::string key = type();
    if (shared) {
        const std::lock_guard lock(mutex);
        if (const auto found = tables.find(key); found != tables.end())
            return *(table_ = found->second);
    }
    // Ports may stand in params: those are asked with the declared params in place.
    const std::vector<ParamSpec> specs = spec();
    table_ = std::make_shared<const ParamTable>(specs, false);
    try {
        const std::vector<PortSpec> in = inputs(), out = outputs();
        if (!in.empty() && !out.empty() && in[0].type == PortType::Strands &&
            out[0].type == PortType::Strands && !table_->find(affectSpec().name))
            table_ = std::make_shared<const ParamTable>(specs, true);
    } catch (...) {
        table_.reset();
        throw;
    }
    if (shared) {
        const std::lock_guard lock(mutex);
        table_ = tables.emplace(key, table_).first->second;
    }
    return *table_;
}

void Operator::specChanged() {
    table_.reset();
    inputPorts_.reset();
    outputPorts_.reset();
}

const std::vector<PortSpec>& Operator::inputPorts() const {
    if (!inputPorts_) inputPorts_ = std::make_shared<const std::vector<PortSpec>>(inputs());
    return *inputPorts_;
}
const std::vector<PortSpec>& Operator::outputPorts() const {
    if (!outputPorts_) outputPorts_ = std::make_shared<const std::vector<PortSpec>>(outputs());
    return *outputPorts_;
}

const std::vector<ParamSpec>& Operator::params() const { return table().specs; }
const ParamSpec* Operator::paramSpec(std::string_view param) const { return table().find(param); }
bool Operator::hasCommonAffect() const { return table().commonAffect; }

const ParamSpec& Operator::declared(std::string_view param) const {
    const ParamSpec* spec = table().find(param);
    if (!spec) throw GraphError("unknown parameter '" + std::string(param) + "'");
    return *spec;
}

void Operator::set(const std::string& param, ParamValue value) {
    const ParamSpec& spec = declared(param);
    const bool isNumber = std::holds_alternative<double>(spec.defaultValue);
    const bool isVector = std::holds_alternative<Vec3f>(spec.defaultValue);
    if (const auto* text = std::get_if<std::string>(&value);
        text && std::holds_alternative<Ramp>(spec.defaultValue))
        value = rampFromText(*text);
    if (const auto* map = std::get_if<MapSource>(&value);
        map && isVector && spec.vectorExpression) {
        if (map->kind != MapKind::Expression) failVectorMap(param, map->kind);
    } else if (!(map && isNumber && spec.isMappable()) &&
               value.index() != spec.defaultValue.index()) {
        const char* orMap = isNumber && spec.isMappable()       ? " or a map"
                            : isVector && spec.vectorExpression ? " or an expression"
                                                                : "";
        throw GraphError("param '" + param + "' takes a " + spec.kind() + orMap + ", not a " +
                         paramKind(value));
    }
    params_.insert_or_assign(param, std::move(value));
    inputPorts_.reset();
    outputPorts_.reset();
}

void Operator::unset(const std::string& param) {
    params_.erase(param);
    inputPorts_.reset();
    outputPorts_.reset();
}

void Operator::copyParams(const Operator& other) {
    params_ = other.params_;
    drivenValues_ = other.drivenValues_;
    drivenFields_ = other.drivenFields_;
    drivenCurves_ = other.drivenCurves_;
    if (!ownSpec()) table_ = other.table_;
    inputPorts_.reset();
    outputPorts_.reset();
    name = other.name;
    version = other.version < 1 ? other.nodeVersion() : other.version;
}

const ParamValue& Operator::value(std::string_view param) const {
    if (!drivenValues_.empty())
        if (const auto at = drivenValues_.find(param); at != drivenValues_.end()) return at->second;
    if (const auto at = params_.find(param); at != params_.end()) return at->second;
    return declared(param).defaultValue;
}

bool Operator::isMapped(std::string_view param) const {
    return drivenField(param) || std::holds_alternative<MapSource>(value(param));
}

namespace {

[[noreturn]] void throwMapped(const Operator& op, std::string_view param) {
    throw GraphError(op.type() + ": param '" + std::string(param) +
                     "' reads a map where the node needs one value");
}
template <class T>
const T& valueAs(const Operator& op, std::string_view param) {
    const ParamValue& value = op.value(param);
    if (const T* held = std::get_if<T>(&value)) return *held;
    if (std::holds_alternative<MapSource>(value)) throwMapped(op, param);
    throw GraphError("param '" + std::string(param) + "' is a " + paramKind(value));
}

}  // namespace

double Operator::number(std::string_view param) const {
    const ParamSpec& spec = declared(param);
    double x = valueAs<double>(*this, param);
    if (!std::isfinite(x)) x = std::get<double>(spec.defaultValue);
    if (spec.whole) x = std::round(x);
    if (spec.min) x = std::max(x, *spec.min);
    if (spec.max) x = std::min(x, *spec.max);
    return x;
}

int Operator::whole(std::string_view param) const {
    const double x = std::round(number(param));
    if (x < double(std::numeric_limits<int>::min()) || x > double(std::numeric_limits<int>::max()))
        throw GraphError("param '" + std::string(param) + "' is out of range for an integer");
    return static_cast<int>(x);
}

std::uint64_t Operator::seed(std::string_view param) const {
    const double x = std::round(number(param));
    if (!(x >= -9223372036854775808.0 && x < 9223372036854775808.0))
        throw GraphError("param '" + std::string(param) + "' is out of range for an integer");
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(x));
}

bool Operator::boolean(std::string_view param) const { return valueAs<bool>(*this, param); }
const std::string& Operator::text(std::string_view param) const {
    return valueAs<std::string>(*this, param);
}
Vec3f Operator::vec3(std::string_view param) const { return valueAs<Vec3f>(*this, param); }

const Ramp& Operator::ramp(std::string_view param) const {
    if (const auto at = drivenCurves_.find(param); at != drivenCurves_.end()) return *at->second;
    return valueAs<Ramp>(*this, param);
}

const std::string& Operator::choice(std::string_view param) const {
    const std::string& word = text(param);
    const std::vector<std::string>& choices = declared(param).choices;
    if (choices.empty() || std::find(choices.begin(), choices.end(), word) != choices.end())
        return word;
    std::string list;
    for (std::size_t i = 0; i < choices.size(); ++i)
        list += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
    throw GraphError(type() + ": " + std::string(param) + " must be " + list);
}

const Operator::DrivenField* Operator::drivenField(std::string_view param) const {
    const auto at = drivenFields_.find(param);
    return at == drivenFields_.end() ? nullptr : &at->second;
}

void Operator::clearDrivenFields() {
    drivenFields_.clear();
    drivenCurves_.clear();
}
void Operator::clearDriven() {
    clearDrivenFields();
    drivenValues_.clear();
}
void Operator::drive(const std::string& param, DrivenField field) {
    drivenFields_.insert_or_assign(param, std::move(field));
}
void Operator::drive(const std::string& param, CurvePtr curve) {
    drivenCurves_.insert_or_assign(param, std::move(curve));
}
void Operator::drive(const std::string& param, ParamValue value) {
    drivenValues_.insert_or_assign(param, std::move(value));
}

void throwNotConnected(const Operator& op, std::size_t slot) {
    const PortSpec& port = op.inputPorts().at(slot);
    if (port.type == PortType::Mesh || port.type == PortType::Field || port.type == PortType::Curve)
        throw GraphError(op.type() + ": input " + port.name + " is not connected");
    throw GraphError(op.type() + ": " + port.name + " input not connected");
}

StrandsPtr requireStrands(const Operator& op, const NodeInputs& inputs, std::size_t slot) {
    StrandsPtr strands = inputs.strands(slot);
    if (!strands) throwNotConnected(op, slot);
    return strands;
}
GuidesPtr requireGuides(const Operator& op, const NodeInputs& inputs, std::size_t slot) {
    GuidesPtr guides = inputs.guides(slot);
    if (!guides) throwNotConnected(op, slot);
    return guides;
}
ScalpPtr requireMesh(const Operator& op, const NodeInputs& inputs, std::size_t slot) {
    ScalpPtr mesh = inputs.mesh(slot);
    if (!mesh) throwNotConnected(op, slot);
    return mesh;
}

}  // namespace corvelle
