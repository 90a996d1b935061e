#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "tools/brushWeight.h"
#include "tools/paintImage.h"
#include "tools/pixelOwners.h"
#include "tools/pixelSeams.h"

namespace corvelle {

/// An image map under paint. The tiles a stroke touches are worked on as floats, so that weak
/// stamps add up; they become bytes again when the image is asked for. Tiles that keep their bytes
/// stay the very tiles. Used on one thread; a stamp works in parallel inside, with the same bits at
/// any thread count.
class TexturePaint {
public:
    explicit TexturePaint(std::shared_ptr<const PaintImage> image);

    int width() const { return image_->width(); }
    int height() const { return image_->height(); }
    int channels() const { return image_->channels(); }

    /// What is painted on: the bits 1, 2, 4, 8 of red, green, blue, alpha. A gray image paints all
    /// it has, whatever the mask.
    void setChannels(std::uint32_t mask);
    /// Begins a stroke on a scalp in the pose shown. Throws std::invalid_argument "the scalp has no
    /// UVs to paint a texture map on".
    void beginEdit(const ScalpPtr& scalp);
    /// One stamp: every pixel that shows a place under it moves towards `color` by
    /// min(strength * weight, 1), and stays within 0..1. Returns whether any value changed.
    bool applyEdit(const BrushStamp& stamp, float strength, const std::array<float, 4>& color);
    /// The same towards the mean of the pixel's four neighbours on the scalp, seams of the UVs or
    /// not.
    bool smoothEdit(const BrushStamp& stamp, float strength);
    /// The image as painted so far: the very object of the last call while nothing changed.
    std::shared_ptr<const PaintImage> image();
    /// Ends the stroke. What it changed at the rim of the islands also goes to the pixels up to 2
    /// beyond, which blending between pixels reads.
    std::shared_ptr<const PaintImage> endEdit();

private:
    struct Task {
        std::uint32_t tile = 0;
        std::uint16_t block = 0;
    };
    struct Work {
        std::vector<float> values;  ///< [kPixels * channels]
        bool stale = false;         ///< differs from the image's tile
    };
    /// The blocks a stamp reaches, their tiles made ready.
    std::vector<Task> reached(const BrushStamp& stamp);
    void open(const std::vector<Task>& tasks);
    template <class Pixel>
    bool stampBlocks(const std::vector<Task>& tasks, const BrushStamp& stamp, float strength,
                     Pixel&& pixel);
    float valueAt(int x, int y, std::size_t channel) const;
    /// Empty for a pixel without neighbours. The tile's seams are prepared.
    std::optional<float> meanAround(std::size_t tile, std::size_t place, std::size_t channel) const;
    void pad(std::vector<PixelTilePtr>& tiles) const;

    std::shared_ptr<const PaintImage> image_;  ///< as of the last `image`
    std::shared_ptr<const PaintImage> start_;  ///< as the stroke began
    std::uint32_t mask_ = 15;
    std::shared_ptr<PixelOwners> owners_;
    std::unique_ptr<PixelSeams> seams_;        ///< made by the first smooth stamp
    std::vector<std::unique_ptr<Work>> work_;  ///< by tile; null: not touched
};

}  // namespace corvelle
