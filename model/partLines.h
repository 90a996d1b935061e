#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "model/partTable.h"
#include "model/vec3f.h"

namespace corvelle {

/// A place on a drawn part.
struct PartPlace {
    Vec3f position;
    Vec3f along;            ///< unit, the way the line runs there; zero where two points are one
    float distance = 0.0f;  ///< cm, straight, from where was asked
};

/// The parts drawn on a scalp, as operators read them: polylines on the surface across which guides
/// and neighbours are not blended. Immutable, any thread may read.
class PartLines {
public:
    virtual ~PartLines() = default;
    /// True when the straight way from one root to another crosses a part.
    virtual bool separates(Vec3f rootA, Vec3f rootB) const = 0;
    /// What `nearest` knows the parts of that name by; -1 when none lies on the scalp.
    virtual std::int32_t find(std::string_view /*name*/) const { return -1; }
    /// The nearest place no farther than `maxDistance` (cm, straight) on the parts found by that
    /// number, -1 for all parts; false for none, and `out` stays. Cost: O(log n) near a part.
    virtual bool nearest(Vec3f /*position*/, std::int32_t /*part*/, float /*maxDistance*/,
                         PartPlace& /*out*/) const {
        return false;
    }
    /// The same segments for kernels that look for many roots' nearest places at once.
    virtual PartTable table() const { return {}; }
    virtual bool empty() const = 0;
    virtual std::uint64_t hash() const = 0;
};

}  // namespace corvelle
