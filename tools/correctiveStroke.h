#pragma once

#include "tools/strokeState.h"

namespace corvelle {

/// Turns what a stroke changed into offsets of the host's active layer of correctives, and puts the
/// layers into the document: all of them, and the active one alone. A guide's offset is what the
/// stroke moved it beside what it followed, over the layer's weight on this frame, on top of the
/// offset it had; guides whose offsets are all below 0.0001 of their length leave the layer.
/// False, with a warning at the host, when the layer has a weight below 0.001 there.
bool commitCorrective(const StrokeState& state, StrokeHost& host, StrokeDocument& document);

}  // namespace corvelle
