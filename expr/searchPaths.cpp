#include "expr/searchPaths.h"

#include <array>
#include <cstdlib>
#include <utility>
#include <vector>

#include "expr/nameChars.h"
#include "expr/texture.h"
#include "model/hash.h"
#include "model/platform/files.h"

namespace corvelle {

namespace {

constexpr std::array<std::string_view, 3> kMarkers = {"<UDIM>", "<udim>", "%(UDIM)d"};

/// The variable name that starts at `at`; empty for none.
std::string_view nameAt(std::string_view text, std::size_t at) {
    std::size_t end = at;
    if (at < text.size() && isNameStart(text[at]))
        while (end < text.size() && isNameChar(text[end])) ++end;
    return text.substr(at, end - at);
}

bool isFile(const std::filesystem::path& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    return !error && std::filesystem::exists(status) && !std::filesystem::is_directory(status);
}

}  // namespace

std::string expandVariables(std::string_view text) {
    std::string out;
    std::size_t i = 0;
    while (i < text.size()) {
        std::string_view name;
        std::size_t length = 0;  // of the whole reference
        if (text[i] == '$' && i + 1 < text.size() && text[i + 1] == '{') {
            name = nameAt(text, i + 2);
            const std::size_t close = i + 2 + name.size();
            length = close < text.size() && text[close] == '}' ? name.size() + 3 : 0;
        } else if (text[i] == '$') {
            name = nameAt(text, i + 1);
            length = name.size() + 1;
        } else if (text[i] == '%') {
            name = nameAt(text, i + 1);
            const std::size_t close = i + 1 + name.size();
            length = close < text.size() && text[close] == '%' ? name.size() + 2 : 0;
        }
        const char* value =
            name.empty() || length == 0 ? nullptr : std::getenv(std::string(name).c_str());
        if (value) {
            out += value;
            i += length;
        } else {
            out += text[i++];
        }
    }
    return out;
}

bool hasUdimMarker(std::string_view path) {
    for (const std::string_view marker : kMarkers)
        if (path.find(marker) != std::string_view::npos) return true;
    return false;
}

std::string tilePath(std::string_view pattern, int tile) {
    std::string out(pattern);
    const std::string number = std::to_string(tile);
    for (const std::string_view marker : kMarkers)
        for (std::size_t at = 0; (at = out.find(marker, at)) != std::string::npos;
             at += number.size())
            out.replace(at, marker.size(), number);
    return out;
}

bool pictureExists(const std::string& path) {
    if (path.empty()) return false;
    if (!hasUdimMarker(path)) return isFile(utf8Path(path));
    for (int tile = kFirstTile; tile < kFirstTile + kTileCount; ++tile)
        if (isFile(utf8Path(tilePath(path, tile)))) return true;
    return false;
}

std::uint64_t fileSignature(const std::string& path) {
    if (path.empty()) return 0;
    const std::filesystem::path file = utf8Path(path);
    if (!isFile(file)) return 0;
    platform::FileStamp stamp;
    if (platform::readFileStamp(file, stamp)) return 0;
    return hashCombine(hashCombine(hashOf(path), stamp.size), stamp.time);
}

PathResolver searchPathResolver(std::string directory, std::vector<std::string> searchPaths) {
    return [directory = std::move(directory),
            searchPaths = std::move(searchPaths)](const std::string& path) -> std::string {
        const std::string expanded = expandVariables(path);
        const std::filesystem::path wanted = utf8Path(expanded);
        if (wanted.empty()) return path;
        if (wanted.is_absolute()) return expanded;
        const std::filesystem::path home = utf8Path(directory);
        const auto found = [&](const std::filesystem::path& folder) -> std::string {
            if (folder.empty()) return {};
            for (const std::filesystem::path& tail : {wanted, wanted.filename()}) {
                std::string candidate = utf8Text(folder / tail);
                if (pictureExists(candidate)) return candidate;
            }
            return {};
        };
        if (std::string hit = found(home); !hit.empty()) return hit;
        for (const std::string& searchPath : searchPaths) {
            std::filesystem::path folder = utf8Path(expandVariables(searchPath));
            if (folder.empty()) continue;
            if (folder.is_relative() && !home.empty()) folder = home / folder;
            if (std::string hit = found(folder); !hit.empty()) return hit;
        }
        return path;
    };
}

}  // namespace corvelle
