#include "session/detachedEvaluation.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "session/groomSession.h"

namespace corvelle {

void runDetached(DetachedEvaluation& detached) {
    const auto start = std::chrono::steady_clock::now();
    try {
        std::uint64_t evaluatedBefore = 0, incrementalBefore = 0;
        // Let go of once it is taken over: a long chain of evaluations holds one graph, not all of them.
        if (const auto after = std::move(detached.after)) {
            const DetachedEvaluation& earlier = *after;
            if (!earlier.done.load(std::memory_order_acquire))
                throw std::logic_error("a detached evaluation ran before the one it follows");
            if (earlier.failure) std::rethrow_exception(earlier.failure);
            detached.graph = earlier.graph;
            evaluatedBefore = earlier.nodesEvaluated;
            incrementalBefore = earlier.nodesIncremental;
        }
        const std::uint64_t evaluated = detached.graph.nodesEvaluated();
        const std::uint64_t incremental = detached.graph.nodesIncremental();
        const NodeValue value = detached.graph.evaluate(detached.graph.output(), detached.data);
        if (const StrandsPtr* strands = std::get_if<StrandsPtr>(&value)) detached.strands = *strands;
        detached.nodesEvaluated = evaluatedBefore + detached.graph.nodesEvaluated() - evaluated;
        detached.nodesIncremental = incrementalBefore + detached.graph.nodesIncremental() - incremental;
    } catch (...) {
        detached.failure = std::current_exception();
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    detached.milliseconds = double(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) / 1e6;
    detached.done.store(true, std::memory_order_release);
}

std::shared_ptr<DetachedEvaluation> GroomSession::startDetachedEvaluation(const EvaluateOptions& options,
                                                                          std::shared_ptr<DetachedEvaluation> after) {
    if (!graph_ || live_.hierarchy || stroking_ || !options.viewNode.empty()) return nullptr;
    if (after && after->graphRevision != graphRevision_) return nullptr;
    auto detached = std::make_shared<DetachedEvaluation>();
    std::vector<EvaluationMessage> messages;  // shown by the next evaluation
    advanceTo(options.seconds, messages);
    pendingMessages_ = std::move(messages);
    fillData(options, options.density);
    if (!after) detached->graph = *graph_;
    detached->data = data_;
    detached->options = options;
    detached->graphRevision = graphRevision_;
    detached->after = std::move(after);
    return detached;
}

bool GroomSession::adoptDetached(const std::shared_ptr<DetachedEvaluation>& detached) {
    if (!detached || !detached->done.load(std::memory_order_acquire)) return false;
    if (detached->failure) std::rethrow_exception(detached->failure);
    if (!graph_ || detached->graphRevision != graphRevision_) return false;
    // The warm graph takes the place of the session's: the next evaluation finds every node cached.
    const std::uint64_t evaluated = graph_->nodesEvaluated();
    const std::uint64_t incremental = graph_->nodesIncremental();
    dropSculptGraph();
    graph_ = detached->graph;
    graph_->setFramesPerSecond(document_.framesPerSecond);  // it may have changed meanwhile
    retiredEvaluated_ += evaluated + detached->nodesEvaluated - graph_->nodesEvaluated();
    retiredIncremental_ += incremental + detached->nodesIncremental - graph_->nodesIncremental();
    evaluate(detached->options);
    return true;
}

}  // namespace corvelle
