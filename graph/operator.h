#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "graph/evalContext.h"
#include "graph/field.h"
#include "graph/graphError.h"
#include "graph/nodeValue.h"
#include "graph/paramValue.h"

namespace corvelle {

struct Node;

/// What is known of one input slot against the value that the previous outputs were made from.
struct SlotChanges {
    enum class Kind { None, Some, Unknown };
    Kind kind = Kind::Unknown;
    StrandChangesPtr changes;        ///< for Some: the strands (or guides) that differ, never all
    std::uint64_t previousHash = 0;  ///< NodeInputs::hashes of the slot when `previous` was made
};

/// What `update` is given and gives. The graph asks only when every slot's changes are None or Some,
/// at least one is Some or `ownChanged` holds, and `ownChanged` only where `updatesOwnChanges`.
struct UpdateRequest {
    /// The node's last outputs, before any `affect` blend. An update may let go of them (reset), so that
    /// arrays no one else holds are written in place instead of copied: it must then succeed or throw.
    std::span<NodeValue> previous;
    std::span<const SlotChanges> inputs;   ///< one per input slot
    bool ownChanged = false;               ///< params, context or source differ since
    std::uint64_t previousContextHash = 0; ///< what `contextHash` said when `previous` was made
    std::uint64_t previousResult = 0;      ///< NodeInputs::result of the run that made `previous`
};
struct UpdateResult {
    std::vector<NodeValue> outputs;
    std::vector<StrandChangesPtr> changes;  ///< per output: what differs from `previous`
};

/// A node type. Subclasses declare ports and params and compute outputs; the graph owns instances,
/// caches outputs by hash and calls them from one thread at a time. All per-run state lies in locals,
/// or in caches the subclass guards by a mutex of its own.
class Operator {
public:
    virtual ~Operator() = default;
    virtual std::string type() const = 0;
    virtual std::string category() const = 0;
    virtual std::string description() const = 0;  ///< one line for hosts
    virtual int nodeVersion() const { return 1; }
    virtual std::vector<PortSpec> inputs() const = 0;
    virtual PortSpec output() const { return {"out", PortType::Strands}; }
    virtual std::vector<PortSpec> outputs() const { return {output()}; }
    virtual std::vector<ParamSpec> spec() const { return {}; }

    /// Computes the single output, or throws GraphError.
    virtual NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) = 0;
    /// One value per output.
    virtual std::vector<NodeValue> evaluateAll(const EvalContext& context, const NodeInputs& inputs) {
        return {evaluate(context, inputs)};
    }
    /// Makes the outputs from the previous ones where only some strands changed, with the bits of a
    /// full run; false when it cannot.
    virtual bool update(const EvalContext&, const NodeInputs&, const UpdateRequest&, UpdateResult&) { return false; }
    /// Copies the caches of an operator of the same type, under both mutexes.
    virtual void adoptState(const Operator&) {}

    virtual std::uint32_t contextReads() const { return 0; }  ///< bits of reads::
    virtual std::uint64_t sourceHash() const { return 0; }    ///< a file, a definition
    virtual std::uint64_t contextHash(const EvalContext&) const { return 0; }
    virtual bool isScalpSource() const { return false; }
    /// Shown with the node after a good evaluation.
    virtual std::string warning(const EvalContext&) const { return {}; }
    /// True for some input: only those are walked, hashed and evaluated; for none: all.
    virtual bool inputSelected(std::size_t) const { return false; }
    /// Handles ownChanged in `update` (sources that can tell which of their guides changed).
    virtual bool updatesOwnChanges() const { return false; }
    /// Lets a walk over the nodes in use go on into a graph this node holds; false stops the walk.
    virtual bool visitInner(bool /*render*/, const std::function<bool(const Node&)>& /*visit*/) const {
        return true;
    }
    /// The params or ports differ from instance to instance of the type.
    virtual bool ownSpec() const { return false; }
    /// For types that hold a definition (compounds): its JSON text, set before any param.
    virtual bool hasDefinition() const { return false; }
    virtual std::string definition() const { return {}; }
    virtual void setDefinition(const std::string& /*json*/) {}
    /// False for types that find the outputs before in caches of their own: `previous` is then empty
    /// in `update`, and its arrays are free for those caches.
    virtual bool readsPrevious() const { return true; }
    /// Keeps caches through which a second run would not be a full one: checks run on a fresh copy.
    virtual bool verifyOnClone() const { return false; }
    virtual bool readsTime() const { return (contextReads() & reads::kTime) != 0; }
    /// Drops what was kept for another frame rate.
    virtual void setFramesPerSecond(double) {}

    // Ports, asked once; kept until a param changes.
    const std::vector<PortSpec>& inputPorts() const;
    const std::vector<PortSpec>& outputPorts() const;

    // Params.
    /// The declared params and the common ones (`affect` on types with strands in and out).
    const std::vector<ParamSpec>& params() const;
    const ParamSpec* paramSpec(std::string_view name) const;  ///< null for none
    /// True when `affect` is the common one, which the graph applies round the run.
    bool hasCommonAffect() const;
    /// Throws GraphError "unknown parameter '<name>'", or for a value of another kind, or for a map
    /// where none may be. A ramp may come as JSON text.
    void set(const std::string& name, ParamValue value);
    void unset(const std::string& name);  ///< back to the default
    const std::map<std::string, ParamValue, std::less<>>& storedParams() const { return params_; }
    /// What a run reads: the driven value, else the stored one, else the default.
    const ParamValue& value(std::string_view name) const;
    bool isMapped(std::string_view name) const;  ///< a map, or driven by a field
    /// Clamped to min..max, rounded when whole. Throws GraphError for a param that holds a map: read
    /// those by `fieldFromParam`.
    double number(std::string_view name) const;
    int whole(std::string_view name) const;
    bool boolean(std::string_view name) const;
    const std::string& text(std::string_view name) const;
    Vec3f vec3(std::string_view name) const;
    const Ramp& ramp(std::string_view name) const;  ///< driven by a Curve node, or its own
    std::uint64_t seed() const { return seed("seed"); }
    std::uint64_t seed(std::string_view name) const;
    /// The text of a choice param; throws GraphError "<Type>: <name> must be <a> or <b>".
    const std::string& choice(std::string_view name) const;

    /// A field that drives a param for this evaluation, set by the graph.
    struct DrivenField {
        FieldPtr field;
        float scale = 1.0f;
    };
    const DrivenField* drivenField(std::string_view name) const;
    void clearDriven();        ///< fields, curves and values
    void clearDrivenFields();  ///< fields and curves: after a run, so that no array is kept alive
    void drive(const std::string& name, DrivenField field);
    void drive(const std::string& name, CurvePtr curve);
    void drive(const std::string& name, ParamValue value);

    /// Warnings raised while running; kept with the outputs, so that cache hits still show them.
    void warn(std::string text) const { warnings_.push_back(std::move(text)); }
    std::vector<std::string> takeWarnings() const { return std::exchange(warnings_, {}); }
    /// How a run goes, where it is nothing to warn of: kept with the outputs too. The last text
    /// told.
    void tell(std::string text) const { details_ = std::move(text); }
    std::string takeDetails() const { return std::exchange(details_, {}); }

    std::string name;  ///< the node's
    int version = 0;   ///< as stored; below 1: the type's current one

    /// Takes stored and driven params, name and version of an operator of the same type, as they are.
    void copyParams(const Operator& other);

protected:
    Operator() = default;
    /// For types whose spec is their own: the declared ports and params are asked anew.
    void specChanged();

private:
    struct ParamTable;
    const ParamTable& table() const;
    const ParamSpec& declared(std::string_view name) const;
    mutable std::shared_ptr<const ParamTable> table_;  ///< one per type, or the instance's own
    mutable std::shared_ptr<const std::vector<PortSpec>> inputPorts_, outputPorts_;
    std::map<std::string, ParamValue, std::less<>> params_;
    std::map<std::string, ParamValue, std::less<>> drivenValues_;
    std::map<std::string, DrivenField, std::less<>> drivenFields_;
    std::map<std::string, CurvePtr, std::less<>> drivenCurves_;
    mutable std::vector<std::string> warnings_;
    mutable std::string details_;
};
using OperatorPtr = std::unique_ptr<Operator>;

/// "<Type>: <port> input not connected" for strands, guides and curves ports, "<Type>: input <port>
/// is not connected" for the others.
[[noreturn]] void throwNotConnected(const Operator& op, std::size_t slot);
/// The strands of a required slot.
StrandsPtr requireStrands(const Operator& op, const NodeInputs& inputs, std::size_t slot = 0);
GuidesPtr requireGuides(const Operator& op, const NodeInputs& inputs, std::size_t slot);
ScalpPtr requireMesh(const Operator& op, const NodeInputs& inputs, std::size_t slot);

/// Type names to factories. Filled at start by the families' registration functions; read-only after.
class OperatorRegistry {
public:
    using Factory = std::function<OperatorPtr()>;
    static OperatorRegistry& instance();
    void add(const std::string& type, Factory factory);
    /// Throws GraphError "unknown operator type '<type>'".
    OperatorPtr create(const std::string& type) const;
    bool has(const std::string& type) const;
    std::vector<std::string> types() const;  ///< ascending

private:
    std::map<std::string, Factory> factories_;
};

}  // namespace corvelle
