#pragma once

#include "graph/graph.h"

namespace corvelle {

/// Registers, once, the types below. All are deterministic and small; those with `update` give the
/// bits of a full run.
///
///   TestTuft      source: `strands` strands of `points` points (whole), `shift`, `seed`; a "clumpId"
///   TestMove      moves points sideways by `amount` (mappable, per point) on a `share` of the strands
///                 ("choose" by id); `update`. `seed`, `direction` (vec3, expression), `profile` (ramp)
///   TestWidth     widths from `width` (mappable); `update`
///   TestTag       strand channels "clumpId" (discrete) and "tone" from `value`; `update`
///   TestSmear     each strand takes on a share of the one before it: full runs only
///   TestReach     the same with `update`: its changes hold the neighbours too
///   TestThin      keeps strands by id below `keep`: the layout changes; full runs only
///   TestMerge     a and b (optional) one behind the other
///   TestSwitch    a or b by `second`: the other branch is not walked
///   TestSplit     outputs a and b: strands below and above `share`
///   TestGuides    the flat guides of the context; `update` on changes of its own
///   TestFollow    moves strand i by the tip of guide i modulo their count; `update`
///   TestField, TestCurve   a constant field of `value`; the ramp `curve`
///   TestClock, TestGrow, TestView   one width everywhere: the frame, growSegments, viewport
///   TestFail      throws GraphError `text` (std::bad_alloc for "memory"), else passes its input
///   TestWarn      raises `text` as a warning of the run
///   TestWrong     states wrong changes or strands, by `lie`, in its `update`
///   TestOuter     gives the context's compound input `name` of type `type`
///   Resample      `segments`; passes its input
///   Scatter, Flyaway   `seed` (Flyaway passes its input)
void registerTestOperators();

/// A graph builder: adds a node of a type and name.
NodeId addTestNode(Graph& graph, const std::string& type, const std::string& name);
/// The strands a node evaluates to.
StrandsPtr evaluateStrands(Graph& graph, NodeId node, const EvaluationData& data = {});

/// A field of one value that counts nothing and binds nothing.
FieldPtr constantTestField(float value);

}  // namespace corvelle
