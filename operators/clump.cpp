#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <mutex>
#include <numbers>
#include <optional>

#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/simd4.h"
#include "operators/clumpAxes.h"
#include "operators/clumpGather.h"
#include "operators/clumpParams.h"
#include "operators/clumpPull.h"
#include "operators/nodeFactories.h"
#include "operators/paramIdentity.h"
#include "operators/previewStrands.h"
#include "operators/strandLoop.h"

namespace corvelle {

namespace {

constexpr std::uint64_t kStrengthRandom = hashOf("Clump.strengthRandom");
constexpr std::uint64_t kLockRandom = hashOf("Clump.lockRadiusRandom");
constexpr std::uint64_t kTurn = hashOf("Clump.flatten");

constexpr const char* kIgnoredText =
    "centers are connected but centersFrom is pick (it picks its own): set centersFrom to "
    "inputPoints or inputCurves to clump by them";
constexpr const char* kPartsText =
    "parts the strands around the strands nearest its centers (centersFrom inputPoints); "
    "inputCurves parts them around the center curves themselves (whiskers, horns)";

bool sameBits(Vec3f a, Vec3f b) {
    const auto bits = [](float x) { return std::bit_cast<std::uint32_t>(x); };
    return bits(a.x) == bits(b.x) && bits(a.y) == bits(b.y) && bits(a.z) == bits(b.z);
}

using GatheredPtr = std::shared_ptr<const GatheredClumps>;

/// What is kept from run to run: the picked centers, and the clumps round them.
struct ClumpCache {
    std::uint64_t pickKey = 0;
    std::shared_ptr<const std::vector<std::uint32_t>> picked;
    ParamIdentity weight;
    std::uint64_t settingsKey = 0, rootsKey = 0;  ///< of `gathered`
    GatheredPtr gathered;
    std::uint64_t strandsName = 0,
                  centersName = 0;  ///< the graph's, of the inputs it was made from
};

/// The params and inputs of one run.
struct ClumpRun {
    StrandsPtr strands;
    NodeValue centers;
    CentersFrom from = CentersFrom::Pick;
    ClumpPickSettings pick;
    FieldPtr weight;  ///< of centers; null unless they are picked
    ParamIdentity weightIdentity;
    const std::vector<float>* regions = nullptr;
    std::string regionChannel;  ///< empty where `regions` is null
    std::shared_ptr<const PartLines> parts;
    ScalpPtr scalp;
    std::uint64_t strandsName = 0, centersName = 0;
    std::uint64_t settingsKey = 0;  ///< of all of the above but what the strands and curves hold
};

/// How the strands are deformed.
struct ClumpShape {
    FieldPtr strength, volumize;
    PullSettings pull;
    AxisSettings axes;
    float lockRadius = 0.0f, lockRandom = 0.0f, strengthRandom = 0.0f;
    float copyAmount = 0.0f;
    std::size_t copyNeighbors = 1;
    std::uint64_t seed = 0;
    std::string channel;
    bool moves = true;  ///< some point may move
};

class Clump final : public Operator {
public:
    std::string type() const override { return "Clump"; }
    std::string category() const override { return "look"; }
    std::string description() const override {
        return "Pulls strands toward their clump's center (or into round locks; Twist after it for "
               "ropes).";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"centers", PortType::Curves, true}};
    }
    std::vector<ParamSpec> spec() const override { return clumpParams(); }
    std::uint32_t contextReads() const override { return reads::kScalp | reads::kParts; }
    bool verifyOnClone() const override { return true; }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override;
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override;
    void adoptState(const Operator& other) override {
        const auto* from = dynamic_cast<const Clump*>(&other);
        if (!from || from == this) return;
        const std::scoped_lock lock(mutex_, from->mutex_);
        cache_ = from->cache_;
    }

private:
    CentersFrom centersFrom() const;
    ClumpRun readRun(const EvalContext& context, const NodeInputs& inputs,
                     StrandsPtr strands) const;
    ClumpShape readShape(const EvalContext& context, const StrandSet& strands) const;
    std::shared_ptr<const std::vector<std::uint32_t>> picked(const ClumpRun& run,
                                                             std::span<const std::uint32_t> core,
                                                             std::uint64_t rootsKey,
                                                             ClumpCache& cache) const;
    GatheredPtr gather(const ClumpRun& run);
    GatheredPtr gatheredBefore(const ClumpRun& run, const UpdateRequest& request,
                               const StrandSet& before, std::span<const std::uint32_t> changed,
                               const CenterCurves& curves);
    void pullAll(const ClumpRun& run, const ClumpShape& shape, const GatheredClumps& clumps,
                 const StrandPick& pick, std::span<Vec3f> out) const;
    void tellOfParting(CentersFrom from) const;

    mutable std::mutex mutex_;
    ClumpCache cache_;
};

CentersFrom Clump::centersFrom() const {
    const std::string& word = text("centersFrom");
    if (word == "pick") return CentersFrom::Pick;
    if (word == "inputPoints") return CentersFrom::InputPoints;
    if (word == "inputCurves") return CentersFrom::InputCurves;
    throw GraphError("Clump: unknown centersFrom '" + word +
                     "' (pick, inputPoints or inputCurves)");
}

ClumpRun Clump::readRun(const EvalContext& context, const NodeInputs& inputs,
                        StrandsPtr strands) const {
    ClumpRun run{.strands = std::move(strands), .from = centersFrom()};
    run.scalp = context.scalp();
    const auto nameOf = [&](std::size_t slot) {
        return slot < inputs.hashes.size() ? inputs.hashes[slot] : 0;
    };
    run.strandsName = nameOf(0);
    std::uint64_t key = hashCombine(mix64(std::uint64_t(run.from)), boolean("respectParts"));
    if (run.from == CentersFrom::Pick) {
        run.pick = {.bySize = choice("clumpBy") == "size",
                    .count = double(whole("count")),
                    .size = number("size"),
                    .randomness = float(number("randomness")),
                    .seed = seed()};
        run.weight = fieldFromParam(*this, "centerWeight", context, *run.strands);
        run.weightIdentity = identityOf(*this, "centerWeight", context);
        key = hashCombine(hashCombine(key, run.pick.bySize),
                          run.pick.bySize ? run.pick.size : run.pick.count);
        key = hashCombine(hashCombine(key, run.pick.randomness), run.pick.seed);
        key = hashCombine(key, run.weightIdentity.hash);
        if (run.scalp)
            key = hashCombine(
                key, run.weight->constant() ? run.scalp->contentHash() : run.scalp->fullHash());
    } else {
        run.centers = inputs.values[1];
        run.centersName = nameOf(1);
    }
    if (const std::string& channel = text("regionChannel"); !channel.empty()) {
        run.regions = run.strands->strandChannel(channel);
        if (run.regions) run.regionChannel = channel;
        key = hashCombine(key, run.regionChannel);
    }
    if (boolean("respectParts") && context.parts() && !context.parts()->empty()) {
        run.parts = context.parts();
        key = hashCombine(key, run.parts->hash());
    }
    run.settingsKey = key;
    return run;
}

ClumpShape Clump::readShape(const EvalContext& context, const StrandSet& strands) const {
    ClumpShape shape;
    shape.strength = fieldFromParam(*this, "strength", context, strands);
    shape.volumize = fieldFromParam(*this, "volumize", context, strands);
    shape.pull = {.profile = ramp("profile"),
                  .volumizeProfile = ramp("volumizeProfile"),
                  .repelRadius = float(number("repelRadius")),
                  .flatness = float(number("flatness"))};
    shape.lockRadius = float(number("lockRadius"));
    shape.lockRandom = float(number("lockRadiusRandom"));
    shape.strengthRandom = float(number("strengthRandom"));
    shape.pull.lock = shape.lockRadius > 0.0f;
    const std::string& flatten = choice("flatten");
    shape.axes = {.extend = choice("pastTip") == "extend", .frames = shape.pull.lock};
    if (shape.pull.flatness > 0.0f)
        shape.axes.flatten = flatten == "surface"  ? FlattenMode::Surface
                             : flatten == "random" ? FlattenMode::Random
                                                   : FlattenMode::Direction;
    shape.axes.flattenDirection = normalized(vec3("flattenDirection"));
    shape.copyAmount = float(number("copyAmount"));
    shape.copyNeighbors = std::size_t(whole("copyNeighbors"));
    shape.seed = seed();
    shape.channel = text("clumpChannel");
    const bool pulls = shape.strength->constant() != 0.0f && !shape.pull.profile.isConstant(0.0f);
    const bool volumizes =
        shape.volumize->constant() != 0.0f && !shape.pull.volumizeProfile.isConstant(0.0f);
    shape.moves = pulls || volumizes;
    return shape;
}

// --- Centers and clumps --------------------------------------------------------------------------

std::uint64_t channelHash(const std::vector<float>* values) {
    return values ? hashFloatBits(mix64(values->size()), values->data(), values->size()) : 0;
}

/// The centers, from the cache where nothing that they follow from has changed.
std::shared_ptr<const std::vector<std::uint32_t>> Clump::picked(const ClumpRun& run,
                                                                std::span<const std::uint32_t> core,
                                                                std::uint64_t rootsKey,
                                                                ClumpCache& cache) const {
    std::uint64_t key = hashCombine(rootsKey, run.pick.bySize);
    key = hashCombine(key, run.pick.bySize ? run.pick.size : run.pick.count);
    key = hashCombine(hashCombine(key, run.pick.randomness), run.pick.seed);
    key = hashCombine(key, run.scalp ? run.scalp->contentHash() : 0);
    const bool readsSet = run.weight->readsSet();
    if (!run.weight->constant()) {
        key = hashCombine(key, run.scalp ? run.scalp->fullHash() : 0);
        if (readsSet) key = hashCombine(key, run.strandsName);
    }
    const bool named = !readsSet || run.strandsName != 0;
    if (named && cache.picked && cache.pickKey == key && cache.weight == run.weightIdentity)
        return cache.picked;

    CenterWeights weights;
    if (const auto constant = run.weight->constant()) {
        weights.constant = *constant;
    } else {
        weights.strands.resize(run.strands->strandCount());
        StrandPick(run.strands->strandCount())
            .forEachBatch([&](std::span<const std::uint32_t> batch) {
                run.weight->sampleStrands(
                    *run.strands, batch,
                    std::span(weights.strands).subspan(batch[0], batch.size()));
            });
        if (run.weight->worksAtPosition() && !readsSet)
            weights.places = [&](std::span<const StrandRoot> roots,
                                 std::span<const Vec3f> positions, std::span<float> out) {
                run.weight->sampleRoots(roots, positions, out);
            };
    }
    auto made = std::make_shared<const std::vector<std::uint32_t>>(
        pickClumpCenters(*run.strands, core, run.scalp.get(), run.pick, weights));
    cache.pickKey = key;
    cache.weight = run.weightIdentity;
    cache.picked = made;
    return made;
}

GatheredPtr Clump::gather(const ClumpRun& run) {
    ClumpCache cache;
    {
        const std::lock_guard lock(mutex_);
        cache = cache_;
    }
    const bool sameSettings = cache.gathered && cache.settingsKey == run.settingsKey &&
                              cache.weight == run.weightIdentity;
    if (sameSettings && run.strandsName != 0 && cache.strandsName == run.strandsName &&
        cache.centersName == run.centersName)
        return cache.gathered;

    std::vector<std::uint32_t> index;
    CenterCurves curves;
    if (run.from != CentersFrom::Pick)
        curves = centerCurves(run.centers, run.from, run.regionChannel, index);
    const StrandSet& strands = *run.strands;
    const std::uint64_t roots =
        hashCombine(strandRootsHash(strands), channelHash(strands.strandChannel("_preview")));
    std::uint64_t key = hashCombine(roots, channelHash(run.regions));
    key = hashCombine(key, curves.rootsHash());
    if (run.weight && run.weight->readsSet()) key = hashCombine(key, run.strandsName);
    const bool named = !run.weight || !run.weight->readsSet() || run.strandsName != 0;
    if (!(sameSettings && named && cache.rootsKey == key)) {
        const std::vector<std::uint32_t> core = previewStrands(strands);
        const GatherSource source{.strands = strands,
                                  .core = core,
                                  .strandRegions = run.regions,
                                  .parts = run.parts.get()};
        if (run.from == CentersFrom::Pick) {
            const auto centers = picked(run, core, roots, cache);
            cache.gathered =
                std::make_shared<const GatheredClumps>(gatherAroundStrands(source, *centers));
        } else {
            cache.weight = {};
            cache.gathered = std::make_shared<const GatheredClumps>(
                gatherAroundCurves(source, curves, index, run.from == CentersFrom::InputCurves));
        }
    }
    cache.settingsKey = run.settingsKey;
    cache.rootsKey = key;
    cache.strandsName = run.strandsName;
    cache.centersName = run.centersName;
    const std::lock_guard lock(mutex_);
    cache_ = cache;
    return cache.gathered;
}

/// The clumps that `before` was made with, if the changed strands and curves leave them as they
/// are; else null.
GatheredPtr Clump::gatheredBefore(const ClumpRun& run, const UpdateRequest& request,
                                  const StrandSet& before, std::span<const std::uint32_t> changed,
                                  const CenterCurves& curves) {
    const std::lock_guard lock(mutex_);
    const bool picks = run.from == CentersFrom::Pick;
    if (!cache_.gathered || cache_.settingsKey != run.settingsKey ||
        !(cache_.weight == run.weightIdentity) || cache_.strandsName == 0 ||
        cache_.strandsName != request.inputs[0].previousHash ||
        (!picks && (cache_.centersName != request.inputs[1].previousHash ||
                    cache_.gathered->centersHash != curves.rootsHash())))
        return nullptr;
    // This node moves no root, and carries on the channels that it reads.
    const StrandSet& now = *run.strands;
    for (const char* channel : {"_preview", run.regionChannel.c_str()}) {
        if (!*channel) continue;
        const std::vector<float>*a = before.strandChannel(channel), *b = now.strandChannel(channel);
        if (!a != !b) return nullptr;
        for (const std::uint32_t s : changed)
            if (a && std::bit_cast<std::uint32_t>((*a)[s]) != std::bit_cast<std::uint32_t>((*b)[s]))
                return nullptr;
    }
    for (const std::uint32_t s : changed) {
        const auto from = before.pointsOf(s), to = now.pointsOf(s);
        if (!(before.roots()[s] == now.roots()[s]) ||
            (!from.empty() && !sameBits(from.front(), to.front())))
            return nullptr;
    }
    cache_.strandsName = run.strandsName;
    cache_.centersName = run.centersName;
    // What these roots hash to has not been worked out, but is what it was.
    return cache_.gathered;
}

// --- Strands -------------------------------------------------------------------------------------

/// The axes of the clumps that some strands follow.
struct NeededAxes {
    std::vector<std::int32_t> slot;    ///< [clumps], -1 for one that is not needed
    std::vector<std::uint32_t> clump;  ///< [needed]
    std::vector<AxisCurve> curves;     ///< [needed]
};

NeededAxes neededAxes(const GatheredClumps& clumps, const StrandPick& pick,
                      std::span<const std::uint32_t> listed) {
    NeededAxes out;
    std::vector<std::uint8_t> wanted(clumps.centers.size(), pick.listed() ? 0 : 1);
    for (const std::uint32_t s : listed)
        if (const std::int32_t c = clumps.binding.clumpOf[s]; c >= 0) wanted[std::size_t(c)] = 1;
    out.slot.assign(wanted.size(), -1);
    for (std::size_t c = 0; c < wanted.size(); ++c) {
        if (!wanted[c] || clumps.axis[c] < 0) continue;
        out.slot[c] = std::int32_t(out.clump.size());
        out.clump.push_back(std::uint32_t(c));
    }
    return out;
}

/// Points and roots of whatever axes come from.
struct AxisSource {
    const StrandSet* strands = nullptr;
    const GuideSet* guides = nullptr;
    std::span<const Vec3f> points(std::size_t i) const {
        return strands ? strands->pointsOf(i) : guides->pointsOf(i);
    }
    const StrandRoot& root(std::size_t i) const {
        return strands ? strands->roots()[i] : guides->roots()[i];
    }
};

AxisSource axisSource(const ClumpRun& run) {
    if (run.from != CentersFrom::InputCurves) return {.strands = run.strands.get()};
    if (const auto* strands = std::get_if<StrandsPtr>(&run.centers))
        return {.strands = strands->get()};
    return {.guides = std::get<GuidesPtr>(run.centers).get()};
}

/// The strands of a batch that are only pulled.
class PlainBatch {
public:
    void add(std::uint32_t strand, std::uint32_t axis, float strength) {
        strands_[count_] = strand;
        axes_[count_] = axis;
        strengths_[count_++] = strength;
    }
    /// In an order in which those of one axis stand together, mostly: by the axes' last bits.
    void pull(const PlainPull& plain, const StrandSet& in, std::span<Vec3f> out) const {
        if (count_ == 0) return;
        std::array<std::uint32_t, kBuckets + 1> starts{};
        for (std::size_t k = 0; k < count_; ++k) ++starts[axes_[k] % kBuckets + 1];
        for (std::size_t b = 0; b < kBuckets; ++b) starts[b + 1] += starts[b];
        PlainBatch sorted;
        for (std::size_t k = 0; k < count_; ++k) {
            // Here they come one after the other; below in an order that no cache foresees.
            const std::span<const Vec3f> points = in.pointsOf(strands_[k]);
            prefetch(points.data(), points.size());
            const std::size_t to = starts[axes_[k] % kBuckets]++;
            sorted.strands_[to] = strands_[k];
            sorted.axes_[to] = axes_[k];
            sorted.strengths_[to] = strengths_[k];
        }
        plain.pull(in, std::span(sorted.strands_).first(count_),
                   std::span(sorted.axes_).first(count_),
                   std::span(sorted.strengths_).first(count_), out);
    }

private:
    static constexpr std::size_t kBuckets = 128;
    std::array<std::uint32_t, StrandPick::kBatch> strands_, axes_;
    std::array<float, StrandPick::kBatch> strengths_;
    std::size_t count_ = 0;
};

void Clump::pullAll(const ClumpRun& run, const ClumpShape& shape, const GatheredClumps& clumps,
                    const StrandPick& pick, std::span<Vec3f> out) const {
    const StrandSet& in = *run.strands;
    NeededAxes needed = neededAxes(clumps, pick, pick.list());
    const std::size_t count = needed.clump.size();
    const AxisSource source = axisSource(run);
    const ScalpMesh* scalp = run.scalp.get();
    const bool framed = shape.axes.frames || shape.axes.flatten != FlattenMode::None;
    if (framed && scalp) scalp->normals();  // made before the loop asks for them
    const std::uint64_t turnBase = drawBase(shape.seed, kTurn);
    needed.curves.resize(count);
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t a = begin; a < end; ++a) {
            const std::size_t c = needed.clump[a], from = std::size_t(clumps.axis[c]);
            AxisCurve& curve = needed.curves[a];
            curve.points = source.points(from);
            if (!framed) continue;
            curve.frame = rootFrame(scalp, source.root(from), firstDirection(curve.points));
            curve.turn = 2.0f * std::numbers::pi_v<float> * draw(turnBase, clumps.centers.ids[c]);
        }
    });
    std::vector<std::vector<Vec3f>> copied;
    if (shape.copyAmount > 0.0f) {
        copied.resize(count);
        const ClumpFinder finder(clumps.centers, run.parts.get());
        parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
            std::vector<std::uint32_t> near(shape.copyNeighbors);
            std::vector<std::span<const Vec3f>> others;
            for (std::size_t a = begin; a < end; ++a) {
                others.clear();
                const std::size_t found = finder.neighborsOf(needed.clump[a], near);
                for (std::size_t k = 0; k < found; ++k)
                    if (const std::int64_t axis = clumps.axis[near[k]]; axis >= 0)
                        others.push_back(source.points(std::size_t(axis)));
                if (others.empty()) continue;
                copied[a].resize(needed.curves[a].points.size());
                copyShapes(needed.curves[a].points, others, shape.copyAmount, copied[a]);
            }
        });
        for (std::size_t a = 0; a < count; ++a)
            if (!copied[a].empty()) needed.curves[a].points = copied[a];
    }
    const ClumpAxes axes(needed.curves, shape.axes);
    const PlainPull plain(axes, shape.pull);
    std::vector<float> clumpStrengths(count, 1.0f);
    if (shape.strengthRandom > 0.0f) {
        const std::uint64_t base = drawBase(shape.seed, kStrengthRandom);
        for (std::size_t a = 0; a < count; ++a)
            clumpStrengths[a] -=
                shape.strengthRandom * draw(base, clumps.centers.ids[needed.clump[a]]);
    }

    const std::uint64_t lockBase = drawBase(shape.seed, kLockRandom);
    const bool perPoint = shape.strength->perPoint(), plainBatch = plain.fits() && !perPoint;
    pick.forEachBatch([&](std::span<const std::uint32_t> batch) {
        std::array<float, StrandPick::kBatch> strengths, volumes;
        std::size_t total = 0;  // points
        if (perPoint)
            for (const std::uint32_t s : batch) total += in.pointCountOf(s);
        std::vector<float> pointStrengths(total);
        if (perPoint)
            shape.strength->samplePoints(in, batch, pointStrengths);
        else
            shape.strength->sampleStrands(in, batch, std::span(strengths).first(batch.size()));
        shape.volumize->sampleStrands(in, batch, std::span(volumes).first(batch.size()));

        PlainBatch alike;
        std::optional<StrandPuller> puller;
        std::size_t at = 0;
        for (std::size_t k = 0; k < batch.size(); ++k) {
            const std::size_t s = batch[k];
            const std::int32_t c = clumps.binding.clumpOf[s];
            const std::int32_t axis = c >= 0 ? needed.slot[std::size_t(c)] : -1;
            const float volume = std::isfinite(volumes[k]) ? volumes[k] : 0.0f;
            if (plainBatch && axis >= 0) {  // mostly
                const float strength = strengths[k] * clumpStrengths[std::size_t(axis)];
                if (PlainPull::takes(strength, volume, in.pointCountOf(s))) {
                    alike.add(std::uint32_t(s), std::uint32_t(axis), strength);
                    continue;
                }
            }
            const auto points = in.pointsOf(s);
            const std::span<Vec3f> to = out.subspan(in.offsets()[s], points.size());
            const std::span<const float> own =
                perPoint ? std::span(pointStrengths).subspan(at, points.size())
                         : std::span<const float>();
            at += points.size();
            if (axis < 0) {
                std::copy(points.begin(), points.end(), to.begin());
                continue;
            }
            ClumpMember member{.points = points,
                               .strength = perPoint ? 0.0f : strengths[k],
                               .strengths = own,
                               .clumpStrength = clumpStrengths[std::size_t(axis)],
                               .volumize = volume};
            if (shape.pull.lock) {
                const AxisCurve& curve = needed.curves[std::size_t(axis)];
                const Vec3f offset = points.front() - curve.points.front();
                const float x = dot(offset, curve.frame.x), z = dot(offset, curve.frame.z);
                const float far = length(offset), flat = std::sqrt(x * x + z * z);
                const float reach = clumps.binding.reach[std::size_t(c)];
                const float share = far < reach ? far / reach : far > 0.0f ? 1.0f : 0.0f;
                const std::uint64_t id = clumps.centers.ids[std::size_t(c)];
                const float radius =
                    shape.lockRadius * (1.0f + shape.lockRandom * drawSigned(lockBase, id));
                const float scale = flat > 0.0f ? share * radius / flat : 0.0f;
                member.lockX = x * scale;
                member.lockZ = z * scale;
            }
            if (!puller) {
                std::size_t most = 0;
                for (const std::uint32_t each : batch) most = std::max(most, in.pointCountOf(each));
                puller.emplace(axes, shape.pull, most);
            }
            puller->pull(member, std::size_t(axis), to);
        }
        alike.pull(plain, in, out);
    });
}

/// How a negative strength parts the strands.
void Clump::tellOfParting(CentersFrom from) const {
    const bool pushes = !isMapped("strength") && number("strength") < 0.0;
    if (pushes && from == CentersFrom::InputPoints) tell(kPartsText);
}

NodeValue Clump::evaluate(const EvalContext& context, const NodeInputs& inputs) {
    const StrandsPtr strands = requireStrands(*this, inputs);
    const CentersFrom from = centersFrom();
    tellOfParting(from);
    if (from == CentersFrom::Pick && inputs.isConnected(1)) warn(kIgnoredText);
    if (from != CentersFrom::Pick && !inputs.isConnected(1)) {
        warn(
            "no clumps: connect centers (guides or strands) or set centersFrom to pick; the "
            "strands "
            "pass through");
        return strands;
    }
    const ClumpRun run = readRun(context, inputs, strands);
    const ClumpShape shape = readShape(context, *strands);
    const GatheredPtr clumps = gather(run);
    if (clumps->centers.size() == 0) {
        warn(
            "no clumps: set a count or size above 0 (or centersFrom inputPoints with centers "
            "connected); the strands pass through");
        return strands;
    }
    if (!shape.moves && shape.channel.empty()) return strands;
    auto out = std::make_shared<StrandSet>(*strands);  // shares every array until written
    if (shape.moves)
        pullAll(run, shape, *clumps, StrandPick(strands->strandCount()), out->overwritePoints());
    if (!shape.channel.empty()) {
        const std::span<float> numbers = out->overwriteStrandChannel(shape.channel, -1.0f);
        out->setStrandChannelDiscrete(shape.channel);
        for (std::size_t s = 0; s < numbers.size(); ++s) {
            const std::int32_t c = clumps->binding.clumpOf[s];
            numbers[s] = c >= 0 ? clumps->numbers[std::size_t(c)] : -1.0f;
        }
    }
    return StrandsPtr(std::move(out));
}

bool Clump::update(const EvalContext& context, const NodeInputs& inputs,
                   const UpdateRequest& request, UpdateResult& result) {
    if (request.ownChanged) return false;
    for (const SlotChanges& slot : request.inputs)
        if (slot.kind == SlotChanges::Kind::Unknown) return false;
    const StrandsPtr strands = requireStrands(*this, inputs);
    StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
    const CentersFrom from = centersFrom();
    if (!held || !*held || !(*held)->sameLayout(*strands)) return false;
    if (from != CentersFrom::Pick && !inputs.isConnected(1)) return false;
    const ClumpRun run = readRun(context, inputs, strands);
    const ClumpShape shape = readShape(context, *strands);
    if (shape.strength->readsWholeSet() || shape.volumize->readsWholeSet() ||
        (run.weight && run.weight->readsSet()) ||
        (!shape.channel.empty() &&
         (shape.channel == run.regionChannel || shape.channel == "_preview")))
        return false;

    auto changes = std::make_shared<StrandChanges>();
    if (request.inputs[0].changes) changes->strands = request.inputs[0].changes->strands;
    std::vector<std::uint32_t> index, changedCurves;
    CenterCurves curves;
    if (from != CentersFrom::Pick) {
        curves = centerCurves(run.centers, from, run.regionChannel, index);
        if (request.inputs[1].changes) changedCurves = request.inputs[1].changes->strands;
    }
    const GatheredPtr clumps = gatheredBefore(run, request, **held, changes->strands, curves);
    if (!clumps || clumps->centers.size() == 0) return false;

    const bool curvesAreAxes = from == CentersFrom::InputCurves;
    std::vector<std::uint32_t>& dirty = changes->strands;
    const std::vector<std::uint32_t> moved = curvesAreAxes ? changedCurves : dirty;
    bool axisMoved = false;
    for (const std::uint32_t axis : moved)
        clumps->forEachClumpOf(axis, [&](std::uint32_t c) {
            axisMoved = true;
            const auto members = clumps->binding.membersOf(c);
            dirty.insert(dirty.end(), members.begin(), members.end());
        });
    if (axisMoved && shape.copyAmount > 0.0f) return false;  // its neighbours move too
    std::sort(dirty.begin(), dirty.end());
    dirty.erase(std::unique(dirty.begin(), dirty.end()), dirty.end());

    tellOfParting(from);
    if (from == CentersFrom::Pick && inputs.isConnected(1)) warn(kIgnoredText);
    if (!shape.moves && shape.channel.empty()) {
        result.outputs = {strands};
        result.changes = {std::move(changes)};
        return true;
    }
    auto out = std::make_shared<StrandSet>(*strands);
    if (shape.moves) out->sharePoints(**held);
    if (!shape.channel.empty() && !out->copyStrandChannel(shape.channel, **held)) return false;
    held->reset();  // let go, so that arrays no one else holds are written in place
    if (shape.moves)
        pullAll(run, shape, *clumps, StrandPick(std::span<const std::uint32_t>(dirty)),
                out->mutablePoints());
    result.outputs = {StrandsPtr(std::move(out))};
    result.changes = {std::move(changes)};
    return true;
}

}  // namespace

OperatorPtr makeClump() { return std::make_unique<Clump>(); }

}  // namespace corvelle
