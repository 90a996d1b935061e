#pragma once

#include <string>

namespace corvelle {

/// A three-way merge of graph texts: `ours` with what changed from `base` to `theirs`.
///
/// Undoing an edit that led from A to B, in a graph that has since become C, is
/// mergeGraphs(B, C, A): what the edit added goes, what it changed goes back, and all that was done
/// to the graph since stays. Nodes are known by name, connections by where they end, inputs of
/// params by the param. What `theirs` takes away goes even if it was changed since; what both
/// changed stays as in `ours`; connections that have lost a node go. Blank texts are empty graphs.
/// Throws what the JSON library throws for a text that is no JSON.
std::string mergeGraphs(const std::string& base, const std::string& ours,
                        const std::string& theirs);

}  // namespace corvelle
