#include "hosts/blender/helper/strandArrays.h"

#include <algorithm>

#include "hosts/blender/helper/hostPoints.h"
#include "hosts/blender/helper/requestError.h"
#include "model/parallel.h"
#include "session/renderColors.h"

namespace corvelle {
namespace {

constexpr std::uint64_t kWideOffsets = std::uint64_t(1)
                                       << 31;  ///< points from which offsets are 64-bit
constexpr char kHiddenChannel[] = "_preview";

/// One attribute: a channel, or one of the computed ones, whose floats are made when they are
/// wanted.
struct Attribute {
    std::string name;
    const char* scope;
    std::size_t components = 1;
    std::span<const float> values;  ///< of a channel, or of what was computed
};

/// The attributes of a strand set, and what some of them lie in.
struct Attributes {
    std::vector<Attribute> list;
    RenderColors colors;
    std::vector<Vec3f> normals;

    /// A channel may have the name of a computed attribute: the first of a name and scope stands.
    void add(Attribute attribute) {
        const auto taken = [&](const Attribute& held) {
            return held.name == attribute.name && std::string_view(held.scope) == attribute.scope;
        };
        if (std::ranges::none_of(list, taken)) list.push_back(std::move(attribute));
    }
};

template <class T>
std::span<const float> asFloats(const std::vector<T>& values) {
    return {reinterpret_cast<const float*>(values.data()),
            values.size() * sizeof(T) / sizeof(float)};
}

/// The normal that feathers' iridescence is shaded with: the vane's, the scalp's, else the strand's
/// first segment.
std::vector<Vec3f> rootNormals(const StrandSet& strands, const ScalpMesh* scalp,
                               const SceneSpace* host) {
    std::vector<Vec3f> normals(strands.strandCount());
    const auto* vx = strands.strandChannel("vaneNormalX");
    const auto* vy = strands.strandChannel("vaneNormalY");
    const auto* vz = strands.strandChannel("vaneNormalZ");
    parallelRange(0, normals.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            Vec3f n;
            if (vx && vy && vz) n = {(*vx)[s], (*vy)[s], (*vz)[s]};
            if (lengthSquared(n) == 0.0f) {
                const StrandRoot& root = strands.roots()[s];
                const auto points = strands.pointsOf(s);
                if (scalp && scalp->validRoot(root))
                    n = scalp->surfaceNormal(root);
                else if (points.size() >= 2)
                    n = normalized(points[1] - points[0]);
            }
            normals[s] = host ? host->directionToHost(n) : n;
        }
    });
    return normals;
}

/// offsets as `Int`, copied in parallel.
template <class Int>
void copyOffsets(std::span<const std::uint64_t> from, std::byte* to) {
    Int* out = reinterpret_cast<Int*>(to);
    parallelRange(0, from.size(), kChunkElements, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) out[i] = Int(from[i]);
    });
}

Json writeOffsets(AnswerPool& pool, std::span<const std::uint64_t> offsets, bool wide) {
    AnswerPool::Array array = wide ? pool.allocate(offsets.size(), 8, "<i8", {offsets.size()})
                                   : pool.allocate(offsets.size(), 4, "<i4", {offsets.size()});
    if (wide)
        copyOffsets<std::int64_t>(offsets, array.data);
    else
        copyOffsets<std::int32_t>(offsets, array.data);
    return std::move(array.reference);
}

Json writePointCounts(AnswerPool& pool, std::span<const std::uint64_t> offsets) {
    const std::size_t count = offsets.size() - 1;
    AnswerPool::Array array = pool.allocate(count, 4, "<i4", {count});
    auto* out = reinterpret_cast<std::int32_t*>(array.data);
    parallelRange(0, count, kChunkElements, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            out[i] = std::int32_t(offsets[i + 1] - offsets[i]);
    });
    return std::move(array.reference);
}

/// Widths are groom centimetres, in host space host units.
Json writeWidths(AnswerPool& pool, std::span<const float> widths, const SceneSpace& space,
                 bool groomSpace) {
    if (groomSpace) return writeFloats(pool, widths);
    AnswerPool::Array array = pool.allocate(widths.size(), 4, "<f4", {widths.size()});
    auto* out = reinterpret_cast<float*>(array.data);
    parallelRange(0, widths.size(), kChunkElements, [&](std::size_t begin, std::size_t end) {
        lengthsToHost(widths.subspan(begin, end - begin), space, out + begin);
    });
    return std::move(array.reference);
}

/// Exactly 1 everywhere means that no node set them.
bool widthsSet(std::span<const float> widths) {
    return std::ranges::any_of(widths, [](float w) { return w != 1.0f; });
}

/// `host` is null for groom space.
Attributes attributesOf(const StrandSet& strands, const ScalpMesh* scalp, const SceneSpace* host,
                        const AttributeRequest& request) {
    const std::size_t strandCount = strands.strandCount();
    const std::size_t pointCount = strands.pointCount();
    Attributes out;
    for (const auto& [name, channel] : strands.strandChannels())
        if (name != kHiddenChannel && channel.values.size() == strandCount)
            out.add({name, "strand", 1, channel.values.span()});
    for (const auto& [name, channel] : strands.pointChannels())
        if (name != kHiddenChannel && channel.values.size() == pointCount)
            out.add({name, "point", 1, channel.values.span()});

    const bool wantColors =
        request.wants("rootUV") || request.wants("color") || request.wants("pointColor");
    if (wantColors) {
        const RenderColors& colors = out.colors = renderColors(strands, scalp);
        if (strandCount > 0 && colors.rootUV.size() == strandCount)
            out.add({"rootUV", "strand", 2, asFloats(colors.rootUV)});
        if (strandCount > 0 && colors.color.size() == strandCount)
            out.add({"color", "strand", 3, asFloats(colors.color)});
        if (pointCount > 0 && colors.pointColor.size() == pointCount)
            out.add({"pointColor", "point", 3, asFloats(colors.pointColor)});
    } else {
        if (scalp && !scalp->uvs().empty()) out.add({"rootUV", "strand", 2, {}});
        out.add({"color", "strand", 3, {}});
    }
    const auto* iridescence = strands.pointChannel("iridescence");
    if (iridescence && iridescence->size() == pointCount && strandCount > 0) {
        if (request.wants("rootNormal")) out.normals = rootNormals(strands, scalp, host);
        out.add({"rootNormal", "strand", 3, asFloats(out.normals)});
    }
    return out;
}

StrandAnswer write(AnswerPool& pool, const StrandSet& strands, const ScalpMesh* scalp,
                   const SceneSpace& space, bool groomSpace, const AttributeRequest& request) {
    const std::size_t strandCount = strands.strandCount();
    const std::size_t pointCount = strands.pointCount();
    const Attributes attributes =
        attributesOf(strands, scalp, groomSpace ? nullptr : &space, request);

    const bool wide = pointCount >= kWideOffsets;
    std::uint64_t bytes =
        (strandCount + 1) * (wide ? 8 : 4) + (pointCount + 20) * 16 + strandCount * 12;
    for (const Attribute& attribute : attributes.list)
        if (request.wants(attribute.name)) bytes += attribute.values.size() * 4 + 64;
    pool.prepare(bytes);

    StrandAnswer answer;
    answer.arrays = Json::object();
    answer.arrays["positions"] = writePoints(pool, strands.points(), space, groomSpace);
    answer.arrays["pointCounts"] = writePointCounts(pool, strands.offsets());
    answer.arrays["offsets"] = writeOffsets(pool, strands.offsets(), wide);
    answer.arrays["ids"] = writeIds(pool, strands.ids());
    if (widthsSet(strands.widths()))
        answer.arrays["widths"] = writeWidths(pool, strands.widths(), space, groomSpace);
    Json written = Json::object();
    answer.available = Json::array();
    for (const Attribute& attribute : attributes.list) {
        answer.available.push_back({{"name", attribute.name},
                                    {"scope", attribute.scope},
                                    {"components", attribute.components}});
        if (!request.wants(attribute.name)) continue;
        Json reference = writeFloats(pool, attribute.values, attribute.components);
        reference["scope"] = attribute.scope;
        written[attribute.name] = std::move(reference);
    }
    answer.missing = Json::array();
    for (const std::string& name : request.names)
        if (!written.contains(name)) answer.missing.push_back(name);
    answer.arrays["attributes"] = std::move(written);
    return answer;
}

}  // namespace

bool AttributeRequest::wants(const std::string& name) const {
    return all || std::ranges::find(names, name) != names.end();
}

AttributeRequest readAttributes(const Json& request) {
    AttributeRequest attributes;
    const Json* given = findField(request, "attributes");
    if (!given) return attributes;
    if (given->is_string() && *given == "all") {
        attributes.all = true;
        return attributes;
    }
    if (!given->is_array())
        failRequest("bad_request", "attributes must be a list of names or \"all\"");
    for (const Json& name : *given) {
        if (!name.is_string()) failRequest("bad_request", "attributes must name attributes");
        attributes.names.push_back(name.get<std::string>());
    }
    return attributes;
}

const StrandAnswer& writeStrands(AnswerPool& pool, StrandAnswerCache& cache,
                                 const StrandsPtr& strands, const ScalpPtr& scalp,
                                 const SceneSpace& space, bool groomSpace,
                                 const AttributeRequest& attributes) {
    const bool same = pool.region() && !pool.region().damaged() && strands &&
                      cache.strands == strands && cache.scalp == scalp &&
                      cache.groomSpace == groomSpace && cache.space == space &&
                      cache.attributes == attributes;
    if (same) return cache.answer;
    cache.strands = nullptr;  // should the writing throw, nothing stays to be believed
    static const StrandSet kNone;
    cache.answer =
        write(pool, strands ? *strands : kNone, scalp.get(), space, groomSpace, attributes);
    cache.strands = strands;
    cache.scalp = scalp;
    cache.space = space;
    cache.groomSpace = groomSpace;
    cache.attributes = attributes;
    return cache.answer;
}

}  // namespace corvelle
