#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/partLines.h"
#include "model/scalpMesh.h"
#include "model/strandRoot.h"

namespace corvelle {

/// One drawn part: a polyline on the scalp, its points given as roots are.
struct PartLine {
    std::string name;
    std::vector<StrandRoot> points;  ///< 2 or more
    friend bool operator==(const PartLine&, const PartLine&) = default;
};

/// The parts of a groom, as its document holds them.
struct PartData {
    std::vector<PartLine> lines;
    friend bool operator==(const PartData&, const PartData&) = default;
};

/// Blank text, or `{"parts": [{"name": ..., "points": [[triangle, u, v], ...]}, ...], "version":
/// 1}`. Throws: std::invalid_argument "part data version is newer than this Corvelle supports", "a
/// part
///         needs at least two points on the scalp", or naming the part and the field that is wrong;
///         for text that is no JSON what the JSON library says.
PartData readPartData(std::string_view text);
/// The same text back, keys ascending, floats in their shortest form; empty for no parts.
std::string partDataJson(const PartData& data);

/// Every point moved to the nearest one of the new scalp; those on no triangle of the old one are
/// left out, and so are lines that fewer than two are left of. Throws: std::invalid_argument
/// "transfer: the new scalp has no faces".
PartData transferParts(const PartData& data, const ScalpMesh& from, const ScalpMesh& to);

/// The parts as they lie on a scalp. Points on no triangle of it are left out.
///
/// A part stands on the surface as a thin wall along the normals at its points. Two roots are apart
/// when the straight way between them goes through the wall, whose height above and below the
/// surface is 0.4 times that way's length, for the way dips below a round surface, and a quarter
/// of the part's longest segment there, which dips too. So a part says nothing of roots far below
/// it, as on the other side of a head. Neighbouring pieces of wall share their edges: nothing slips
/// between them. The answer for (a, b) is that for (b, a).
/// Cost: O(log n) for short ways, over a tree of boxes round the segments.
std::shared_ptr<const PartLines> partLinesOn(const PartData& data, const ScalpPtr& scalp);

}  // namespace corvelle
