#pragma once

#include "hosts/blender/helper/displayBuilder.h"

namespace corvelle {

// The drawables of the viewport, one function each: vertices in groom space, lines as pairs,
// triangles as triples, colours linear. Guides are drawn as the curve through their points, hidden
// groups and other levels than the one shown left out. Parallel over guides; the same at any thread
// count.

void buildGuides(const DisplaySource& source, const DisplaySettings& settings,
                 DisplayGeometry& out);
void buildSelection(const DisplaySource& source, const DisplaySettings& settings,
                    DisplayGeometry& out);
void buildDots(const DisplaySource& source, const DisplaySettings& settings, DisplayGeometry& out);
void buildTubes(const DisplaySource& source, const DisplaySettings& settings, DisplayGeometry& out);
void buildTubeWires(const DisplaySource& source, const DisplaySettings& settings,
                    DisplayGeometry& out);
void buildFlow(const DisplaySource& source, const DisplaySettings& settings, DisplayGeometry& out);
void buildParts(const DisplaySource& source, const DisplaySettings& settings, DisplayGeometry& out);
void buildClumpCenters(const DisplaySource& source, const DisplaySettings& settings,
                       DisplayGeometry& out);

}  // namespace corvelle
