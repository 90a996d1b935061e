#pragma once

#include "operators/deformLanes.h"
#include "operators/drawLanes.h"
#include "operators/liftLanes.h"
#include "operators/nearPartLanes.h"
#include "operators/partLanes.h"
#include "operators/placeLanes.h"
#include "operators/pullLanes.h"
#include "operators/strandLanes.h"

namespace corvelle {

namespace {

/// All kernels over F.
template <class F>
LaneKernels kernelsOver() {
    return {.lanes = F::kLanes,
            .resample = resampleLanes<F>,
            .draw = drawLanes<F>,
            .trim = trimLanes<F>,
            .widths = widthLanes<F>,
            .turn = turnLanes<F>,
            .step = stepLanes<F>,
            .smooth = smoothLanes<F>,
            .bend = bendLanes<F>,
            .away = awayLanes<F>,
            .lean = placeLanes<F, LeanJob>,
            .lay = placeLanes<F, LayJob>,
            .transform = placeLanes<F, TransformJob>,
            .pull = pullLanes<F>,
            .lift = liftLanes<F>,
            .nearPart = nearPartLanes<F>};
}

}  // namespace

}  // namespace corvelle
