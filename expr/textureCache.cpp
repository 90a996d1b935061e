#include "expr/textureCache.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "expr/searchPaths.h"
#include "expr/texture.h"

namespace corvelle {

std::size_t textureCacheBudget(const char* megabytes) {
    constexpr long long kDefault = 1024;
    constexpr long long kMost =
        static_cast<long long>(std::numeric_limits<std::size_t>::max() >> 21);
    const long long wanted = megabytes ? std::strtoll(megabytes, nullptr, 10) : kDefault;
    return std::size_t(std::clamp(wanted, 1LL, kMost)) << 20;
}

TextureCache& TextureCache::instance() {
    // Never destroyed: textures may be dropped while the process exits.
    static TextureCache* cache =
        new TextureCache(textureCacheBudget(std::getenv("CORVELLE_TEXTURE_CACHE_MB")));
    return *cache;
}

std::size_t TextureCache::usedBytes() const {
    const std::lock_guard lock(mutex_);
    return usedBytes_;
}

std::size_t TextureCache::count() const {
    const std::lock_guard lock(mutex_);
    return entries_.size();
}

ImagePtr TextureCache::find(const std::string& path, std::uint64_t signature) {
    const auto at = byPath_.find(path);
    if (at == byPath_.end() || at->second->signature != signature) return nullptr;
    entries_.splice(entries_.begin(), entries_, at->second);
    return at->second->image;
}

void TextureCache::erase(const std::string& path) {
    const auto old = byPath_.find(path);
    if (old == byPath_.end()) return;
    usedBytes_ -= old->second->image->byteCount();
    entries_.erase(old->second);
    byPath_.erase(old);
}

void TextureCache::forget(const std::string& path) {
    const std::lock_guard lock(mutex_);
    erase(path);
}

ImagePtr TextureCache::load(const std::string& path) {
    const std::uint64_t signature = fileSignature(path);
    if (signature != 0) {
        const std::lock_guard lock(mutex_);
        if (ImagePtr held = find(path, signature)) return held;
    }
    ImagePtr image = readImage(path);

    const std::lock_guard lock(mutex_);
    if (ImagePtr held = find(path, signature)) return held;  // another thread was faster
    erase(path);
    entries_.push_front({path, signature, image});
    byPath_[path] = entries_.begin();
    usedBytes_ += image->byteCount();
    while (usedBytes_ > budgetBytes_ && entries_.size() > 1) {
        usedBytes_ -= entries_.back().image->byteCount();
        byPath_.erase(entries_.back().path);
        entries_.pop_back();
    }
    return image;
}

}  // namespace corvelle
