#include "operators/interpolate.h"

#include <algorithm>
#include <bit>
#include <mutex>
#include <set>

#include "graph/colorMap.h"
#include "graph/operator.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "operators/discreteChannels.h"
#include "operators/guideRegions.h"
#include "operators/interpolateBlend.h"
#include "operators/registerOperators.h"
#include "operators/rootFrame.h"
#include "operators/strandLoop.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "neighbors",
     .defaultValue = 3.0,
     .description = "How far each guide reaches: to its neighbors-th nearest guide (times reach). "
                    "1: every strand "
                    "takes its nearest guide alone, with hard edges",
     .softMin = 1.0,
     .softMax = 8.0,
     .whole = true,
     .min = 1.0,
     .max = double(kMaxNeighbors)},
    {.name = "reach",
     .defaultValue = 1.5,
     .description = "Each guide's reach, as a multiple of the distance to its neighbors-th nearest "
                    "guide; more blends "
                    "more guides into each strand",
     .softMin = 0.0,
     .softMax = 4.0,
     .min = 0.0},
    {.name = "power",
     .defaultValue = 2.0,
     .description = "Falloff power of the guide weights over distance (2 neighbors or more)",
     .softMin = 0.5,
     .softMax = 8.0,
     .min = 0.0,
     .max = 16.0},
    {.name = "smoothGuides",
     .defaultValue = true,
     .description = "Follow each guide as the smooth curve the viewport draws through its points "
                    "(a centripetal "
                    "Catmull-Rom spline), not straight lines between them, so a bend drawn with "
                    "few points stays round "
                    "in the hair"},
    {.name = "preserveLength",
     .defaultValue = true,
     .description = "Scale each blended strand to its guides' blended length (blending guides that "
                    "point different "
                    "ways would shorten it; take shape)",
     .showWhen = {{.param = "take", .values = {"shape"}}}},
    {.name = "keepClearance",
     .defaultValue = true,
     .description = "Keep each strand as high above the scalp as its guides are at the same share "
                    "of their length: "
                    "where the skin under a strand bulges more than under its guides (an ear, a "
                    "cheek, the neck), the "
                    "part of it that would sink in is lifted out, its length kept (take shape; "
                    "needs the scalp input)",
     .showWhen = {{.param = "take", .values = {"shape"}}}},
    {.name = "respectParts",
     .defaultValue = true,
     .description = "Never blend guides from the other side of a part"},
    {.name = "followSurface",
     .defaultValue = true,
     .description =
         "Measure how far guides reach along the scalp (the scalp input), not in a straight line, "
         "so they "
         "do not reach across an ear, a fold or a thin shell (the same on a smooth scalp)"},
    {.name = "limitDistance",
     .defaultValue = 0.0,
     .description =
         "How far guides reach: strands farther from every guide root keep their incoming shape "
         "(e.g. from "
         "Flow); 0: every strand follows the guides (and falloff and influenceChannel do nothing)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 10.0,
     .min = 0.0},
    {.name = "falloff",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 0.0f}}),
     .description = "With limitDistance above 0: the guides' influence over it, at the guide to "
                    "limitDistance away"},
    {.name = "take",
     .defaultValue = std::string("shape"),
     .description = "shape: the guides' shape and length; length: each strand keeps its own shape "
                    "and takes the "
                    "guides' length",
     .choices = {"shape", "length"}},
    {.name = "influenceChannel",
     .defaultValue = std::string("guideInfluence"),
     .description = "With limitDistance above 0: per-strand channel receiving the guides' "
                    "influence, 0-1 (empty: "
                    "none)"},
    {.name = "regionMap",
     .defaultValue = std::string(),
     .description = "Regions painted on the scalp in colors (empty: none): a strand blends only "
                    "the guides rooted in "
                    "its own region, with a hard edge between regions, like a part. Each color "
                    "guides are rooted on is "
                    "a region (soft paint between two joins the nearer); a strand in a color no "
                    "guide is rooted on "
                    "blends the nearest guides of any region. A map painted in Groom Tools > Paint "
                    "by name, a color "
                    "set of that name on the scalp, or an image file at the scalp's UVs"},
    {.name = "regionChannel",
     .defaultValue = std::string("region"),
     .description = "With a regionMap: per-strand channel receiving each strand's region number "
                    "(-1: none), which "
                    "Clump, BlendNeighbors and Tangle keep within (empty: none)"},
};

std::uint64_t hashVec(std::uint64_t h, Vec3f v) {
    h = hashCombine(h, (std::uint64_t(std::bit_cast<std::uint32_t>(v.x)) << 32) |
                           std::bit_cast<std::uint32_t>(v.y));
    return hashCombine(h, v.z);
}

/// All of the strands that weights are made from.
std::uint64_t strandPlacesHash(const StrandSet& strands, const ScalpMesh* mesh) {
    const std::size_t count = strands.strandCount();
    const std::size_t chunks = (count + kChunkStrands - 1) / kChunkStrands;
    std::vector<std::uint64_t> hashes(chunks);
    parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            std::uint64_t h = mix64(c);
            for (std::size_t s = c * kChunkStrands; s < std::min(count, (c + 1) * kChunkStrands);
                 ++s) {
                const StrandRoot& root = strands.roots()[s];
                const auto points = strands.pointsOf(s);
                h = hashCombine(h, (std::uint64_t(std::uint32_t(root.triangle)) << 32) |
                                       std::bit_cast<std::uint32_t>(root.u));
                h = hashCombine(h, root.v);
                if (!points.empty()) h = hashVec(h, points[0]);
                if (points.size() > 1 && !(mesh && mesh->validRoot(root)))
                    h = hashVec(h, points[1]);
            }
            hashes[c] = h;
        }
    });
    std::uint64_t h = hashCombine(hashOf("strandPlaces"), std::uint64_t(count));
    for (const std::uint64_t chunk : hashes) h = hashCombine(h, chunk);
    return h;
}

/// The point counts of 2 and more that occur, ascending.
std::vector<std::size_t> pointCounts(const StrandSet& strands) {
    std::set<std::size_t> counts;
    std::size_t last = 0;
    for (std::size_t s = 0; s < strands.strandCount(); ++s)
        if (const std::size_t m = strands.pointCountOf(s); m >= 2 && m != last)
            counts.insert(last = m);
    return {counts.begin(), counts.end()};
}

/// The weights of a set of strands and what else hangs on the roots alone.
struct RootData {
    WeightTable weights;
    std::vector<Vec3f> normals;         ///< [strands]
    std::vector<std::int32_t> regions;  ///< [strands], -1 for none; empty without a map
    std::shared_ptr<const GuideReach> reach;
};

/// One channel of the output that this node writes.
struct CarriedChannel {
    std::string name;
    enum class Kind { Influence, Region, Strand, Point } kind = Kind::Strand;
    std::size_t index = 0;  ///< of the guides' attribute names
    bool discrete() const { return kind == Kind::Region || isDiscreteName(name); }
};

/// What stands for a strand where values cannot be mixed: its first guide of the greatest weight,
/// with all of it.
std::span<const GuideWeight> heaviest(std::span<const GuideWeight> pairs, GuideWeight& alone) {
    if (pairs.empty()) return pairs;
    alone = {std::ranges::max_element(pairs, {}, &GuideWeight::weight)->guide, 1.0f};
    return {&alone, 1};
}

class Interpolate final : public Operator {
public:
    std::string type() const override { return "Interpolate"; }
    std::string category() const override { return "grow"; }
    std::string description() const override {
        return "Grows each root into a strand shaped like the guides around it.";
    }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands},
                {"guides", PortType::Guides, true},
                {"scalp", PortType::Mesh, true}};
    }
    std::vector<ParamSpec> spec() const override { return kParams; }
    std::uint32_t contextReads() const override {
        return reads::kParts | reads::kScalp | reads::kMaps;
    }
    std::uint64_t contextHash(const EvalContext& context) const override {
        return text("regionMap").empty() ? 0 : colorMapHash(text("regionMap"), context.data());
    }
    bool verifyOnClone() const override { return true; }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const StrandsPtr strands = requireStrands(*this, inputs);
        const GuidesPtr guides = inputs.guides(1);
        const BlendSettings settings = blendSettings();
        if (!guides || guides->empty()) {
            warn(
                "no guides: place some with the guide tools; the strands keep their incoming "
                "shape");
            return strands;
        }
        const Run run = prepare(context, inputs, strands, guides, settings, false);
        auto out = std::make_shared<StrandSet>(*strands);
        blendAll(run, *out, true, StrandPick(strands->strandCount()));
        return StrandsPtr(std::move(out));
    }

    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        if (request.ownChanged) return false;
        for (const SlotChanges& slot : request.inputs)
            if (slot.kind == SlotChanges::Kind::Unknown) return false;
        if (request.inputs[2].kind != SlotChanges::Kind::None) return false;
        const StrandsPtr strands = requireStrands(*this, inputs);
        const GuidesPtr guides = inputs.guides(1);
        StrandsPtr* held = std::get_if<StrandsPtr>(&request.previous[0]);
        if (!guides || guides->empty() || !held || !*held || !(*held)->sameLayout(*strands))
            return false;
        const Run run = prepare(context, inputs, strands, guides, blendSettings(), true);
        if (!run.rootData) return false;

        auto out = std::make_shared<StrandSet>(*strands);
        out->sharePoints(**held);
        for (const CarriedChannel& channel : run.channels)
            if (!(channel.kind == CarriedChannel::Kind::Point
                      ? out->copyPointChannel(channel.name, **held)
                      : out->copyStrandChannel(channel.name, **held)))
                return false;
        // A guide attribute that is gone takes its channel with it: then no list tells the
        // difference.
        if (out->strandChannels().size() != (*held)->strandChannels().size() ||
            out->pointChannels().size() != (*held)->pointChannels().size())
            return false;

        auto changes = std::make_shared<StrandChanges>();
        if (request.inputs[0].changes) changes->strands = request.inputs[0].changes->strands;
        if (request.inputs[1].changes)
            for (const std::uint32_t g : request.inputs[1].changes->strands) {
                const auto reached = run.rootData->weights.strandsOf(g);
                changes->strands.insert(changes->strands.end(), reached.begin(), reached.end());
            }
        std::sort(changes->strands.begin(), changes->strands.end());
        changes->strands.erase(std::unique(changes->strands.begin(), changes->strands.end()),
                               changes->strands.end());
        held->reset();  // let go, so that arrays no one else holds are written in place
        blendAll(run, *out, false, StrandPick(std::span<const std::uint32_t>(changes->strands)));
        result.outputs = {StrandsPtr(std::move(out))};
        result.changes = {std::move(changes)};
        return true;
    }

    void adoptState(const Operator& other) override {
        const auto* from = dynamic_cast<const Interpolate*>(&other);
        if (!from || from == this) return;
        {
            RootCache copy;
            {
                const std::lock_guard lock(from->rootMutex_);
                copy = from->rootCache_;
            }
            const std::lock_guard lock(rootMutex_);
            rootCache_ = std::move(copy);
        }
        shapeCache_.copyFrom(from->shapeCache_);
        clearanceCache_.copyFrom(from->clearanceCache_);
    }

    GuideSharing sharing(const EvalContext& context, const NodeInputs& inputs) {
        GuideSharing out{inputs.strands(0), inputs.guides(1), {}};
        if (!out.strands || !out.guides || out.guides->empty()) return {};
        const ScalpPtr connected = inputs.mesh(2);
        std::vector<std::size_t> counts;
        const auto roots = rootData(context, inputs, *out.strands, out.guides, connected,
                                    connected ? connected : context.scalp(), false, counts);
        out.rows.resize(out.strands->strandCount());
        parallelRange(0, out.rows.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                const auto pairs = roots->weights.of(s);
                auto& shares = out.rows[s].shares;
                std::partial_sort_copy(pairs.begin(), pairs.end(), shares.begin(), shares.end(),
                                       [](const GuideWeight& a, const GuideWeight& b) {
                                           return a.weight != b.weight ? a.weight > b.weight
                                                                       : a.guide < b.guide;
                                       });
            }
        });
        return out;
    }

private:
    struct Run {
        StrandsPtr strands;
        GuidesPtr guides;
        std::shared_ptr<const RootData>
            rootData;  ///< null: not in the cache, which alone was asked
        std::vector<GuideShapesPtr> shapes;
        ClearanceGoalsPtr clearance;    ///< null: not kept
        std::vector<float> attributes;  ///< [names][guides]
        BlendSettings settings;
        std::vector<CarriedChannel> channels;
    };

    BlendSettings blendSettings() const {
        return {.preserveLength = boolean("preserveLength"),
                .takeLength = choice("take") == "length",
                .limitDistance = float(number("limitDistance")),
                .falloff = ramp("falloff")};
    }

    /// Presence follows from params and the guides' attribute names. What the node itself writes
    /// wins over an attribute of the same name; "_preview" is the thinning's.
    std::vector<CarriedChannel> carriedChannels(const GuideSet& guides) const {
        using Kind = CarriedChannel::Kind;
        std::vector<CarriedChannel> channels;
        const std::string& influence = text("influenceChannel");
        const std::string& region = text("regionChannel");
        const bool writesInfluence = number("limitDistance") > 0.0 && !influence.empty();
        const bool writesRegion = !text("regionMap").empty() && !region.empty();
        const auto taken = [&](const std::string& attribute) {
            return attribute == "_preview" || (writesInfluence && attribute == influence) ||
                   (writesRegion && attribute == region);
        };
        const auto& names = guides.attributeNames();
        for (std::size_t a = 0; a < names.size(); ++a)
            if (!taken(names[a])) channels.push_back({names[a], Kind::Strand, a});
        const auto& pointNames = guides.pointAttributeNames();
        for (std::size_t a = 0; a < pointNames.size(); ++a)
            channels.push_back({pointNames[a], Kind::Point, a});
        if (writesInfluence) channels.push_back({influence, Kind::Influence, 0});
        if (writesRegion && !(writesInfluence && region == influence))
            channels.push_back({region, Kind::Region, 0});
        return channels;
    }

    Run prepare(const EvalContext& context, const NodeInputs& inputs, const StrandsPtr& strands,
                const GuidesPtr& guides, BlendSettings settings, bool cachedOnly) {
        Run run{.strands = strands, .guides = guides, .settings = std::move(settings)};
        const ScalpPtr connected = inputs.mesh(2);
        const ScalpPtr mesh = connected ? connected : context.scalp();
        std::vector<std::size_t> counts;
        run.rootData =
            rootData(context, inputs, *strands, guides, connected, mesh, cachedOnly, counts);
        if (!run.rootData) return run;
        run.channels = carriedChannels(*guides);
        std::vector<Vec3f> normals(guides->size());
        for (std::size_t g = 0; g < guides->size(); ++g)
            normals[g] = rootNormal(mesh.get(), guides->roots()[g], firstDirection(guides->pointsOf(g)));
        run.shapes = shapeCache_.shapes(*guides, normals, counts, boolean("smoothGuides"));
        std::string details = "it does not keep clearance";
        if (boolean("keepClearance") && !run.settings.takeLength && connected)
            run.clearance = clearanceCache_.goals(*guides, boolean("smoothGuides"), connected,
                                                  counts, details);
        tell(std::move(details));  // empty where it simply keeps it
        for (const std::string& attribute : guides->attributeNames())
            for (std::size_t g = 0; g < guides->size(); ++g)
                run.attributes.push_back(guides->attribute(g, attribute));
        return run;
    }

    static void blendAll(const Run& run, StrandSet& out, bool overwrite, const StrandPick& pick) {
        const std::span<Vec3f> points = overwrite ? out.overwritePoints() : out.mutablePoints();
        std::vector<std::span<float>> channels;
        for (const CarriedChannel& channel : run.channels)
            channels.push_back(openChannel(out, channel));
        const StrandSet& in = *run.strands;
        const BlendSource source{.weights = &run.rootData->weights,
                                 .shapes = run.shapes,
                                 .strandNormals = run.rootData->normals,
                                 .clearance = run.clearance.get()};
        pick.forEachBatch([&](std::span<const std::uint32_t> batch) {
            blendStrands(in, batch, source, run.settings, points);
            for (std::size_t c = 0; c < channels.size(); ++c)
                writeChannel(run, run.channels[c], batch, channels[c]);
        });
    }

    static std::span<float> openChannel(StrandSet& out, const CarriedChannel& channel) {
        using Kind = CarriedChannel::Kind;
        if (channel.kind == Kind::Point) {
            const std::span<float> values = out.mutablePointChannel(channel.name, 0.0f);
            if (channel.discrete()) out.setPointChannelDiscrete(channel.name);
            return values;
        }
        const std::span<float> values =
            out.mutableStrandChannel(channel.name, channel.kind == Kind::Region ? -1.0f : 0.0f);
        if (channel.discrete()) out.setStrandChannelDiscrete(channel.name);
        return values;
    }

    /// Guides' values mixed by their weights, ids and flags taken from the guide of the greatest;
    /// strands without weights keep what came in, else 0.
    static void writeChannel(const Run& run, const CarriedChannel& channel,
                             std::span<const std::uint32_t> batch, std::span<float> out) {
        using Kind = CarriedChannel::Kind;
        const StrandSet& in = *run.strands;
        const WeightTable& weights = run.rootData->weights;
        if (channel.kind == Kind::Influence) {
            for (const std::uint32_t s : batch) out[s] = guideInfluence(weights, s, run.settings);
            return;
        }
        if (channel.kind == Kind::Region) {
            for (const std::uint32_t s : batch) out[s] = float(run.rootData->regions[s]);
            return;
        }
        const bool discrete = channel.discrete();
        GuideWeight alone;
        const auto pairsOf = [&](std::uint32_t s) {
            return discrete ? heaviest(weights.of(s), alone) : weights.of(s);
        };
        if (channel.kind == Kind::Strand) {
            const std::vector<float>* before = in.strandChannel(channel.name);
            const float* values = run.attributes.data() + channel.index * run.guides->size();
            for (const std::uint32_t s : batch) {
                const auto pairs = pairsOf(s);
                float sum = pairs.empty() && before ? (*before)[s] : 0.0f;
                for (const GuideWeight& pair : pairs) sum += pair.weight * values[pair.guide];
                out[s] = sum;
            }
            return;
        }
        const std::vector<float>* before = in.pointChannel(channel.name);
        for (const std::uint32_t s : batch) {
            const std::size_t first = std::size_t(in.offsets()[s]), m = in.pointCountOf(s);
            const auto pairs = pairsOf(s);
            const auto shapes = std::lower_bound(
                run.shapes.begin(), run.shapes.end(), m,
                [](const GuideShapesPtr& a, std::size_t n) { return a->points < n; });
            const bool blends =
                !pairs.empty() && shapes != run.shapes.end() && (*shapes)->points == m;
            for (std::size_t j = 0; j < m; ++j)
                out[first + j] = !blends && before ? (*before)[first + j] : 0.0f;
            if (!blends) continue;
            for (const GuideWeight& pair : pairs) {
                const float* values = (*shapes)->attributesOf(channel.index, pair.guide);
                for (std::size_t j = 0; j < m; ++j) out[first + j] += pair.weight * values[j];
            }
        }
    }

    /// The regionMap, null for none. Throws GraphError for one that cannot be read.
    NamedMapPtr regionMap(const EvalContext& context, const ScalpPtr& mesh,
                          const GuidesPtr& guides) const {
        const std::string& map = text("regionMap");
        if (map.empty()) return nullptr;
        const ColorMapLookup found = readColorMap(map, context, mesh, {.guides = guides});
        if (found) return found.map;
        throw GraphError("Interpolate: " +
                         (found.kind == ColorMapLookup::Kind::Guides
                              ? "no guide carries the layer '" + map + "' of regionMap"
                              : colorMapFaultText(found, map, "Interpolate")));
    }

    /// From the cache, or made and kept; with `cachedOnly` null where it would have to be made.
    std::shared_ptr<const RootData> rootData(const EvalContext& context, const NodeInputs& inputs,
                                             const StrandSet& strands, const GuidesPtr& guides,
                                             const ScalpPtr& connected, const ScalpPtr& mesh,
                                             bool cachedOnly, std::vector<std::size_t>& counts) {
        RootSource from{.strands = strands, .guides = *guides, .mesh = mesh.get()};
        from.settings = {.neighbors = whole("neighbors"),
                         .reach = float(number("reach")),
                         .power = float(number("power"))};
        from.parts = boolean("respectParts") ? context.parts().get() : nullptr;
        if (from.parts && from.parts->empty()) from.parts = nullptr;
        from.surface = boolean("followSurface") ? connected : nullptr;
        const std::string& map = text("regionMap");

        std::uint64_t reachKey = hashCombine(hashOf("guideReach"), guides->rootsHash());
        reachKey = hashCombine(hashCombine(reachKey, from.settings.neighbors), from.settings.reach);
        reachKey = hashCombine(reachKey, from.surface ? from.surface->contentHash() : 0);
        if (!map.empty())
            reachKey =
                hashCombine(reachKey, colorMapHash(map, context.data(), mesh, {.guides = guides}));
        std::uint64_t key = hashCombine(hashCombine(reachKey, from.settings.power),
                                        from.parts ? from.parts->hash() : 0);
        key = hashCombine(key, mesh ? mesh->contentHash() : 0);

        RootCache held;
        {
            const std::lock_guard lock(rootMutex_);
            held = rootCache_;
        }
        const std::uint64_t inputName = inputs.hashes.empty() ? 0 : inputs.hashes[0];
        const bool named =
            inputName != 0 && held.data && held.key == key && held.inputName == inputName;
        const std::uint64_t places =
            named ? held.placesHash : strandPlacesHash(strands, mesh.get());
        // Roots may be as they were on strands of other point counts.
        if (inputName == 0 || held.inputName != inputName) held.counts = pointCounts(strands);
        counts = held.counts;
        const bool usable = held.data && held.key == key && held.placesHash == places;
        if (!usable && cachedOnly) return nullptr;
        if (!usable) {
            from.regions = regionMap(context, mesh, guides);
            held.data = makeRootData(from, held.reachKey == reachKey ? held.reach : nullptr);
            held.reach = held.data->reach;
        }
        held.reachKey = reachKey;
        held.key = key;
        held.placesHash = places;
        held.inputName = inputName;
        const std::lock_guard lock(rootMutex_);
        rootCache_ = held;
        return held.data;
    }

    struct RootSource {
        const StrandSet& strands;
        const GuideSet& guides;
        const ScalpMesh* mesh = nullptr;  ///< for normals
        ScalpPtr surface;                 ///< to measure along; null: straight
        const PartLines* parts = nullptr;
        NamedMapPtr regions;
        WeightSettings settings;
    };

    static std::vector<Vec3f> mapColors(const NamedMap& map, std::span<const StrandRoot> roots,
                                        std::span<const Vec3f> positions) {
        std::vector<Vec3f> colors(roots.size());
        parallelRange(0, roots.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
            std::vector<Color4f> read(end - begin);
            map.colors(roots.subspan(begin, end - begin), positions.subspan(begin, end - begin),
                       read);
            for (std::size_t i = begin; i < end; ++i)
                colors[i] = {read[i - begin].r, read[i - begin].g, read[i - begin].b};
        });
        return colors;
    }

    static std::shared_ptr<const RootData> makeRootData(const RootSource& from,
                                                        std::shared_ptr<const GuideReach> reach) {
        const StrandSet& strands = from.strands;
        const GuideSet& guides = from.guides;
        const std::size_t count = strands.strandCount();
        auto data = std::make_shared<RootData>();
        std::vector<Vec3f> positions(count);
        data->normals.resize(count);
        if (from.mesh) from.mesh->normals();  // made before the loop asks for them
        parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                const auto points = strands.pointsOf(s);
                positions[s] = points.empty() ? Vec3f{} : points.front();
                data->normals[s] = rootNormal(from.mesh, strands.roots()[s], firstDirection(points));
            }
        });
        std::vector<Vec3f> guidePositions(guides.size());
        for (std::size_t g = 0; g < guides.size(); ++g)
            guidePositions[g] = guides.pointsOf(g).front();
        std::vector<std::int32_t> guideRegions;
        if (from.regions) {
            const GuideRegions regions(mapColors(*from.regions, guides.roots(), guidePositions));
            guideRegions = regions.ofGuides();
            const std::vector<Vec3f> colors = mapColors(*from.regions, strands.roots(), positions);
            data->regions.resize(count);
            parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
                regions.of(std::span(colors).subspan(begin, end - begin),
                           std::span(data->regions).subspan(begin, end - begin));
            });
        }
        if (!reach)
            reach = std::make_shared<const GuideReach>(
                GuideRoots{
                    .roots = guides.roots(), .positions = guidePositions, .regions = guideRegions},
                from.settings, from.surface ? SurfaceGraph::of(from.surface) : nullptr);
        data->weights = interpolationWeights(
            {.roots = strands.roots(), .positions = positions, .regions = data->regions},
            guides.size(), *reach, from.settings, from.parts);
        data->reach = std::move(reach);
        return data;
    }

    struct RootCache {
        std::uint64_t reachKey = 0, key = 0;
        std::uint64_t placesHash = 0,
                      inputName = 0;  ///< of the strands: their roots; the graph's name
        std::vector<std::size_t> counts;
        std::shared_ptr<const GuideReach> reach;
        std::shared_ptr<const RootData> data;
    };
    mutable std::mutex rootMutex_;
    RootCache rootCache_;
    GuideShapeCache shapeCache_;
    ClearanceCache clearanceCache_;
};

}  // namespace

GuideSharing guideSharing(Operator& op, const EvalContext& context, const NodeInputs& inputs) {
    auto* node = dynamic_cast<Interpolate*>(&op);
    return node ? node->sharing(context, inputs) : GuideSharing();
}

void registerInterpolateOperator() {
    OperatorRegistry::instance().add("Interpolate", [] { return std::make_unique<Interpolate>(); });
}

}  // namespace corvelle
