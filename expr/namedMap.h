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
/// luminance, at a place on the scalp. A gray map gives its value on r, g, b and luminance, and 1 on
/// a. Everything is loaded and checked when the map is made: sampling never throws, and is safe from
/// parallel bodies. Loops use the batch forms: one dispatch a batch, with the bits of the single forms.
class NamedMap {
public:
    virtual ~NamedMap() = default;
    /// At a root of the scalp the map was made for; an unrooted place reads its closest point, none 0.
    virtual float at(const StrandRoot& root, Vec3f position, MapComponent component) const = 0;
    virtual Color4f colorAt(const StrandRoot& root, Vec3f position) const = 0;
    /// Shapes: roots, positions, out [n].
    virtual void values(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                        MapComponent component, std::span<float> out) const;
    virtual void colors(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                        std::span<Color4f> out) const;
    /// The same at the roots of strands of a set: out[i] for strands[i].
    virtual void strandValues(const StrandSet& set, std::span<const std::uint32_t> strands,
                              MapComponent component, std::span<float> out) const;
    virtual void strandColors(const StrandSet& set, std::span<const std::uint32_t> strands,
                              std::span<Color4f> out) const;
    /// Maps of kind guides: the strand channel that carries the layer, read instead where a set has
    /// it; empty for the other kinds.
    virtual std::string channel() const { return {}; }
    virtual std::uint64_t hash() const = 0;
};
using NamedMapPtr = std::shared_ptr<const NamedMap>;

}  // namespace corvelle
