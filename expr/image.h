#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace corvelle {

/// Decoded pixels, four channels a pixel, row 0 on top. Either `bytes` or `floats` is filled: 8-bit
/// files stay bytes, 16-bit files become floats in 0..1, HDR files floats as stored. Immutable once
/// shared.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> bytes;  ///< [width * height * 4]
    std::vector<float> floats;        ///< [width * height * 4]

    bool eightBit() const { return !bytes.empty(); }
    std::size_t byteCount() const { return bytes.size() + floats.size() * sizeof(float); }
    /// Throws TextureError "Texture: size does not match its data".
    void check() const;
};
using ImagePtr = std::shared_ptr<const Image>;

/// Decodes a PNG, JPEG, TGA, BMP, PSD or HDR file held in memory; `path` is for messages.
/// Throws TextureError "cannot read '<path>': <reason>" or "'<path>': empty image".
ImagePtr decodeImage(std::span<const std::uint8_t> file, const std::string& path);

/// Reads and decodes a file. Throws TextureError, also "cannot read '<path>': file not found".
ImagePtr readImage(const std::string& path);

}  // namespace corvelle
