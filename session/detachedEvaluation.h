#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "graph/graph.h"
#include "session/evaluationResult.h"

namespace corvelle {

/// An evaluation that runs on another thread while its session goes on: everything it needs, copied
/// or shared when it was started. Only `done` may be looked at before it is set.
struct DetachedEvaluation {
    Graph graph;
    EvaluationData data;
    EvaluateOptions options;
    std::uint64_t graphRevision = 0;
    std::shared_ptr<DetachedEvaluation> after;  ///< runs on its warm graph, when given

    StrandsPtr strands;
    double milliseconds = 0.0;
    std::uint64_t nodesEvaluated = 0, nodesIncremental = 0;  ///< of this and the ones before it
    std::exception_ptr failure;
    std::atomic<bool> done{false};  ///< set last of all
};

/// Evaluates; failures are kept in the record.
void runDetached(DetachedEvaluation& detached);

}  // namespace corvelle
