#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>

#include "expr/image.h"

namespace corvelle {

/// The bytes that CORVELLE_TEXTURE_CACHE_MB asks for: a whole number of MiB, below 1 counting as 1
/// (so does text that is no number); 1 GiB when it is not set (null).
std::size_t textureCacheBudget(const char* megabytes);

/// Decoded images by file, the most recently used first, bounded in bytes. A file whose size or time
/// changed is read again. The newest image always stays, be it larger than the budget. Images are
/// shared: one that is dropped here lives on with those who hold it. Safe from any thread; the lock
/// guards the list alone, decoding runs outside it.
class TextureCache {
public:
    explicit TextureCache(std::size_t budgetBytes) : budgetBytes_(budgetBytes) {}
    /// The process's own, of the budget in the environment at first use.
    static TextureCache& instance();

    /// The image of a resolved path. Throws TextureError.
    ImagePtr load(const std::string& path);
    /// Drops the image of a path: its file has just been written.
    void forget(const std::string& path);

    std::size_t budgetBytes() const { return budgetBytes_; }
    std::size_t usedBytes() const;
    std::size_t count() const;

private:
    struct Entry {
        std::string path;
        std::uint64_t signature = 0;
        ImagePtr image;
    };
    /// With the lock held: the entry of this very file moved to the front, or null.
    ImagePtr find(const std::string& path, std::uint64_t signature);

    void erase(const std::string& path);  ///< with the lock held

    const std::size_t budgetBytes_;
    mutable std::mutex mutex_;
    std::list<Entry> entries_;  ///< most recently used first
    std::map<std::string, std::list<Entry>::iterator> byPath_;
    std::size_t usedBytes_ = 0;
};

}  // namespace corvelle
