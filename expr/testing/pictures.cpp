#include "expr/testing/pictures.h"

#include <stdexcept>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wall"
#pragma GCC diagnostic ignored "-Wextra"
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wunused-function"
#elif defined(_MSC_VER)
#pragma warning(push, 0)
#endif
#include <stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#elif defined(_MSC_VER)
#pragma warning(pop)
#endif

namespace corvelle {

namespace {

void appendTo(void* text, void* data, int size) {
    static_cast<std::string*>(text)->append(static_cast<const char*>(data), std::size_t(size));
}

}  // namespace

std::vector<std::uint8_t> makePixels(int width, int height, int channels,
                                     const std::function<int(int, int, int)>& pixel) {
    std::vector<std::uint8_t> pixels;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) pixels.push_back(std::uint8_t(pixel(x, y, c)));
    return pixels;
}

void writePng(const std::string& path, int width, int height, int channels,
              const std::vector<std::uint8_t>& pixels) {
    std::string bytes;
    if (!stbi_write_png_to_func(appendTo, &bytes, width, height, channels, pixels.data(),
                                width * channels))
        throw std::runtime_error("cannot encode " + path);
    writeBytes(path, bytes);
}

void writeHdr(const std::string& path, int width, int height, const std::vector<float>& pixels) {
    std::string bytes;
    if (!stbi_write_hdr_to_func(appendTo, &bytes, width, height, 3, pixels.data()))
        throw std::runtime_error("cannot encode " + path);
    writeBytes(path, bytes);
}

}  // namespace corvelle
