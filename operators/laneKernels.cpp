#include "operators/laneKernels.h"

#include "model/simd4.h"
#include "operators/laneTable.h"

namespace corvelle {

const LaneKernels& laneKernels(SplineLanes lanes) {
    static const LaneKernels four = kernelsOver<Float4>();
    static const LaneKernels* const eight = laneKernelsAvx2();
    static const LaneKernels* const sixteen = laneKernelsAvx512();
    if (sixteen && (lanes == SplineLanes::Widest || lanes == SplineLanes::Sixteen)) return *sixteen;
    return eight && lanes != SplineLanes::Four ? *eight : four;
}

}  // namespace corvelle
