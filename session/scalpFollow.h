#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <utility>

#include "model/guideSet.h"
#include "model/scalpMesh.h"
#include "model/strandSet.h"

namespace corvelle {

/// Strands carried with their roots from one pose of the scalp to another, rigidly per root; layers
/// and vane normals go along. Strands whose triangle did not move keep their bits. Parallel.
StrandsPtr deformToScalp(const StrandsPtr& strands, const ScalpMesh& rest, const ScalpMesh& current);
/// Flat guides likewise.
GuidesPtr deformGuides(const GuidesPtr& guides, const ScalpMesh& from, const ScalpMesh& to);
/// Each guide's root becomes the closest point of `scalp` to its first point; points stay.
GuidesPtr rerootGuides(const GuidesPtr& guides, const ScalpMesh& scalp);

/// What a session keeps while its groom is evaluated at rest and follows a moving scalp.
struct ScalpFollow {
    bool following = false;
    bool noRestWarned = false;
    ScalpPtr restScalp;
    std::uint64_t restScalpKey = 0;
    /// The four newest deformations: the same strands and meshes give the same object.
    struct Slot {
        StrandsPtr strands, result;
        ScalpPtr rest, current;
    };
    std::array<Slot, 4> slots;
    /// Flat guides carried back to rest, by the objects they were made from.
    struct {
        GuidesPtr from, result;
        ScalpPtr rest, current;
    } guides;

    StrandsPtr deformed(const StrandsPtr& strands, const ScalpPtr& rest, const ScalpPtr& current);
};

}  // namespace corvelle
