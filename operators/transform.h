#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "model/strandSet.h"
#include "model/vec3f.h"
#include "operators/rootFrame.h"
#include "operators/strandLoop.h"

namespace corvelle {

/// The turn by `degrees.x` about x, then `degrees.y` about y, then `degrees.z` about z: fixed axes,
/// those of `frame`.
Rotation turnInFrame(Vec3f degrees, const RootFrame& frame);

/// Scales a strand about its root, turns it, and sets its root on `root`. points [n], out [n].
void placeStrand(std::span<const Vec3f> points, float scale, const Rotation& turn, Vec3f root,
                 std::span<Vec3f> out);

/// How the strands of a batch are placed, by their places in it.
class Placements {
public:
    /// `turn` may be any matrix.
    void set(std::size_t place, const Rotation& turn, Vec3f root) {
        // Here and by components: rows copied whole are loads that wait for their parts' stores.
        float* const to = &numbers_[12 * place];
        put(to, turn.row0);
        put(to + 3, turn.row1);
        put(to + 6, turn.row2);
        put(to + 9, root);
    }
    /// Places the listed strands as placeStrand does, several side by side.
    void apply(const StrandSet& in, std::span<const std::uint32_t> strands,
               std::span<Vec3f> out) const;

private:
    static void put(float* to, const Vec3f& v) {
        to[0] = v.x;
        to[1] = v.y;
        to[2] = v.z;
    }
    std::array<float, 12 * StrandPick::kBatch> numbers_;
};

}  // namespace corvelle
