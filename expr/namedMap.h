#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "expr/mapSource.h"
#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

class StrandSet;

/// A painted map as expressions, Map nodes and mapped params read it: four components and their
/// luminance, at a place on the scalp. Everything is loaded and checked when the map is made:
/// sampling never throws, and is safe from parallel bodies.
class NamedMap {
public:
    virtual ~NamedMap() = default;
    /// At a root of the scalp the map was made for; an unrooted place reads its closest point, none 0.
    virtual float at(const StrandRoot& root, Vec3f position, MapComponent component) const = 0;
    virtual Color4f colorAt(const StrandRoot& root, Vec3f position) const = 0;
    /// Maps of kind guides: the strand channel that carries the layer, read instead where a set has
    /// it; empty for the other kinds.
    virtual std::string channel() const { return {}; }
    virtual std::uint64_t hash() const = 0;
};
using NamedMapPtr = std::shared_ptr<const NamedMap>;

}  // namespace corvelle
