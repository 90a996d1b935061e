#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "tools/pixelOwners.h"

namespace corvelle {

/// The four neighbours of an image's pixels on the scalp: mostly the pixels beside them. Where the
/// UVs are cut, what lies on the other side of the cut, on whatever island that is; nothing at an
/// open border of the scalp. Islands that touch in the image alone are no neighbours.
///
/// Used on one thread, but for `prepare`, which works in parallel inside.
class PixelSeams {
public:
    static constexpr std::size_t kSides = 4;
    /// From a pixel to its neighbours: left, right, above, below.
    static constexpr std::array<std::array<int, 2>, kSides> kSteps = {
        {{-1, 0}, {1, 0}, {0, -1}, {0, 1}}};

    /// The pixels about a place beyond a cut and their shares, which add up to 1.
    struct Landing {
        std::uint32_t key = 0;                 ///< 4 times the place in the tile, plus the side
        std::array<std::uint32_t, 4> pixel{};  ///< y times the width plus x
        std::array<float, 4> share{};
    };
    struct Tile {
        std::vector<std::uint8_t> cuts;  ///< [PixelTile::kPixels] bits by side; empty: no pixels
        std::vector<Landing> landings;   ///< by ascending key

        bool isCut(std::size_t place, std::size_t side) const { return cuts[place] >> side & 1u; }
        /// Of a cut side; null: nothing is there.
        const Landing* landing(std::size_t place, std::size_t side) const;
    };

    /// `owners` is of a scalp with queries to ask.
    explicit PixelSeams(std::shared_ptr<PixelOwners> owners);
    /// Makes the tables of these tiles, where they lack, and those of `owners` about them.
    void prepare(std::span<const std::size_t> tiles);
    /// Of a prepared tile.
    const Tile& tile(std::size_t tile) const { return *tiles_[tile]; }

private:
    struct Crossing {
        std::uint32_t key = 0;
        float x = 0.0f, y = 0.0f;  ///< pixels of the picture
        Vec3f place;
        float reach = 0.0f;  ///< cm: what lies farther from the place belongs to another island
    };
    std::unique_ptr<Tile> findCuts(std::size_t tile, std::vector<Crossing>& crossings) const;
    bool cross(Vec3f place, float step, std::int32_t triangle, int x, int y, Crossing& out) const;
    void land(const std::vector<Crossing>& crossings, Tile& tile) const;

    std::shared_ptr<PixelOwners> owners_;
    std::vector<std::unique_ptr<const Tile>> tiles_;
};

}  // namespace corvelle
