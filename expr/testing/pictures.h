#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace corvelle {

/// A folder of its own below the system's temporary one, gone with this object.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    /// The path of a file in it, UTF-8; folders on the way are made.
    std::string file(const std::string& name) const;
    std::string path() const;

private:
    std::filesystem::path folder_;
};

/// Bytes of a picture, row 0 on top: pixel(x, y, channel).
std::vector<std::uint8_t> makePixels(int width, int height, int channels,
                                     const std::function<int(int, int, int)>& pixel);
void writePng(const std::string& path, int width, int height, int channels,
              const std::vector<std::uint8_t>& pixels);
/// Three floats a pixel, as Radiance HDR.
void writeHdr(const std::string& path, int width, int height, const std::vector<float>& pixels);
void writeBytes(const std::string& path, const std::string& bytes);

}  // namespace corvelle
