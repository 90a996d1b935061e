#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/vec3f.h"

namespace corvelle {

/// The parts drawn on a scalp, as operators read them: polylines on the surface across which guides
/// and neighbours are not blended. Immutable, any thread may read.
class PartLines {
public:
    virtual ~PartLines() = default;
    /// True when the straight way from one root to another crosses a part.
    virtual bool separates(Vec3f rootA, Vec3f rootB) const = 0;
    virtual bool empty() const = 0;
    virtual std::uint64_t hash() const = 0;
};

}  // namespace corvelle
