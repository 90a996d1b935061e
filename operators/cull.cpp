#include <algorithm>
#include <array>
#include <mutex>

#include "model/hash.h"
#include "operators/nodeFactories.h"
#include "operators/strandLoop.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "keep",
     .defaultValue = 1.0,
     .description = "Share of strands kept, 0-1 (mappable: paint thin or bald patches)",
     .unit = "fraction",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
};

using KeptList = std::shared_ptr<const std::vector<std::uint32_t>>;

/// Copies the values of strands `from` of one set to strands `to` of another where they differ; the
/// target is opened for writing only then. Per strand, or with offsets per point.
struct StrandCopier {
    std::span<const std::uint32_t> from, to;
    std::span<const std::uint64_t> fromOffsets, toOffsets;

    template <class T, class Open>
    void copy(std::span<const T> source, std::span<const T> target, bool perPoint,
              Open&& open) const {
        const auto range = [&](std::span<const std::uint64_t> offsets, std::uint32_t s) {
            return perPoint ? std::pair(std::size_t(offsets[s]), std::size_t(offsets[s + 1]))
                            : std::pair(std::size_t(s), std::size_t(s) + 1);
        };
        std::span<T> written;
        for (std::size_t k = 0; k < from.size(); ++k) {
            const auto [first, end] = range(fromOffsets, from[k]);
            const std::size_t at = range(toOffsets, to[k]).first;
            const std::span<const T> values = source.subspan(first, end - first);
            if (std::ranges::equal(std::as_bytes(values),
                                   std::as_bytes(target.subspan(at, values.size()))))
                continue;
            if (written.empty()) target = written = open();
            std::ranges::copy(values, written.begin() + std::ptrdiff_t(at));
        }
    }
};

/// Copies all of the listed strands of `in` to strands of `out`, of the same channels.
void copyChanged(const StrandSet& in, StrandSet& out, std::span<const std::uint32_t> from,
                 std::span<const std::uint32_t> to) {
    const StrandCopier copier{from, to, in.offsets(), out.offsets()};
    copier.copy(in.roots(), std::as_const(out).roots(), false, [&] { return out.mutableRoots(); });
    copier.copy(in.points(), std::as_const(out).points(), true,
                [&] { return out.mutablePoints(); });
    copier.copy(in.widths(), std::as_const(out).widths(), true,
                [&] { return out.mutableWidths(); });
    for (const StrandSet::Channels::value_type& c : in.strandChannels())
        copier.copy(c.second.values.span(), std::span<const float>(*out.strandChannel(c.first)),
                    false,
                    [&] { return out.mutableStrandChannel(c.first, c.second.defaultValue); });
    for (const StrandSet::Channels::value_type& c : in.pointChannels())
        copier.copy(c.second.values.span(), std::span<const float>(*out.pointChannel(c.first)),
                    true, [&] { return out.mutablePointChannel(c.first, c.second.defaultValue); });
}

class Cull final : public Operator {
public:
    std::string type() const override { return "Cull"; }
    std::string category() const override { return "shape"; }
    std::string description() const override { return "Thins strands out: bald or thin patches."; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> spec() const override { return kParams; }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        const FieldPtr keep = fieldFromParam(*this, "keep", context, *strands);
        if (keep->constant().value_or(0.0f) >= 1.0f) return strands;
        auto kept = std::make_shared<std::vector<std::uint32_t>>();
        const std::vector<std::uint8_t> picks =
            picksOf(*strands, *keep, StrandPick(strands->strandCount()));
        for (std::size_t s = 0; s < picks.size(); ++s)
            if (picks[s]) kept->push_back(std::uint32_t(s));
        remember(inputs.result, kept);
        if (kept->size() == strands->strandCount()) return strands;
        return std::make_shared<const StrandSet>(strands->subset(*kept));
    }

    /// While every changed strand stays, or stays away, as it was.
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        if (request.ownChanged || request.inputs[0].kind == SlotChanges::Kind::Unknown)
            return false;
        const StrandsPtr strands = requireStrands(*this, inputs);
        StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
        if (!held || !*held) return false;
        const FieldPtr keep = fieldFromParam(*this, "keep", context, *strands);
        const StrandChangesPtr changes = request.inputs[0].changes
                                             ? request.inputs[0].changes
                                             : std::make_shared<const StrandChanges>();
        if (keep->constant().value_or(0.0f) >= 1.0f) {
            result.outputs = {strands};
            result.changes = {changes};
            return true;
        }
        if (keep->readsWholeSet()) return false;
        const KeptList kept = heldList(request.previousResult);
        if (!kept) return false;
        const std::span<const std::uint32_t> changed(changes->strands);
        const std::vector<std::uint8_t> picks = picksOf(*strands, *keep, StrandPick(changed));
        std::vector<std::uint32_t> from, to;
        for (std::size_t k = 0; k < changed.size(); ++k) {
            const auto at = std::ranges::lower_bound(*kept, changed[k]);
            const bool was = at != kept->end() && *at == changed[k];
            if (was != bool(picks[k])) return false;
            if (!was) continue;
            from.push_back(changed[k]);
            to.push_back(std::uint32_t(at - kept->begin()));
        }
        if (kept->size() == strands->strandCount()) {
            result.outputs = {strands};
        } else {
            if ((*held)->strandChannelNames() != strands->strandChannelNames() ||
                (*held)->pointChannelNames() != strands->pointChannelNames())
                return false;
            auto out = std::make_shared<StrandSet>(**held);
            out->instances = strands->instances;
            out->cards = strands->cards;
            out->featherLayers = strands->featherLayers;
            held->reset();  // let go: arrays no one else holds are written in place
            copyChanged(*strands, *out, from, to);
            result.outputs = {StrandsPtr(std::move(out))};
        }
        auto stated = std::make_shared<StrandChanges>();
        stated->strands = std::move(to);
        result.changes = {std::move(stated)};
        remember(inputs.result, kept);
        return true;
    }

    void adoptState(const Operator& other) override {
        const auto* same = dynamic_cast<const Cull*>(&other);
        if (!same || same == this) return;
        const std::scoped_lock lock(mutex_, same->mutex_);
        keptOf_ = same->keptOf_;
        kept_ = same->kept_;
    }

private:
    /// For each strand of the pick, in its order: 1 kept, 0 culled.
    std::vector<std::uint8_t> picksOf(const StrandSet& strands, const FieldValue& keep,
                                      const StrandPick& pick) const {
        std::vector<std::uint8_t> picks(pick.size());
        const std::uint64_t base = drawBase(seed(), "Cull.keep");
        pick.forEachBatchAt([&](std::size_t first, std::span<const std::uint32_t> batch) {
            std::array<float, StrandPick::kBatch> shares;
            keep.sampleStrands(strands, batch, std::span(shares).first(batch.size()));
            for (std::size_t k = 0; k < batch.size(); ++k)
                picks[first + k] = draw(base, strands.ids()[batch[k]]) < shares[k];
        });
        return picks;
    }

    void remember(std::uint64_t result, KeptList kept) {
        const std::lock_guard lock(mutex_);
        keptOf_ = result;
        kept_ = std::move(kept);
    }
    KeptList heldList(std::uint64_t result) const {
        const std::lock_guard lock(mutex_);
        return result != 0 && keptOf_ == result ? kept_ : nullptr;
    }

    mutable std::mutex mutex_;
    std::uint64_t keptOf_ = 0;  ///< names the run's outcome
    KeptList kept_;             ///< ascending
};

}  // namespace

OperatorPtr makeCull() { return std::make_unique<Cull>(); }

}  // namespace corvelle
