#include "expr/testing/pictures.h"

#include <atomic>
#include <fstream>
#include <random>
#include <stdexcept>

#include "expr/searchPaths.h"

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

TempFolder::TempFolder() {
    static std::atomic<unsigned> counter{0};
    static const unsigned run = std::random_device{}();
    folder_ = std::filesystem::temp_directory_path() /
              ("corvelle_test_" + std::to_string(run) + "_" + std::to_string(counter++));
    std::filesystem::create_directories(folder_);
}

TempFolder::~TempFolder() {
    std::error_code error;
    std::filesystem::remove_all(folder_, error);
}

std::string TempFolder::file(const std::string& name) const {
    const std::filesystem::path path = folder_ / utf8Path(name);
    std::filesystem::create_directories(path.parent_path());
    return utf8Text(path);
}

std::string TempFolder::path() const { return utf8Text(folder_); }

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

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream stream(utf8Path(path), std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), std::streamsize(bytes.size()));
    if (!stream) throw std::runtime_error("cannot write " + path);
}

}  // namespace corvelle
