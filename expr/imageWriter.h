#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace corvelle {

// Encoders of pictures. Pixels lie row after row, the top one first, `channels` values a pixel. A PNG
// is stored, not compressed (W3C, "Portable Network Graphics", 2nd edition; Deutsch, RFC 1950 and
// 1951): a painted map is written at every stroke, and disk is cheaper than the wait.
//
// Throws: std::invalid_argument "<function>: bad size or channels" (a size below 1, one that the
//         format cannot hold, or channels it has no word for) and "<function>: pixel count does not
//         match the size".
// Cost:   O(pixels), one pass; pure.

/// `channels`: 1 gray, 3 RGB, 4 RGBA.
std::vector<std::uint8_t> encodePng(std::span<const std::uint8_t> pixels, int width, int height,
                                    int channels);
std::vector<std::uint8_t> encodePng16(std::span<const std::uint16_t> pixels, int width, int height,
                                      int channels);
/// The same from rows that are made one at a time: row(y, out) fills `width * channels` bytes.
using PixelRow = std::function<void(int y, std::span<std::uint8_t> out)>;
std::vector<std::uint8_t> encodePngRows(const PixelRow& row, int width, int height, int channels);
/// Not packed: gray (type 3), or colour with blue first (type 2), the first row on top. Sides up to
/// 65535.
std::vector<std::uint8_t> encodeTga(std::span<const std::uint8_t> pixels, int width, int height,
                                    int channels);

/// Writes a PNG beside `path` (UTF-8) and renames it there. Throws also std::runtime_error "can't
/// write <path>", with the file that was there left as it is.
void writePng(const std::string& path, std::span<const std::uint8_t> pixels, int width, int height,
              int channels);
/// The same for bytes that are a picture's file already.
void writePictureFile(const std::string& path, std::span<const std::uint8_t> bytes);

}  // namespace corvelle
