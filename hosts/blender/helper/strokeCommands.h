#pragma once

#include <vector>

#include "hosts/blender/helper/command.h"
#include "tools/brushTool.h"

namespace corvelle {

Json toolCatalogCommand(const CommandContext& context);
Json toolSetCommand(const CommandContext& context);
Json toolGetCommand(const CommandContext& context);
Json strokeBeginCommand(const CommandContext& context);
Json strokeDragCommand(const CommandContext& context);
Json strokeEndCommand(const CommandContext& context);
Json strokeCancelCommand(const CommandContext& context);
Json undoCommand(const CommandContext& context);  ///< of redo too
Json undoStateCommand(const CommandContext& context);

/// Points in pixels: a list of [x, y] or [x, y, pressure]. `notList` is what is said of another
/// value.
std::vector<StrokePoint> readPixels(const Json& value, float pressure, const char* notList);
/// The request's view, stored for later calls, or the one stored.
/// Throws RequestError: what `decodeView` throws; code state, "no view: give "view" (the region's
/// matrices and size)".
const ToolView& requireView(const CommandContext& context);
/// A required number of a request, as a float.
float requirePixel(const Json& request, const char* key);

}  // namespace corvelle
