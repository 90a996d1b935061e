#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "graph/operator.h"

namespace corvelle {

using NodeId = std::uint32_t;  ///< 0: none; never reused

enum class NodeEvaluation { Always = 0, ViewportOnly = 1, RenderOnly = 2 };
const char* nodeEvaluationName(NodeEvaluation evaluation);  ///< "always" for an unknown number
/// Throws GraphError "unknown evaluation '<value>' (always, viewportOnly or renderOnly)".
NodeEvaluation nodeEvaluationFromName(std::string_view name);

/// A Field or Curve node that feeds a param.
struct ParamInput {
    NodeId from = 0;
    std::size_t output = 0;
    std::optional<float> scale;  ///< absent: the param's own number
};

/// One result of a node, kept under the hash of all that made it.
struct NodeResult {
    std::uint64_t cachedHash = 0;
    std::uint64_t selfHash = 0;                      ///< the hash less the inputs and `affect`
    std::uint64_t affectHash = 0;
    std::uint64_t contextHash = 0;                   ///< what the operator said
    std::vector<std::uint64_t> inputHashes;          ///< what named each slot's value; 0 unused
    std::vector<NodeValue> outputs;                  ///< what goes on
    std::vector<NodeValue> rawOutputs;               ///< before the `affect` blend; empty when the same
    bool ran = false;                                ///< made by the operator, not passed through
    std::uint64_t previousHash = 0;                  ///< 0: changes are not known
    std::vector<StrandChangesPtr> changes;           ///< per output, against the outputs at previousHash
    std::vector<std::string> runWarnings;
    std::string runDetails;  ///< what the operator told of its run
    std::string statusText;
};

struct Node : NodeResult {
    NodeId id = 0;
    OperatorPtr op;
    std::vector<NodeId> inputNodes;          ///< one per input port; 0 unconnected
    std::vector<std::size_t> inputOutputs;
    std::map<std::string, ParamInput> paramInputs;
    std::map<std::string, std::vector<std::string>> paramControls;  ///< one control name, or three
    bool bypass = false;
    NodeEvaluation evaluation = NodeEvaluation::Always;
    std::string lastError;
    std::shared_ptr<const nlohmann::json> extra;  ///< keys of the node's JSON that are the hosts' own

    bool cached = false;              ///< the NodeResult of this node is good
    std::vector<NodeResult> earlier;  ///< newest first, so that going back costs nothing
    std::uint64_t runs = 0;
    static constexpr std::size_t kEarlierResults = 1;
};

/// The process-wide switches: incremental updates (on), and running the full path beside every
/// incremental one to compare them (off; on in tests).
void setIncrementalEvaluation(bool on);
bool incrementalEvaluation();
void setVerifyIncremental(bool on);
bool verifyIncremental();

/// A directed acyclic graph of operators. A node is out of date exactly when its hash (its type,
/// params, inputs and what it reads of the session) differs from the hash of its cached outputs.
/// Used from one thread at a time; parallelism lies inside operators. No walk recurses: a graph may
/// be as deep as memory allows.
class Graph {
public:
    Graph() = default;
    Graph(const Graph& other);  ///< a warm copy: caches and all
    Graph& operator=(const Graph& other);
    Graph(Graph&&) = default;
    Graph& operator=(Graph&&) = default;

    /// Throws GraphError "addNode: null operator".
    NodeId addNode(OperatorPtr op);
    void removeNode(NodeId id);  ///< its connections and the params it feeds go too
    /// Throws GraphError "<type> has no input slot <n>", "<type> has no output <n>", "type mismatch:
    /// <outType> -> <inType>" or "connection would create a cycle", checked in that order.
    /// With `cyclesLater` the last check is left to one `nodeOnCycle` after many connections.
    void connect(NodeId from, std::size_t output, NodeId to, std::size_t input,
                 bool cyclesLater = false);
    /// Throws GraphError for an unknown param, one that takes no input, or as `connect` does.
    void connectParam(NodeId from, std::size_t output, NodeId to, const std::string& param,
                      std::optional<float> scale, bool cyclesLater = false);
    NodeId nodeOnCycle() const;  ///< 0 for none
    void disconnect(NodeId to, std::size_t input);
    void setParam(NodeId id, const std::string& name, ParamValue value);
    const std::map<NodeId, Node>& nodes() const { return nodes_; }
    Node& node(NodeId id);  ///< throws GraphError "unknown node <id>"
    const Node& node(NodeId id) const;
    NodeId find(std::string_view name) const;    ///< 0 for none
    NodeId byName(std::string_view name) const;  ///< throws GraphError "unknown node '<name>'"
    NodeId output() const { return output_; }
    void setOutput(NodeId id) { output_ = id; }

    /// Evaluates a node and what it needs. Throws GraphError "node '<name>': ..."; nodes evaluated
    /// before keep their results. std::bad_alloc passes as it is.
    NodeValue evaluate(NodeId outputNode, const EvaluationData& data);

    /// Takes over ids, caches, state and reports of nodes of the same name and type. `renamed`: old
    /// name to new. The counters of nodes evaluated stay this graph's own.
    void adopt(const Graph& old, const std::map<std::string, std::string>& renamed = {});

    /// Visits the nodes that would run upstream of (and with) `id`, inputs and params, each once, as a
    /// viewport or a render evaluation would, and the nodes inside compounds; a false stops the walk
    /// and is returned.
    bool forEachActiveUpstream(NodeId id, bool render,
                               const std::function<bool(const Node&)>& visit) const;
    bool readsTime(NodeId id, bool render) const;
    /// Not bypassed, and not set to the other kind of evaluation.
    bool isActive(const Node& node, bool viewport) const;

    /// What changed at a node's first output from the outputs of hash `stamp` on: an empty list at the
    /// current hash, the known changes one step back, else null (unknown: all).
    StrandChangesPtr changesSince(NodeId id, std::uint64_t stamp) const;
    /// A node's cached strand channels without "_preview".
    std::vector<std::string> nodeChannels(NodeId id) const;

    std::uint64_t nodesEvaluated() const { return evaluated_; }
    std::uint64_t nodesIncremental() const { return incremental_; }
    const std::map<NodeId, double>& timings() const { return timings_; }         ///< ms, the last evaluation
    const std::map<NodeId, double>& runTimings() const { return runTimings_; }   ///< ms, the last real run
    const std::map<NodeId, std::string>& status() const { return status_; }
    const std::map<NodeId, std::string>& warnings() const { return warnings_; }
    /// Bytes of the distinct arrays of strands and guides that the caches hold.
    std::size_t cachedBytes() const;
    void setFramesPerSecond(double rate);

    /// Keys of the graph's JSON beside nodes, connections, output and version.
    std::shared_ptr<const nlohmann::json> extra;

private:
    struct Walk;
    friend struct Walk;
    /// The node gives its first input on, in this kind of evaluation.
    bool passes(const Node& node, bool viewport) const;
    bool reaches(NodeId from, NodeId target, bool leaveFirst = false) const;
    void applyControls(const EvaluationData& data);
    int growSegmentsFor(NodeId id, bool viewport) const;

    std::map<NodeId, Node> nodes_;
    NodeId nextId_ = 1;
    NodeId output_ = 0;
    std::uint64_t evaluated_ = 0;
    std::uint64_t incremental_ = 0;
    std::map<NodeId, double> timings_, runTimings_;
    std::map<NodeId, std::string> status_, warnings_;
    ContextHasher contextHasher_;
};

/// Makes a new operator of the same type with the same params and, unless `bare`, its caches.
OperatorPtr cloneOperator(const Operator& op, bool bare = false);

}  // namespace corvelle
