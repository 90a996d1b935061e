#include "operators/strandOperator.h"

#include <algorithm>

#include "graph/strandDiff.h"

namespace corvelle {

namespace {

/// Takes write access to what the work writes. `overwrite`: every element will be written.
OpenArrays openArrays(StrandSet& out, const WrittenArrays& writes, bool overwrite) {
    OpenArrays open;
    if (writes.points) open.points = overwrite ? out.overwritePoints() : out.mutablePoints();
    if (writes.widths) open.widths = overwrite ? out.overwriteWidths() : out.mutableWidths();
    for (const auto& channel : writes.strandChannels) {
        open.strandChannels.push_back(overwrite ? out.overwriteStrandChannel(channel.name, channel.defaultValue)
                                                : out.mutableStrandChannel(channel.name, channel.defaultValue));
        if (channel.discrete) out.setStrandChannelDiscrete(channel.name);
    }
    for (const auto& channel : writes.pointChannels) {
        open.pointChannels.push_back(overwrite ? out.overwritePointChannel(channel.name, channel.defaultValue)
                                               : out.mutablePointChannel(channel.name, channel.defaultValue));
        if (channel.discrete) out.setPointChannelDiscrete(channel.name);
    }
    return open;
}

/// Shares from `previous` just the arrays that the work writes; false when it lacks one.
bool shareWritten(StrandSet& out, const StrandSet& previous, const WrittenArrays& writes) {
    if (writes.points) out.sharePoints(previous);
    if (writes.widths) out.shareWidths(previous);
    return std::ranges::all_of(writes.strandChannels,
                               [&](const auto& c) { return out.copyStrandChannel(c.name, previous); }) &&
           std::ranges::all_of(writes.pointChannels,
                               [&](const auto& c) { return out.copyPointChannel(c.name, previous); });
}

}  // namespace

NodeValue StrandOperator::evaluate(const EvalContext& context, const NodeInputs& inputs) {
    const StrandsPtr strands = requireStrands(*this, inputs);
    const std::unique_ptr<StrandWork> work = prepare(context, inputs, *strands);
    if (!work) return strands;
    work->beginFull(*strands);
    auto out = std::make_shared<StrandSet>(*strands);  // shares every array until written
    for (const std::string& channel : work->removedPointChannels()) out->removePointChannel(channel);
    const OpenArrays open = openArrays(*out, work->writes(), true);
    const std::span<const std::uint32_t> order = work->runOrder();
    const StrandPick all = order.empty() ? StrandPick(strands->strandCount()) : StrandPick(order);
    all.forEachBatch(
        [&](std::span<const std::uint32_t> batch) { work->run(*strands, batch, open); });
    if (std::string text = work->warning(); !text.empty()) warn(std::move(text));
    return StrandsPtr(std::move(out));
}

StrandChangesPtr StrandOperator::changedStrands(const NodeInputs& inputs, const UpdateRequest& request) const {
    const SlotChanges& first = request.inputs[0];
    StrandChangesPtr changes = first.changes ? first.changes : noChanges();
    std::vector<std::uint32_t> readers;
    for (std::size_t slot = 1; slot < request.inputs.size(); ++slot) {
        const SlotChanges& other = request.inputs[slot];
        if (other.kind == SlotChanges::Kind::None) continue;
        if (!isList(other.changes) || !addReaders(inputs, slot, other.changes->strands, readers)) return nullptr;
    }
    if (readers.empty()) return changes;
    std::ranges::sort(readers);
    readers.erase(std::unique(readers.begin(), readers.end()), readers.end());
    auto more = std::make_shared<StrandChanges>();
    more->strands = std::move(readers);
    return unite(changes, more);
}

bool StrandOperator::update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                            UpdateResult& result) {
    if (request.ownChanged) return false;
    for (const SlotChanges& other : request.inputs)
        if (other.kind == SlotChanges::Kind::Unknown) return false;
    const StrandsPtr strands = requireStrands(*this, inputs);
    StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
    if (!held || !*held || !(*held)->sameLayout(*strands)) return false;
    StrandChangesPtr changes = changedStrands(inputs, request);
    if (!changes) return false;
    const std::unique_ptr<StrandWork> work = prepare(context, inputs, *strands);
    if (!work) {
        result.outputs = {strands};
        result.changes = {changes};
        return true;
    }
    if (work->readsWholeSet()) return false;
    changes = work->beginSome(*strands, changes);
    if (!changes) return false;

    auto out = std::make_shared<StrandSet>(*strands);
    const WrittenArrays writes = work->writes();
    for (const std::string& channel : work->removedPointChannels()) out->removePointChannel(channel);
    if (!shareWritten(*out, **held, writes)) return false;
    held->reset();  // let go, so that arrays no one else holds are written in place
    const OpenArrays open = openArrays(*out, writes, false);
    StrandPick(std::span<const std::uint32_t>(changes->strands))
        .forEachBatch([&](std::span<const std::uint32_t> batch) { work->run(*strands, batch, open); });
    if (std::string text = work->warning(); !text.empty()) warn(std::move(text));
    result.outputs = {StrandsPtr(std::move(out))};
    result.changes = {changes};
    return true;
}

std::size_t batchOffsets(const StrandSet& set, std::span<const std::uint32_t> strands, std::span<std::size_t> out) {
    std::size_t total = 0;
    for (std::size_t k = 0; k < strands.size(); ++k) {
        out[k] = total;
        total += set.pointCountOf(strands[k]);
    }
    return total;
}

}  // namespace corvelle
