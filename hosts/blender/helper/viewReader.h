#pragma once

#include "hosts/blender/helper/request.h"
#include "session/sceneSpace.h"
#include "tools/toolView.h"

namespace corvelle {

/// Reads a view of a request: {"viewMatrix", "projectionMatrix"} or {"perspectiveMatrix"}, their
/// product; "objectMatrix" (from the session's host space to the world of the view); "width",
/// "height" in pixels; "target", a point of host space. Matrices work on columns and are 4 rows of
/// 4 numbers, or 16 numbers rows first; clip z runs over -w..w. The way from groom space to the
/// host's is folded in: the view that comes out takes groom space. Throws RequestError
/// (bad_request) naming the field.
ToolView decodeView(const Json& value, const SceneSpace& space);

/// The view as the brush understood it, in groom space.
Json viewJson(const ToolView& view);

/// "<label> is a point [x, y, z]", also for what is not finite.
Vec3f readPoint(const Json& value, std::string_view label);

}  // namespace corvelle
