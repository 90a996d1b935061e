#include "expr/imageWriter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "expr/textureCache.h"
#include "model/fileReplace.h"

namespace corvelle {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::array<std::uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr std::size_t kBlock = 65535;              ///< bytes of a stored DEFLATE block, at most
constexpr std::size_t kBlockHeader = 5;            ///< last flag, length, its complement
constexpr std::size_t kChunk = 12;                 ///< bytes of a chunk beside its data
constexpr std::size_t kLongestChunk = 0x7fffffff;  ///< PNG's own limit
constexpr std::uint32_t kAdlerBase = 65521;
constexpr std::size_t kAdlerRun = 5552;  ///< bytes whose sums still fit 32 bits

/// Eight tables: table k gives the remainder of a byte that k further bytes follow (Kounavis,
/// Berry, "Novel table lookup-based algorithms for high-performance CRC generation", IEEE Trans.
/// Comput. 57(11), 2008).
using CrcTables = std::array<std::array<std::uint32_t, 256>, 8>;
constexpr CrcTables kCrc = [] {
    CrcTables t{};
    for (std::uint32_t n = 0; n < 256; ++n) {
        std::uint32_t c = n;
        for (int k = 0; k < 8; ++k) c = c & 1u ? 0xedb88320u ^ (c >> 1) : c >> 1;
        t[0][n] = c;
    }
    for (std::size_t k = 1; k < 8; ++k)
        for (std::size_t n = 0; n < 256; ++n)
            t[k][n] = t[0][t[k - 1][n] & 0xffu] ^ (t[k - 1][n] >> 8);
    return t;
}();

std::uint32_t crcOf(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = 0xffffffffu;
    const std::uint8_t* p = bytes.data();
    std::size_t left = bytes.size();
    for (; left >= 8; left -= 8, p += 8) {
        crc ^= std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
               std::uint32_t(p[3]) << 24;
        crc = kCrc[7][crc & 0xffu] ^ kCrc[6][(crc >> 8) & 0xffu] ^ kCrc[5][(crc >> 16) & 0xffu] ^
              kCrc[4][crc >> 24] ^ kCrc[3][p[4]] ^ kCrc[2][p[5]] ^ kCrc[1][p[6]] ^ kCrc[0][p[7]];
    }
    for (; left > 0; --left, ++p) crc = kCrc[0][(crc ^ *p) & 0xffu] ^ (crc >> 8);
    return crc ^ 0xffffffffu;
}

/// Adler-32 of a stream that comes in pieces.
struct Adler {
    std::uint32_t a = 1, b = 0;
    void add(std::span<const std::uint8_t> bytes) {
        for (std::size_t at = 0; at < bytes.size(); at += kAdlerRun) {
            const std::size_t end = std::min(bytes.size(), at + kAdlerRun);
            for (std::size_t i = at; i < end; ++i) {
                a += bytes[i];
                b += a;
            }
            a %= kAdlerBase;
            b %= kAdlerBase;
        }
    }
    std::uint32_t value() const { return b << 16 | a; }
};

/// Writes forward through a buffer of the right size.
class Cursor {
public:
    explicit Cursor(Bytes& out) : at_(out.data()) {}
    std::uint8_t* at() const { return at_; }
    void byte(unsigned value) { *at_++ = std::uint8_t(value); }
    void big32(std::uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) byte(value >> shift);
    }
    void bytes(const void* from, std::size_t count) {
        std::memcpy(at_, from, count);
        at_ += count;
    }

private:
    std::uint8_t* at_;
};

/// Begins a chunk; returns where the part that its CRC covers starts.
const std::uint8_t* openChunk(Cursor& out, const char (&type)[5], std::size_t length) {
    out.big32(std::uint32_t(length));
    const std::uint8_t* start = out.at();
    out.bytes(type, 4);
    return start;
}
void closeChunk(Cursor& out, const std::uint8_t* start) { out.big32(crcOf({start, out.at()})); }

/// Cuts a stream of `total` bytes into stored blocks.
class StoredBlocks {
public:
    StoredBlocks(Cursor& out, std::size_t total) : out_(out), left_(total) {}
    void add(std::span<const std::uint8_t> bytes) {
        adler_.add(bytes);
        while (!bytes.empty()) {
            if (room_ == 0) open();
            const std::size_t n = std::min(room_, bytes.size());
            out_.bytes(bytes.data(), n);
            bytes = bytes.subspan(n);
            room_ -= n;
            left_ -= n;
        }
    }
    std::uint32_t adler() const { return adler_.value(); }

private:
    void open() {
        room_ = std::min(kBlock, left_);
        const unsigned size = unsigned(room_), complement = ~size;
        out_.byte(room_ == left_);
        for (const unsigned v : {size, size >> 8, complement, complement >> 8})
            out_.byte(v & 0xffu);
    }
    Cursor& out_;
    std::size_t left_;
    std::size_t room_ = 0;
    Adler adler_;
};

/// The PNG colour type of a channel count; -1 for none.
int colorType(int channels) {
    switch (channels) {
        case 1:
            return 0;
        case 3:
            return 2;
        case 4:
            return 6;
        default:
            return -1;
    }
}

/// Bytes of the data of a PNG's IDAT; 0 where the format has no room for it.
std::size_t idatSize(int width, int height, int channels, int bytesPerValue) {
    if (width < 1 || height < 1 || colorType(channels) < 0) return 0;
    const double wanted = double(height) * (double(width) * channels * bytesPerValue + 1.0);
    if (wanted > 0.99 * double(kLongestChunk)) return 0;
    const std::size_t raw =
        std::size_t(height) * (std::size_t(width) * std::size_t(channels * bytesPerValue) + 1);
    return 2 + raw + kBlockHeader * ((raw + kBlock - 1) / kBlock) + 4;
}

void check(const char* function, bool fits, std::size_t given, int width, int height,
           int channels) {
    const std::string name(function);
    if (!fits) throw std::invalid_argument(name + ": bad size or channels");
    if (given != std::size_t(width) * std::size_t(height) * std::size_t(channels))
        throw std::invalid_argument(name + ": pixel count does not match the size");
}

/// `row` fills the bytes of a row, behind the filter byte.
template <class Row>
Bytes encode(int width, int height, int channels, int bytesPerValue, Row&& row) {
    const std::size_t idat = idatSize(width, height, channels, bytesPerValue);
    const std::size_t stride = std::size_t(width) * std::size_t(channels * bytesPerValue);
    Bytes file(kSignature.size() + (kChunk + 13) + (kChunk + idat) + kChunk);
    Cursor out(file);
    out.bytes(kSignature.data(), kSignature.size());

    const std::uint8_t* header = openChunk(out, "IHDR", 13);
    out.big32(std::uint32_t(width));
    out.big32(std::uint32_t(height));
    for (const int v : {8 * bytesPerValue, colorType(channels), 0, 0, 0}) out.byte(unsigned(v));
    closeChunk(out, header);

    const std::uint8_t* data = openChunk(out, "IDAT", idat);
    out.byte(0x78);  // DEFLATE, a window of 32 KiB
    out.byte(0x01);  // the check of that byte
    StoredBlocks blocks(out, std::size_t(height) * (stride + 1));
    Bytes line(stride + 1);  // the first byte: no filter
    for (int y = 0; y < height; ++y) {
        row(y, std::span(line).subspan(1));
        blocks.add(line);
    }
    out.big32(blocks.adler());
    closeChunk(out, data);

    closeChunk(out, openChunk(out, "IEND", 0));
    return file;
}

Bytes encode8(const char* function, std::span<const std::uint8_t> pixels, int width, int height,
              int channels) {
    check(function, idatSize(width, height, channels, 1) > 0, pixels.size(), width, height,
          channels);
    return encode(width, height, channels, 1, [&](int y, std::span<std::uint8_t> line) {
        std::memcpy(line.data(), pixels.data() + std::size_t(y) * line.size(), line.size());
    });
}

}  // namespace

Bytes encodePng(std::span<const std::uint8_t> pixels, int width, int height, int channels) {
    return encode8("encodePng", pixels, width, height, channels);
}

Bytes encodePngRows(const PixelRow& row, int width, int height, int channels) {
    if (idatSize(width, height, channels, 1) == 0)
        throw std::invalid_argument("encodePngRows: bad size or channels");
    return encode(width, height, channels, 1, row);
}

Bytes encodePng16(std::span<const std::uint16_t> pixels, int width, int height, int channels) {
    check("encodePng16", idatSize(width, height, channels, 2) > 0, pixels.size(), width, height,
          channels);
    return encode(width, height, channels, 2, [&](int y, std::span<std::uint8_t> line) {
        const std::uint16_t* from = pixels.data() + std::size_t(y) * (line.size() / 2);
        for (std::size_t i = 0; i < line.size(); i += 2, ++from) {
            line[i] = std::uint8_t(*from >> 8);
            line[i + 1] = std::uint8_t(*from & 0xffu);
        }
    });
}

Bytes encodeTga(std::span<const std::uint8_t> pixels, int width, int height, int channels) {
    constexpr int kLongestSide = std::numeric_limits<std::uint16_t>::max();
    const bool fits = width >= 1 && height >= 1 && width <= kLongestSide &&
                      height <= kLongestSide && colorType(channels) >= 0;
    check("encodeTga", fits, pixels.size(), width, height, channels);
    const auto low = [](int v) { return std::uint8_t(v & 0xff); };
    const auto high = [](int v) { return std::uint8_t(v >> 8); };
    const std::uint8_t kind = channels == 1 ? 3 : 2;
    const std::uint8_t topLeft = 0x20, alphaBits = channels == 4 ? 8 : 0;
    const std::array<std::uint8_t, 18> header = {0,
                                                 0,
                                                 kind,
                                                 0,
                                                 0,
                                                 0,
                                                 0,
                                                 0,
                                                 0,
                                                 0,
                                                 0,
                                                 0,
                                                 low(width),
                                                 high(width),
                                                 low(height),
                                                 high(height),
                                                 std::uint8_t(8 * channels),
                                                 std::uint8_t(topLeft | alphaBits)};
    Bytes out(header.size() + pixels.size());
    std::ranges::copy(header, out.begin());
    std::uint8_t* to = out.data() + header.size();
    if (channels == 1) {
        std::memcpy(to, pixels.data(), pixels.size());
        return out;
    }
    const std::size_t step = std::size_t(channels);
    for (std::size_t i = 0; i < pixels.size(); i += step) {
        to[i] = pixels[i + 2];
        to[i + 1] = pixels[i + 1];
        to[i + 2] = pixels[i];
        if (channels == 4) to[i + 3] = pixels[i + 3];
    }
    return out;
}

void writePng(const std::string& path, std::span<const std::uint8_t> pixels, int width, int height,
              int channels) {
    writePictureFile(path, encode8("writePng", pixels, width, height, channels));
}

void writePictureFile(const std::string& path, std::span<const std::uint8_t> bytes) {
    try {
        replaceFile(path,
                    std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    } catch (const FileError&) {
        throw std::runtime_error("can't write " + path);
    }
    TextureCache::instance().forget(path);
}

}  // namespace corvelle
