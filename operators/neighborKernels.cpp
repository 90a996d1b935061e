#include "operators/neighborKernels.h"

#include "model/simd4.h"
#include "operators/neighborLanes.h"

namespace corvelle {

const NeighborKernels& neighborKernels(SplineLanes lanes) {
    static const NeighborKernels four = neighborKernelsOver<Float4>();
    static const NeighborKernels* const eight = neighborKernelsAvx2();
    static const NeighborKernels* const sixteen = neighborKernelsAvx512();
    if (sixteen && (lanes == SplineLanes::Widest || lanes == SplineLanes::Sixteen)) return *sixteen;
    return eight && lanes != SplineLanes::Four ? *eight : four;
}

}  // namespace corvelle
