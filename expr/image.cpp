#include "expr/image.h"

#include <filesystem>
#include <fstream>
#include <limits>

#include "expr/searchPaths.h"
#include "expr/texture.h"

// The one place that holds stb_image's code. Files are read by us, so that paths are Unicode on
// every platform; the formats nobody paints maps in stay out (version 2.27 also reads past the end
// of 16-bit PNM pictures when asked for four channels).
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_NO_STDIO
#define STBI_NO_GIF
#define STBI_NO_PIC
#define STBI_NO_PNM
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wall"
#pragma GCC diagnostic ignored "-Wextra"
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wunused-function"
#elif defined(_MSC_VER)
#pragma warning(push, 0)
#endif
#include <stb_image.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#elif defined(_MSC_VER)
#pragma warning(pop)
#endif

namespace corvelle {

namespace {

struct StbFree {
    void operator()(void* pixels) const { stbi_image_free(pixels); }
};

[[noreturn]] void throwUnreadable(const std::string& path, const std::string& reason) {
    throw TextureError("cannot read '" + path + "': " + reason);
}

}  // namespace

void Image::check() const {
    const bool sized = width > 0 && height > 0;
    const std::size_t wanted = sized ? std::size_t(width) * std::size_t(height) * 4 : 0;
    const bool fits = sized && (bytes.empty() ? floats.size() == wanted
                                              : bytes.size() == wanted && floats.empty());
    if (!fits) throw TextureError("Texture: size does not match its data");
}

ImagePtr decodeImage(std::span<const std::uint8_t> file, const std::string& path) {
    if (file.size() > std::size_t(std::numeric_limits<int>::max()))
        throwUnreadable(path, "the file is larger than 2 GiB");
    const stbi_uc* data = file.data();
    const int size = int(file.size());
    int width = 0, height = 0, channels = 0;
    auto image = std::make_shared<Image>();

    const auto take = [&](const auto* pixels, auto&& store) {
        if (!pixels) {
            const char* reason = stbi_failure_reason();
            throwUnreadable(path, reason ? reason : "unknown image type");
        }
        if (width <= 0 || height <= 0) throw TextureError("'" + path + "': empty image");
        image->width = width;
        image->height = height;
        store(std::size_t(width) * std::size_t(height) * 4);
    };
    if (stbi_is_hdr_from_memory(data, size)) {
        const std::unique_ptr<float, StbFree> pixels(
            stbi_loadf_from_memory(data, size, &width, &height, &channels, 4));
        take(pixels.get(),
             [&](std::size_t n) { image->floats.assign(pixels.get(), pixels.get() + n); });
    } else if (stbi_is_16_bit_from_memory(data, size)) {
        const std::unique_ptr<stbi_us, StbFree> pixels(
            stbi_load_16_from_memory(data, size, &width, &height, &channels, 4));
        take(pixels.get(), [&](std::size_t n) {
            image->floats.resize(n);
            for (std::size_t i = 0; i < n; ++i)
                image->floats[i] = float(pixels.get()[i]) / 65535.0f;
        });
    } else {
        const std::unique_ptr<stbi_uc, StbFree> pixels(
            stbi_load_from_memory(data, size, &width, &height, &channels, 4));
        take(pixels.get(),
             [&](std::size_t n) { image->bytes.assign(pixels.get(), pixels.get() + n); });
    }
    image->check();
    return image;
}

ImagePtr readImage(const std::string& path) {
    std::error_code error;
    const std::filesystem::path file = utf8Path(path);
    const auto status = std::filesystem::status(file, error);
    if (error || !std::filesystem::exists(status)) throwUnreadable(path, "file not found");
    if (std::filesystem::is_directory(status)) throwUnreadable(path, "it is a folder");
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throwUnreadable(path, "the file cannot be opened");
    std::vector<std::uint8_t> bytes;
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    if (!error && size <= std::uintmax_t(std::numeric_limits<int>::max())) {
        bytes.resize(std::size_t(size));
        stream.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(size));
        bytes.resize(std::size_t(stream.gcount()));
    } else {
        throwUnreadable(path, error ? "its size cannot be told" : "the file is larger than 2 GiB");
    }
    return decodeImage(bytes, path);
}

}  // namespace corvelle
