#include "operators/pointArrays.h"

#include <algorithm>

namespace corvelle {

bool takeStrandData(const StrandSet& in, StrandSet& out) {
    out.shareStrands(in);
    for (const std::string& channel : out.strandChannelNames())
        if (!in.strandChannel(channel)) out.removeStrandChannel(channel);
    out.instances = in.instances;
    out.cards = in.cards;
    out.featherLayers = in.featherLayers;
    return std::ranges::all_of(in.strandChannelNames(), [&](const std::string& channel) {
        return out.copyStrandChannel(channel, in);
    });
}

std::vector<PointArray> openPointArrays(const StrandSet& in, StrandSet& out, bool overwrite) {
    std::vector<PointArray> arrays;
    if (overwrite) out.overwritePoints();
    arrays.push_back({in.widths().data(),
                      (overwrite ? out.overwriteWidths() : out.mutableWidths()).data(), false});
    for (const auto& [key, channel] : in.pointChannels()) {
        const std::span<float> to = overwrite ? out.overwritePointChannel(key, channel.defaultValue)
                                              : out.mutablePointChannel(key, channel.defaultValue);
        arrays.push_back({channel.values.span().data(), to.data(), channel.discrete});
        out.setPointChannelDiscrete(key, channel.discrete);
    }
    return arrays;
}

}  // namespace corvelle
