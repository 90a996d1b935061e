#include "operators/laneKernels.h"

#include "model/simd4.h"
#include "operators/deformLanes.h"
#include "operators/liftLanes.h"
#include "operators/pullLanes.h"
#include "operators/strandLanes.h"

namespace corvelle {

const LaneKernels& laneKernels(SplineLanes lanes) {
    static const LaneKernels four{trimLanes<Float4>,    widthLanes<Float4>,  turnLanes<Float4>,
                                  stepLanes<Float4>,    smoothLanes<Float4>, placeLanes<Float4>,
                                  headingLanes<Float4>, bendLanes<Float4>,   pullLanes<Float4>,
                                  liftLanes<Float4>};
    static const LaneKernels* const eight = laneKernelsAvx2();
    return eight && lanes != SplineLanes::Four ? *eight : four;
}

}  // namespace corvelle
