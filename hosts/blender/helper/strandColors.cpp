#include "hosts/blender/helper/strandColors.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numbers>

#include "hosts/blender/helper/colorScales.h"
#include "hosts/blender/helper/requestError.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/pointIndex.h"

namespace corvelle {
namespace {

constexpr const char* kModes[] = {"solid", "colorSet", "attribute", "random", "clump", "density"};
constexpr Vec3f kSolid{0.55f, 0.42f, 0.3f};
constexpr Vec3f kUnclumped{0.5f, 0.5f, 0.5f};
constexpr std::size_t kDensityNeighbors = 8;

ColorMode readMode(const Json& object) {
    const Json* value = findField(object, "mode");
    if (!value) return ColorMode::Solid;
    if (value->is_number()) {
        const double number = value->get<double>();
        if (!value->is_number_integer() || number < 0.0 || number > 5.0)
            failRequest("bad_request", "colorMode is 0-5");
        return ColorMode(int(number));
    }
    for (std::size_t i = 0; i < std::size(kModes); ++i)
        if (value->is_string() && value->get_ref<const std::string&>() == kModes[i])
            return ColorMode(int(i));
    failRequest("bad_request", "colorMode is solid, colorSet, attribute, random, clump or density");
}

template <class ColorOf>
std::vector<Vec3f> each(std::size_t count, const ColorOf& colorOf) {
    std::vector<Vec3f> colors(count);
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) colors[i] = colorOf(i);
    });
    return colors;
}

Vec3f idColor(std::uint64_t id) { return hsvColor(unitHash(mix64(id)), 0.6f, 0.9f); }

/// Colours per strand as they are, or one for each of its points.
std::vector<Vec3f> spread(const StrandSet& strands, std::vector<Vec3f> colors, bool perPoint) {
    if (!perPoint) return colors;
    std::vector<Vec3f> out(strands.pointCount());
    const auto offsets = strands.offsets();
    parallelRange(0, colors.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s)
            std::fill(out.begin() + std::ptrdiff_t(offsets[s]),
                      out.begin() + std::ptrdiff_t(offsets[s + 1]), colors[s]);
    });
    return out;
}

std::vector<Vec3f> colorSetColors(const StrandSet& strands, const ScalpMesh* scalp,
                                  const std::string& name) {
    static const std::map<std::string, std::vector<Color4f>> kNone;
    const auto& sets = scalp ? scalp->colorSets() : kNone;
    const auto found = sets.find(name);
    if (found == sets.end()) failRequest("not_found", "the scalp has no color set '" + name + "'");
    return each(strands.strandCount(), [&](std::size_t s) {
        const StrandRoot& root = strands.roots()[s];
        if (!scalp->validRoot(root)) return Vec3f{};
        const Color4f color = scalp->mixCorners(found->second, root);
        return Vec3f{color.r, color.g, color.b};
    });
}

std::vector<float> mapValues(GroomSession& groom, const StrandSet& strands,
                             const std::string& name) {
    const EvaluationData& data = groom.evaluationData();
    const MapCatalogPtr maps = groom.shownMaps();
    const std::shared_ptr<const GuideHierarchy> hierarchy = groom.shownHierarchy();
    const GuidesPtr guides = hierarchy->empty() ? groom.document().guides : hierarchy->all();
    MapLookup lookup = readMap(maps.get(), name, data.scalp, guides,
                               searchPathResolver(data.directory, data.searchPaths));
    if (!lookup.found) lookup.map = guides ? guideLayerMap(guides, data.scalp, name) : nullptr;
    if (!lookup.found && !lookup.map) failRequest("not_found", "no map named '" + name + "'");
    std::vector<float> values(strands.strandCount());
    if (!lookup.map) return values;  // one that cannot be read: an evaluation says why
    std::vector<Vec3f> roots(values.size());
    for (std::size_t s = 0; s < roots.size(); ++s) roots[s] = strands.pointsOf(s).front();
    parallelRange(0, values.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        lookup.map->values(strands.roots().subspan(begin, end - begin),
                           std::span(roots).subspan(begin, end - begin), MapComponent::Luminance,
                           std::span(values).subspan(begin, end - begin));
    });
    return values;
}

/// Strands to the square unit where each one stands, over the most there is.
std::vector<Vec3f> densityColors(const StrandSet& strands) {
    const std::size_t count = strands.strandCount();
    std::vector<Vec3f> roots(count);
    for (std::size_t s = 0; s < count; ++s) roots[s] = strands.pointsOf(s).front();
    const PointIndex index(roots);
    std::vector<float> density(count);
    parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
        std::array<Neighbor, kDensityNeighbors + 1> near;  // the strand's own root is one
        for (std::size_t s = begin; s < end; ++s) {
            const std::size_t found = index.nearest(roots[s], near);
            const float square = found > 1 ? near[found - 1].distanceSquared : 0.0f;
            if (square > 0.0f) density[s] = float(found - 1) / (std::numbers::pi_v<float> * square);
        }
    });
    const float most = count > 0 ? *std::ranges::max_element(density) : 0.0f;
    return each(count,
                [&](std::size_t s) { return heatColor(most > 0.0f ? density[s] / most : 0.0f); });
}

}  // namespace

const char* colorModeName(ColorMode mode) { return kModes[int(mode)]; }

StrandColorRequest readStrandColors(const Json& value) {
    if (!value.is_object()) failRequest("bad_request", "strandColors is an object");
    StrandColorRequest request;
    request.mode = readMode(value);
    const std::string source = optionalString(value, "source", "strands");
    if (source != "strands" && source != "map")
        failRequest("bad_request", "source is strands or map");
    request.channel = optionalString(value, "channel", "");
    request.name = optionalString(value, "name", "");
    if (source == "map") request.map = request.name;
    request.min = optionalFloat(value, "min", 0.0f);
    request.max = optionalFloat(value, "max", 1.0f);
    request.perPoint = optionalBool(value, "perPoint", false);
    request.clumpChannel = optionalString(value, "clumpId", "clumpId");
    return request;
}

std::vector<Vec3f> strandColors(GroomSession& groom, const StrandColorRequest& request) {
    const StrandsPtr held = groom.result().strands;
    if (!held) return {};
    const StrandSet& strands = *held;
    const std::size_t count = strands.strandCount();
    const auto scale = [&](float value) {
        const float range = request.max - request.min;
        return heatColor(range != 0.0f         ? (value - request.min) / range
                         : value > request.min ? 1.0f
                                               : 0.0f);
    };
    const auto channelOf = [&](const std::string& name) {
        const auto* channel = strands.strandChannel(name);
        if (!channel) failRequest("not_found", "the strands have no attribute '" + name + "'");
        return channel;
    };
    std::vector<Vec3f> colors;
    switch (request.mode) {
        case ColorMode::Solid:
            colors.assign(count, kSolid);
            break;
        case ColorMode::Random:
            colors = each(count, [&](std::size_t s) { return idColor(strands.ids()[s]); });
            break;
        case ColorMode::Density:
            colors = densityColors(strands);
            break;
        case ColorMode::ColorSet:
            colors = colorSetColors(strands, groom.evaluationData().scalp.get(), request.name);
            break;
        case ColorMode::Clump: {
            const auto& clumps = *channelOf(request.clumpChannel);
            colors = each(count, [&](std::size_t s) {
                const float clump = clumps[s];
                return clump < 0.0f ? kUnclumped
                                    : idColor(std::uint64_t(std::bit_cast<std::uint32_t>(clump)));
            });
            break;
        }
        case ColorMode::Attribute: {
            if (!request.map.empty()) {
                // Where the groom follows its scalp, maps are read where the strands grew.
                const StrandsPtr raw = groom.result().rawStrands;
                const std::vector<float> values =
                    mapValues(groom, raw ? *raw : strands, request.map);
                colors = each(count, [&](std::size_t s) { return scale(values[s]); });
                break;
            }
            if (const auto* points = strands.pointChannel(request.channel)) {
                const auto& values = *points;
                if (request.perPoint)
                    return each(strands.pointCount(),
                                [&](std::size_t i) { return scale(values[i]); });
                colors = each(count, [&](std::size_t s) {
                    return scale(values[std::size_t(strands.offsets()[s])]);
                });
                break;
            }
            const auto& values = *channelOf(request.channel);
            colors = each(count, [&](std::size_t s) { return scale(values[s]); });
            break;
        }
    }
    return spread(strands, std::move(colors), request.perPoint);
}

}  // namespace corvelle
