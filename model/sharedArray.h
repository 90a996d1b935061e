#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "model/strandRoot.h"
#include "model/vec3f.h"

namespace corvelle {

/// The free list of big arrays of one element type: evaluation after evaluation asks for the same
/// sizes, and fresh pages are what a large allocation costs. Process-wide, never destroyed (array
/// deleters run at exit), safe from any thread.
template <class T>
class ToArrayPool {
public:
    static ToArrayPool& instance();
    ToArrayPool();
    /// An array of exactly `count` elements with stale contents, or null. Arrays under 4 MiB are
    /// never pooled.
    std::unique_ptr<std::vector<T>> acquire(std::size_t count);
    /// Keeps the array for the next `acquire`, dropping the oldest one past `kMaxArrays`.
    void release(std::unique_ptr<std::vector<T>> array) noexcept;
    /// Arrays waiting in the list.
    std::size_t size();
    static constexpr std::size_t kMinBytes = std::size_t(4) << 20;
    static constexpr std::size_t kMaxArrays = 2;

private:
    std::mutex mutex_;
    std::vector<std::unique_ptr<std::vector<T>>> free_;  ///< oldest first
};

/// A copy-on-write cell round one growable array. Copies share the array; the first write access of
/// a cell that shares copies it. Reading takes no lock. `lock` is the array lock of the set that
/// owns the cell: operators may ask for write access from parallel bodies.
/// T is float, std::uint64_t, StrandRoot or Vec3f.
template <class T>
class SharedArray {
public:
    SharedArray();
    SharedArray(const SharedArray& other);
    SharedArray& operator=(const SharedArray& other);
    SharedArray(SharedArray&& other) noexcept(false);
    SharedArray& operator=(SharedArray&& other) noexcept(false);
    ~SharedArray() = default;

    const std::vector<T>& get() const { return *array_; }
    std::span<const T> span() const { return *array_; }
    std::size_t size() const { return array_->size(); }
    /// True when both cells hold the very same array: nothing needs comparing.
    bool sharesWith(const SharedArray& other) const { return array_ == other.array_; }
    const void* identity() const { return array_.get(); }

    /// The array, made this cell's own first.
    std::vector<T>& writable(std::mutex& lock);
    /// The same with room for `extra` more elements, so that appending them cannot throw. Grows by
    /// doubling: many small appends stay linear.
    std::vector<T>& growable(std::size_t extra, std::mutex& lock);
    /// `count` copies of `value`; with `overwrite` the contents are left as they come, for a caller
    /// that writes every element.
    std::vector<T>& reset(std::size_t count, T value, bool overwrite, std::mutex& lock);
    void swap(SharedArray& other) noexcept;

private:
    std::shared_ptr<std::vector<T>> array_;          ///< never null
    mutable std::atomic<bool> ownedForWrite_{true};  ///< known to be the only owner
};

extern template class ToArrayPool<float>;
extern template class ToArrayPool<std::uint64_t>;
extern template class ToArrayPool<StrandRoot>;
extern template class ToArrayPool<Vec3f>;
extern template class SharedArray<float>;
extern template class SharedArray<std::uint64_t>;
extern template class SharedArray<StrandRoot>;
extern template class SharedArray<Vec3f>;

}  // namespace corvelle
