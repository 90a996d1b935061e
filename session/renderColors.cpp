#include "session/renderColors.h"

#include "model/parallel.h"
#include "operators/hairPigment.h"

namespace corvelle {

namespace {

using Channel3 = std::array<const std::vector<float>*, 3>;

bool complete(const Channel3& c) { return c[0] && c[1] && c[2]; }

std::vector<Vec3f> interleave(const Channel3& c) {
    std::vector<Vec3f> out(c[0]->size());
    parallelRange(0, out.size(), kChunkElements, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) out[i] = {(*c[0])[i], (*c[1])[i], (*c[2])[i]};
    });
    return out;
}

}  // namespace

RenderColors renderColors(const StrandSet& strands, const ScalpMesh* scalp) {
    RenderColors out;
    const std::size_t count = strands.strandCount();
    const auto roots = strands.roots();
    if (scalp && !scalp->uvs().empty()) {
        out.rootUV.resize(count);
        parallelRange(0, count, kStrandGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s)
                if (scalp->validRoot(roots[s])) out.rootUV[s] = scalp->surfaceUv(roots[s]);
        });
    }
    const Channel3 perStrand = {strands.strandChannel("colorR"), strands.strandChannel("colorG"),
                                strands.strandChannel("colorB")};
    const Channel3 perPoint = {strands.pointChannel("colorR"), strands.pointChannel("colorG"),
                               strands.pointChannel("colorB")};
    out.color = complete(perStrand) ? interleave(perStrand)
                                    : std::vector<Vec3f>(count, pigmentColor(kDefaultMelanin, kDefaultRedness));
    if (complete(perPoint)) out.pointColor = interleave(perPoint);
    return out;
}

}  // namespace corvelle
