#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "graph/operator.h"
#include "model/polyline.h"
#include "operators/curlLanes.h"
#include "operators/curlLines.h"
#include "operators/curlParams.h"
#include "operators/curlPoints.h"
#include "operators/curlShape.h"
#include "operators/nodeFactories.h"
#include "operators/pointArrays.h"
#include "operators/rootFrame.h"
#include "operators/strandLoop.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

constexpr float kCellsPerTurn = 8.0f;  ///< that a zigzag's turns are added up in, to find its kinks
constexpr float kMostCells = 8192.0f;

/// The params of a run, and the clumps that curl together in it.
struct CurlRun {
    CurlSettings settings;
    bool coil = false;
    float coilWidths = 3.0f;
    int perTurn = 0;  ///< segments asked for; 0: as they are
    std::size_t maxSegments = 256;
    const std::vector<float>* numbers = nullptr;  ///< of clumps, [strands]; null: each on its own
    CurlGroups groups;
    CurlLines lines;
    ScalpPtr scalp;
    bool idle = false;  ///< nothing is wound
};

/// The strands to wind and the groups they are in: of the whole set, or of some of it.
struct CurlLoad {
    const StrandSet& strands;
    FieldPtr radius;                       ///< bound to them; null for a coil
    std::span<const std::int32_t> groups;  ///< [strands]; empty: none
    std::int32_t groupOf(std::uint32_t s) const { return groups.empty() ? -1 : groups[s]; }
};

/// The radii of the points of a batch of strands, cm.
void sampleRadii(const CurlRun& run, const CurlLoad& load, std::span<const std::uint32_t> batch,
                 std::vector<float>& radii) {
    std::array<std::size_t, StrandPick::kBatch> starts;
    radii.resize(batchOffsets(load.strands, batch, starts));
    if (run.coil) {
        float* to = radii.data();
        const auto widths = load.strands.widths();
        const auto offsets = load.strands.offsets();
        for (const std::uint32_t s : batch)
            for (std::uint64_t p = offsets[s]; p < offsets[s + 1]; ++p)
                *to++ = run.coilWidths * widths[p];
    } else {
        load.radius->samplePoints(load.strands, batch, radii);
    }
    for (float& radius : radii) radius = radius > 0.0f && std::isfinite(radius) ? radius : 0.0f;
}

/// One strand before it is wound: how it turns, and where its points should be.
class CurlPlanner {
public:
    explicit CurlPlanner(const CurlRun& run) : run_(run) {}

    /// How many points the strand should have.
    std::size_t pointCount(const CurlLoad& load, std::uint32_t s) {
        const auto points = load.strands.pointsOf(s);
        if (points.size() < 2) return points.size();
        const std::int32_t group = load.groupOf(s);
        const float turns = group >= 0 ? run_.lines.turns(std::size_t(group)) : ownTurns(load, s);
        const std::size_t wanted = segmentsForTurns(turns, run_.perTurn, run_.maxSegments);
        if (points.size() - 1 >= wanted) return points.size();
        if (places(load, s, params_)) return params_.size();
        return wanted + 1;
    }

    /// Where a zigzag's points come to lie; false for other shapes, and for one with too many
    /// kinks.
    bool places(const CurlLoad& load, std::uint32_t s, std::vector<float>& params) {
        if (run_.settings.kind != CurlKind::Zigzag) return false;
        const auto points = load.strands.pointsOf(s);
        const std::int32_t group = load.groupOf(s);
        shares_.resize(points.size());
        const float length = polylineShares(points, shares_);
        float start = 0.0f;
        const auto tooMany = [&](float turns) { return !(2.0f * turns < float(run_.maxSegments)); };
        if (group >= 0) {
            const std::size_t g = std::size_t(group);
            if (tooMany(run_.lines.turns(g))) return false;
            start = run_.lines.draws(g).start;
            layCells(run_.lines.turns(g));
            for (std::size_t i = 0; i < cells_.size(); ++i)
                turns_[i] = run_.lines.turnsAt(g, cells_[i]);
        } else {
            const CurlDraws draws = curlDraws(run_.settings, load.strands.ids()[s]);
            if (tooMany(draws.frequency * length)) return false;
            start = draws.start;
            layCells(draws.frequency * length);
            integrateTurns(cells_, length, draws, run_.settings, scratch_, turns_);
        }
        zigzagPlaces(shares_, turns_, start, params);
        return params.size() - 1 <= std::max(run_.maxSegments, points.size() - 1);
    }

private:
    float ownTurns(const CurlLoad& load, std::uint32_t s) {
        const auto points = load.strands.pointsOf(s);
        const std::size_t n = points.size();
        shares_.resize(n);
        turns_.resize(n);
        scratch_.reserve(n);
        const float length = polylineShares(points, shares_);
        return integrateTurns(shares_, length, curlDraws(run_.settings, load.strands.ids()[s]),
                              run_.settings, scratch_, turns_);
    }
    /// Even shares, fine enough for so many turns.
    void layCells(float turns) {
        const float wanted = std::clamp(turns * kCellsPerTurn, 8.0f, kMostCells);
        const std::size_t count = std::isfinite(wanted) ? std::size_t(wanted) + 1 : 9;
        cells_.resize(count);
        turns_.resize(count);
        scratch_.reserve(count);
        for (std::size_t i = 0; i < count; ++i) cells_[i] = float(i) / float(count - 1);
    }

    const CurlRun& run_;
    CurlScratch scratch_;
    std::vector<float> shares_, turns_, cells_, params_;
};

/// How many points each strand of a pick should have; those that nothing winds keep theirs.
std::vector<std::uint64_t> wantedCounts(const CurlRun& run, const CurlLoad& load,
                                        const StrandPick& pick) {
    const StrandSet& in = load.strands;
    std::vector<std::uint64_t> counts(pick.size());
    pick.forEachBatchAt([&](std::size_t first, std::span<const std::uint32_t> batch) {
        CurlPlanner planner(run);
        std::vector<float> radii;
        bool sampled = false;
        std::size_t at = 0;
        for (std::size_t k = 0; k < batch.size(); ++k) {
            const std::uint32_t s = batch[k];
            const std::size_t n = in.pointCountOf(s);
            std::size_t wanted = run.perTurn > 0 ? planner.pointCount(load, s) : n;
            if (wanted != n) {
                if (!sampled) sampleRadii(run, load, batch, radii);
                sampled = true;
                const auto own = std::span(radii).subspan(at, n);
                if (std::ranges::none_of(own, [](float radius) { return radius > 0.0f; }))
                    wanted = n;
            }
            counts[first + k] = wanted;
            at += n;
        }
    });
    return counts;
}

/// Winds the strands of a pick.
void windStrands(const CurlRun& run, const CurlLoad& load, const StrandPick& pick,
                 std::span<Vec3f> out) {
    const StrandSet& in = load.strands;
    if (run.scalp) run.scalp->normals();  // made before the loop asks for them
    pick.forEachBatch([&](std::span<const std::uint32_t> batch) {
        std::vector<float> radii;
        sampleRadii(run, load, batch, radii);
        std::size_t most = 0, total = 0;
        bool even = true;
        struct Place {
            std::size_t count, k, at;  ///< points, place in the batch, first of `radii`
            auto operator<=>(const Place&) const = default;
        };
        std::array<Place, StrandPick::kBatch> places;
        for (std::size_t k = 0; k < batch.size(); ++k) {
            const std::size_t count = in.pointCountOf(batch[k]);
            places[k] = {count, k, total};
            even = even && count == places[0].count;
            most = std::max(most, count);
            total += count;
        }
        // Those of one point count are wound together.
        const std::span<Place> order = std::span(places).first(batch.size());
        if (!even) std::sort(order.begin(), order.end());
        CurlWinder winder(run.settings, most);
        for (const Place& place : order) {
            const std::uint32_t s = batch[place.k];
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.subspan(in.offsets()[s], points.size());
            const auto own = std::span<const float>(radii).subspan(place.at, points.size());
            if (points.size() < 2) {
                std::copy(points.begin(), points.end(), to.begin());
            } else if (const std::int32_t group = load.groupOf(s); group >= 0) {
                winder.windAlong(points, own, run.lines, std::size_t(group), to);
            } else {
                const RootFrame frame =
                    rootFrame(run.scalp.get(), in.roots()[s], firstDirection(points));
                winder.wind(points, own, frame.x, curlDraws(run.settings, in.ids()[s]), to);
            }
        }
        winder.finish();
    });
}

bool noWidths(const StrandSet& strands) {
    return !strands.widths().empty() &&
           std::ranges::all_of(strands.widths(), [](float width) { return width == 1.0f; });
}

class Curl final : public Operator {
public:
    std::string type() const override { return "Curl"; }
    std::string category() const override { return "look"; }
    std::string description() const override { return "Helical curls around each strand."; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> spec() const override { return curlParams(); }
    std::uint32_t contextReads() const override { return reads::kScalp; }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        CurlRun run = readRun(context, *strands);
        if (run.idle) return strands;
        std::vector<std::int32_t> groups;
        if (run.numbers) {
            run.groups = CurlGroups(*strands, *run.numbers);
            run.lines = CurlLines(*strands, run.groups, {}, run.scalp.get(), run.settings);
            groups = groupsOf(run, strands->strandCount());
        }
        const CurlLoad load{*strands, radiusOf(run, context, *strands), groups};
        const std::vector<std::uint64_t> counts =
            wantedCounts(run, load, StrandPick(strands->strandCount()));
        const std::size_t added = addedTo(*strands, counts);
        const StrandPick all(strands->strandCount());
        tell(run, *strands, added);
        if (added == 0) {
            auto out = std::make_shared<StrandSet>(*strands);  // shares every array until written
            windStrands(run, load, all, out->overwritePoints());
            return StrandsPtr(std::move(out));
        }
        return StrandsPtr(std::make_shared<StrandSet>(refinedAndWound(run, context, load, counts)));
    }

    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        if (request.ownChanged || request.inputs[0].kind == SlotChanges::Kind::Unknown)
            return false;
        const StrandsPtr strands = requireStrands(*this, inputs);
        StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
        if (!held || !*held || !std::ranges::equal((*held)->ids(), strands->ids())) return false;
        CurlRun run = readRun(context, *strands);
        auto changes = std::make_shared<StrandChanges>();
        if (request.inputs[0].changes) changes->strands = request.inputs[0].changes->strands;
        std::vector<std::uint32_t>& dirty = changes->strands;
        if (run.idle) {
            result.outputs = {strands};
            result.changes = {std::move(changes)};
            return true;
        }
        std::vector<std::int32_t> groups;
        if (run.numbers) {
            if (!sameClumps(**held, *strands, dirty)) return false;
            run.groups = CurlGroups(*strands, *run.numbers);
            addGroupsOf(run.groups, dirty);
            std::vector<std::uint8_t> wanted(run.groups.size(), 0);
            for (const std::uint32_t s : dirty)
                if (const std::int32_t g = run.groups.of(s); g >= 0) wanted[std::size_t(g)] = 1;
            run.lines = CurlLines(*strands, run.groups, wanted, run.scalp.get(), run.settings);
            groups = groupsOf(run, strands->strandCount());
        }
        const FieldPtr radius = radiusOf(run, context, *strands);
        if (radius && radius->readsWholeSet()) return false;
        return (*held)->sameLayout(*strands)
                   ? updateInPlace(run, {*strands, radius, groups}, *held, changes, strands, result)
                   : updateRefined(run, context, groups, *held, changes, strands, result);
    }

private:
    CurlRun readRun(const EvalContext& context, const StrandSet& strands) const;
    FieldPtr radiusOf(const CurlRun& run, const EvalContext& context, const StrandSet& set) const {
        return run.coil ? nullptr : fieldFromParam(*this, "radius", context, set);
    }
    static std::vector<std::int32_t> groupsOf(const CurlRun& run, std::size_t count) {
        std::vector<std::int32_t> out(count);
        for (std::size_t s = 0; s < count; ++s) out[s] = run.groups.of(s);
        return out;
    }
    static std::size_t addedTo(const StrandSet& in, std::span<const std::uint64_t> counts) {
        std::size_t added = 0;
        for (std::size_t s = 0; s < counts.size(); ++s) added += counts[s] != in.pointCountOf(s);
        return added;
    }
    void tell(const CurlRun& run, const StrandSet& strands, std::size_t added) const {
        if (run.coil && noWidths(strands))
            warn(
                "coil reads the strands' widths, and these have none set (1 everywhere): put a "
                "Width node before it");
        if (added > 0)
            warn("added points to " + std::to_string(added) +
                 (added == 1 ? " strand" : " strands") +
                 " too few a turn for the tolerance (more Resample segments keep the GPU preview)");
    }
    /// The strands with the points they want, wound.
    StrandSet refinedAndWound(const CurlRun& run, const EvalContext& context, const CurlLoad& load,
                              std::span<const std::uint64_t> counts) const {
        const StrandSet line = refinedStrands(load.strands, counts, [&]() -> PlacePoints {
            const auto planner = std::make_shared<CurlPlanner>(run);
            return [planner, &load](std::uint32_t s, std::vector<float>& params) {
                return planner->places(load, s, params);
            };
        });
        StrandSet out = line;
        windStrands(run, {line, radiusOf(run, context, line), load.groups},
                    StrandPick(line.strandCount()), out.overwritePoints());
        return out;
    }
    /// False when changed strands are in other clumps now, or are no longer in every preview.
    bool sameClumps(const StrandSet& before, const StrandSet& now,
                    std::span<const std::uint32_t> changed) const {
        for (const std::string& channel : {text("clumpChannel"), std::string("_preview")}) {
            const auto *a = before.strandChannel(channel), *b = now.strandChannel(channel);
            if (!a != !b) return false;
            for (const std::uint32_t s : changed)
                if (a &&
                    std::bit_cast<std::uint32_t>((*a)[s]) != std::bit_cast<std::uint32_t>((*b)[s]))
                    return false;
        }
        return true;
    }
    /// With a strand that a middle follows from, all of its clump change.
    static void addGroupsOf(const CurlGroups& groups, std::vector<std::uint32_t>& strands) {
        const std::vector<std::uint32_t> changed = strands;
        std::vector<std::uint8_t> seen(groups.size(), 0);
        for (const std::uint32_t s : changed) {
            if (!groups.isCore(s)) continue;
            const std::size_t group = std::size_t(groups.of(s));
            if (seen[group]) continue;
            seen[group] = 1;
            const auto members = groups.membersOf(group);
            strands.insert(strands.end(), members.begin(), members.end());
        }
        std::sort(strands.begin(), strands.end());
        strands.erase(std::unique(strands.begin(), strands.end()), strands.end());
    }

    bool updateInPlace(const CurlRun& run, const CurlLoad& load, StrandsPtr& held,
                       std::shared_ptr<StrandChanges> changes, const StrandsPtr& strands,
                       UpdateResult& result) const {
        const std::span<const std::uint32_t> dirty(changes->strands);
        const std::vector<std::uint64_t> counts = wantedCounts(run, load, StrandPick(dirty));
        for (std::size_t k = 0; k < dirty.size(); ++k)
            if (counts[k] != strands->pointCountOf(dirty[k])) return false;
        tell(run, *strands, 0);
        auto out = std::make_shared<StrandSet>(*strands);
        out->sharePoints(*held);
        held.reset();  // let go, so that arrays no one else holds are written in place
        windStrands(run, load, StrandPick(dirty), out->mutablePoints());
        result.outputs = {StrandsPtr(std::move(out))};
        result.changes = {std::move(changes)};
        return true;
    }

    /// The changed strands are refined and wound as a set of their own, and put in place.
    bool updateRefined(const CurlRun& run, const EvalContext& context,
                       std::span<const std::int32_t> groups, StrandsPtr& held,
                       std::shared_ptr<StrandChanges> changes, const StrandsPtr& strands,
                       UpdateResult& result) const {
        const std::span<const std::uint32_t> dirty(changes->strands);
        const StrandSet some = strands->subset(dirty);
        std::vector<std::int32_t> someGroups;
        if (!groups.empty())
            for (const std::uint32_t s : dirty) someGroups.push_back(groups[s]);
        const CurlLoad load{some, radiusOf(run, context, some), someGroups};
        const std::vector<std::uint64_t> counts = wantedCounts(run, load, StrandPick(dirty.size()));
        for (std::size_t k = 0; k < dirty.size(); ++k)
            if (counts[k] != held->pointCountOf(dirty[k])) return false;
        if (held->pointChannelNames() != strands->pointChannelNames()) return false;
        auto out = std::make_shared<StrandSet>(*held);
        if (!takeStrandData(*strands, *out)) return false;

        const StrandSet wound = refinedAndWound(run, context, load, counts);
        std::size_t added = 0;
        for (std::size_t s = 0; s < strands->strandCount(); ++s)
            added += held->pointCountOf(s) != strands->pointCountOf(s);
        tell(run, *strands, added);
        held.reset();
        const std::span<Vec3f> points = out->mutablePoints();
        const std::vector<PointArray> arrays = openPointArrays(wound, *out, false);
        StrandPick(dirty.size()).forEachBatch([&](std::span<const std::uint32_t> batch) {
            for (const std::uint32_t k : batch) {
                const auto from = wound.pointsOf(k);
                const std::size_t begin = wound.offsets()[k], to = out->offsets()[dirty[k]];
                std::copy(from.begin(), from.end(), points.begin() + std::ptrdiff_t(to));
                for (const PointArray& array : arrays)
                    std::copy_n(array.from + begin, from.size(), array.to + to);
            }
        });
        result.outputs = {StrandsPtr(std::move(out))};
        result.changes = {std::move(changes)};
        return true;
    }
};

CurlRun Curl::readRun(const EvalContext& context, const StrandSet& strands) const {
    CurlRun run;
    const std::string& shape = choice("shape");
    run.coil = shape == "coil";
    run.coilWidths = float(number("coilWidths"));
    run.settings = {.kind = shape == "wave"     ? CurlKind::Wave
                            : shape == "zigzag" ? CurlKind::Zigzag
                                                : CurlKind::Helix,
                    .frequency = float(number("frequency")),
                    .randomness = float(number("randomness")),
                    .spacingRandom = float(number("spacingRandom")),
                    .phase = float(number("phase")),
                    .phaseRandom = float(number("phaseRandom")),
                    .profile = ramp("profile"),
                    .frequencyProfile = ramp("frequencyProfile"),
                    .seed = seed()};
    run.perTurn = segmentsPerTurn(number("tolerance"));
    run.maxSegments = std::size_t(whole("maxSegments"));
    run.scalp = context.scalp();
    if (choice("coherence") == "clump") {
        const std::string& channel = text("clumpChannel");
        run.numbers = strands.strandChannel(channel);
        if (!run.numbers)
            throw GraphError("Curl: coherence clump needs a Clump before it (no '" + channel +
                             "' channel to find the clumps)");
    }
    const bool noRadius =
        run.coil ? run.coilWidths == 0.0f : !isMapped("radius") && number("radius") == 0.0;
    run.idle = noRadius || run.settings.frequency == 0.0f ||
               run.settings.profile.isConstant(0.0f) ||
               run.settings.frequencyProfile.isConstant(0.0f);
    return run;
}

}  // namespace

OperatorPtr makeCurl() { return std::make_unique<Curl>(); }

}  // namespace corvelle
