#pragma once

#include "model/flowData.h"
#include "model/partData.h"
#include "model/scalpMesh.h"
#include "tools/brushToolSettings.h"
#include "tools/brushWeight.h"

namespace corvelle {

/// One stamp on part lines, by `settings.mode`: comb, smooth, straighten, twist and attract move
/// their points along the scalp; cut takes points out and splits lines; length grows or trims their
/// ends; erase takes whole lines. Other modes do nothing. Returns whether anything changed.
bool stampParts(PartData& parts, const ScalpMesh& scalp, const BrushToolSettings& settings,
                const BrushStamp& stamp, Vec3f drag);
/// One stamp on flow: comb turns arrows towards the drag, cut and erase take arrows out, erase also
/// sinks. Other modes do nothing. Returns whether anything changed.
bool stampFlow(FlowData& flow, const ScalpMesh& scalp, const BrushToolSettings& settings,
               const BrushStamp& stamp, Vec3f drag);

/// The places of a part's points on a pose of the scalp; points on no triangle are at the origin.
std::vector<Vec3f> partPlaces(const PartLine& line, const ScalpMesh& scalp);

}  // namespace corvelle
