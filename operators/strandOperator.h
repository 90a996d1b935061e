#pragma once

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "graph/operator.h"
#include "operators/strandLoop.h"

namespace corvelle {

/// The arrays that a strand-local node writes. Everything else of its output is shared with its input.
struct WrittenArrays {
    bool points = false;
    bool widths = false;
    struct NamedChannel {
        std::string name;
        float defaultValue = 0.0f;
        bool discrete = false;
    };
    std::vector<NamedChannel> strandChannels, pointChannels;
};

/// Where a run writes: the output's own arrays, opened once, outside the parallel loop.
struct OpenArrays {
    std::span<Vec3f> points;
    std::span<float> widths;
    std::vector<std::span<float>> strandChannels, pointChannels;  ///< in the order of WrittenArrays
};

/// One run of a strand-local node with its params read and bound: pure per strand, so that the full
/// run and the incremental one share it and give the same bits.
class StrandWork {
public:
    virtual ~StrandWork() = default;
    virtual WrittenArrays writes() const = 0;
    /// Channels that the output must not carry on.
    virtual std::vector<std::string> removedPointChannels() const { return {}; }
    /// True when a strand's result depends on other strands: no incremental run then.
    virtual bool readsWholeSet() const { return false; }
    /// Before a run over all strands.
    virtual void beginFull(const StrandSet&) {}
    /// The order for a run over all strands, each of them once; empty: as they come. Speed alone
    /// depends on it.
    virtual std::span<const std::uint32_t> runOrder() const { return {}; }
    /// Before a run over some: the strands whose results may differ when those of the input differ
    /// that are listed (ascending, never all). Null when it cannot tell: a full run then.
    virtual StrandChangesPtr beginSome(const StrandSet&, const StrandChangesPtr& changed) {
        return changed;
    }
    /// The strands listed, at most StrandPick::kBatch of them. Must write every element of the written
    /// arrays that belongs to them. Called from several threads.
    virtual void run(const StrandSet& in, std::span<const std::uint32_t> strands, const OpenArrays& out) const = 0;
    /// After a full or incremental run, on the calling thread: warnings to raise.
    virtual std::string warning() const { return {}; }
};

/// A node that reshapes or colours each strand by itself and keeps the layout. Subclasses read their
/// params in `prepare`; evaluation, sharing and the incremental path are here.
class StrandOperator : public Operator {
public:
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) final;
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) final;

protected:
    /// Null when there is nothing to do: the input itself goes on. Whether it is null may depend on
    /// params, context and the set's layout, never on what the strands hold.
    virtual std::unique_ptr<StrandWork> prepare(const EvalContext& context, const NodeInputs& inputs,
                                                const StrandSet& strands) = 0;
    /// Adds the strands that read one of the `changed` strands of another input, in any order and
    /// as often as it comes; false when all may.
    virtual bool addReaders(const NodeInputs& /*inputs*/, std::size_t /*slot*/,
                            std::span<const std::uint32_t> /*changed*/,
                            std::vector<std::uint32_t>& /*strands*/) const {
        return false;
    }

private:
    /// The strands to run again; null when that cannot be told.
    StrandChangesPtr changedStrands(const NodeInputs& inputs, const UpdateRequest& request) const;
};

/// A strength as a field gave it, held to 0..1; what is no number is 0.
inline float clampShare(float x) { return x > 0.0f ? std::min(x, 1.0f) : 0.0f; }

/// The strands of a set in a flat list of the points of the listed strands: offsets into the list.
/// out[k] is where the points of strands[k] begin; returns the total.
std::size_t batchOffsets(const StrandSet& set, std::span<const std::uint32_t> strands, std::span<std::size_t> out);

}  // namespace corvelle
