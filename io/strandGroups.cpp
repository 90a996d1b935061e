#include "io/strandGroups.h"

#include <cmath>
#include <map>

namespace corvelle {

namespace {

constexpr const char* kGroupChannel = "groupId";

template <class T>
std::vector<T> picked(std::span<const T> values, const std::vector<std::uint32_t>& which) {
    std::vector<T> out;
    if (values.empty()) return out;
    out.reserve(which.size());
    for (const std::uint32_t i : which) out.push_back(values[i]);
    return out;
}

std::string nameOf(const StrandSet& strands, std::int32_t id, const std::string& name) {
    if (id == 0) return name;
    for (const auto& layer : strands.featherLayers)
        if (layer && layer->groupId() == id && !layer->groupName().empty())
            return layer->groupName();
    return "group_" + std::to_string(id);
}

}  // namespace

struct GroupedFrame::Part {
    StrandSet strands;
    std::vector<Vec2f> rootUvs;
    std::vector<Vec3f> colors, pointColors;
    std::vector<GuideShares> shares;
};

bool GroupedFrame::isGrouped(const StrandSet& strands) {
    return strands.strandChannel(kGroupChannel) != nullptr;
}

GroupedFrame::GroupedFrame(const StrandFrame& frame, const std::string& name) {
    const StrandSet& strands = *frame.strands;
    const auto* numbers = strands.strandChannel(kGroupChannel);
    std::map<std::int32_t, std::vector<std::uint32_t>> members;
    for (std::uint32_t s = 0; s < strands.strandCount(); ++s) {
        const float number = numbers ? (*numbers)[s] : 0.0f;
        const bool fits = number > 0.0f && number < 2147483648.0f;
        members[fits ? std::int32_t(std::lrint(number)) : 0].push_back(s);
    }
    for (const auto& [id, which] : members) {
        parts_.push_back(std::make_unique<Part>());
        Part& part = *parts_.back();
        part.strands = strands.subset(which);
        part.rootUvs = picked(frame.rootUvs, which);
        part.colors = picked(frame.colors, which);
        part.shares = picked(frame.shares, which);
        if (!frame.pointColors.empty())
            for (const std::uint32_t s : which) {
                const auto from = frame.pointColors.subspan(std::size_t(strands.offsets()[s]),
                                                            strands.pointCountOf(s));
                part.pointColors.insert(part.pointColors.end(), from.begin(), from.end());
            }
        groups_.push_back(
            {id,
             nameOf(strands, id, name),
             {&part.strands, part.rootUvs, part.colors, part.pointColors, part.shares},
             false});
    }
}

GroupedFrame::~GroupedFrame() = default;

}  // namespace corvelle
