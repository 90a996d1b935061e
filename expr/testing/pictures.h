#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "model/testing/tempFolder.h"

namespace corvelle {

/// Bytes of a picture, row 0 on top: pixel(x, y, channel).
std::vector<std::uint8_t> makePixels(int width, int height, int channels,
                                     const std::function<int(int, int, int)>& pixel);
void writePng(const std::string& path, int width, int height, int channels,
              const std::vector<std::uint8_t>& pixels);
/// Three floats a pixel, as Radiance HDR.
void writeHdr(const std::string& path, int width, int height, const std::vector<float>& pixels);

}  // namespace corvelle
