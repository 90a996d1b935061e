#include "model/sharedArray.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "model/parallel.h"
#include "model/soleOwner.h"

namespace corvelle {

namespace {

template <class T>
using Array = std::vector<T>;

template <class T>
struct ReturnToPool {
    void operator()(Array<T>* array) const noexcept {
        ToArrayPool<T>::instance().release(std::unique_ptr<Array<T>>(array));
    }
};

template <class T>
std::shared_ptr<Array<T>> shared(std::unique_ptr<Array<T>> array) {
    return std::shared_ptr<Array<T>>(array.release(), ReturnToPool<T>{});
}

template <class T>
std::shared_ptr<Array<T>> emptyArray() {
    return shared<T>(std::make_unique<Array<T>>());
}

/// The elements of `from` in an array with room for `extra` more.
template <class T>
std::shared_ptr<Array<T>> duplicate(const Array<T>& from, std::size_t extra) {
    std::unique_ptr<Array<T>> copy = ToArrayPool<T>::instance().acquire(from.size() + extra);
    if (copy) {
        std::copy(from.begin(), from.end(), copy->begin());
        copy->resize(from.size());  // keeps its capacity
    } else {
        copy = std::make_unique<Array<T>>();
        copy->reserve(from.size() + extra);
        copy->assign(from.begin(), from.end());
    }
    return shared<T>(std::move(copy));
}

template <class T>
bool sameBits(const T& a, const T& b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

}  // namespace

template <class T>
ToArrayPool<T>& ToArrayPool<T>::instance() {
    static auto* const pool = new ToArrayPool;  // never destroyed: arrays come back during exit
    return *pool;
}

template <class T>
ToArrayPool<T>::ToArrayPool() {
    free_.reserve(kMaxArrays + 1);
}

template <class T>
std::unique_ptr<std::vector<T>> ToArrayPool<T>::acquire(std::size_t count) {
    if (count <= (kMinBytes - 1) / sizeof(T)) return nullptr;
    const std::lock_guard guard(mutex_);
    const auto found = std::find_if(free_.begin(), free_.end(),
                                    [&](const auto& array) { return array->size() == count; });
    if (found == free_.end()) return nullptr;
    std::unique_ptr<std::vector<T>> array = std::move(*found);
    free_.erase(found);
    return array;
}

template <class T>
void ToArrayPool<T>::release(std::unique_ptr<std::vector<T>> array) noexcept {
    if (array->size() * sizeof(T) < kMinBytes) return;
    std::unique_ptr<std::vector<T>> oldest;  // freed outside the lock
    const std::lock_guard guard(mutex_);
    free_.push_back(std::move(array));
    if (free_.size() <= kMaxArrays) return;
    oldest = std::move(free_.front());
    free_.erase(free_.begin());
}

template <class T>
std::size_t ToArrayPool<T>::size() {
    const std::lock_guard guard(mutex_);
    return free_.size();
}

template <class T>
SharedArray<T>::SharedArray() : array_(emptyArray<T>()) {}

template <class T>
SharedArray<T>::SharedArray(const SharedArray& other)
    : array_(other.array_), ownedForWrite_(false) {
    other.ownedForWrite_.store(false, std::memory_order_relaxed);
}

template <class T>
SharedArray<T>& SharedArray<T>::operator=(const SharedArray& other) {
    if (this == &other) return *this;
    other.ownedForWrite_.store(false, std::memory_order_relaxed);
    ownedForWrite_.store(false, std::memory_order_relaxed);
    array_ = other.array_;
    return *this;
}

template <class T>
SharedArray<T>::SharedArray(SharedArray&& other) noexcept(false) : SharedArray() {
    swap(other);
}

template <class T>
SharedArray<T>& SharedArray<T>::operator=(SharedArray&& other) noexcept(false) {
    SharedArray taken(std::move(other));
    swap(taken);
    return *this;
}

template <class T>
void SharedArray<T>::swap(SharedArray& other) noexcept {
    array_.swap(other.array_);
    const bool owned = ownedForWrite_.load(std::memory_order_relaxed);
    ownedForWrite_.store(other.ownedForWrite_.load(std::memory_order_relaxed),
                         std::memory_order_relaxed);
    other.ownedForWrite_.store(owned, std::memory_order_relaxed);
}

template <class T>
std::vector<T>& SharedArray<T>::writable(std::mutex& lock) {
    if (ownedForWrite_.load(std::memory_order_acquire)) return *array_;
    const std::lock_guard guard(lock);
    if (ownedForWrite_.load(std::memory_order_relaxed)) return *array_;
    if (!isSoleOwner(array_)) array_ = duplicate(*array_, 0);
    ownedForWrite_.store(true, std::memory_order_release);
    return *array_;
}

template <class T>
std::vector<T>& SharedArray<T>::growable(std::size_t extra, std::mutex& lock) {
    if (!ownedForWrite_.load(std::memory_order_acquire)) {
        const std::lock_guard guard(lock);
        if (!isSoleOwner(array_)) array_ = duplicate(*array_, extra);
        ownedForWrite_.store(true, std::memory_order_release);
    }
    const std::size_t needed = array_->size() + extra;
    if (array_->capacity() < needed) array_->reserve(std::max(needed, 2 * array_->size()));
    return *array_;
}

template <class T>
std::vector<T>& SharedArray<T>::reset(std::size_t count, T value, bool overwrite,
                                      std::mutex& lock) {
    std::shared_ptr<Array<T>> array;
    bool clean = false;  // holds T{} throughout
    {
        const std::lock_guard guard(lock);
        if (array_->size() == count && isSoleOwner(array_)) array = array_;
    }
    if (!array) {
        std::unique_ptr<Array<T>> fresh = ToArrayPool<T>::instance().acquire(count);
        if (!fresh) {
            fresh = std::make_unique<Array<T>>(count);
            clean = true;
        }
        array = shared<T>(std::move(fresh));
    }
    if (!overwrite && !(clean && sameBits(value, T{}))) {
        T* const data = array->data();
        parallelRange(0, count, kChunkElements, [=](std::size_t begin, std::size_t end) {
            std::fill(data + begin, data + end, value);
        });
    }
    const std::lock_guard guard(lock);
    array_ = std::move(array);
    ownedForWrite_.store(true, std::memory_order_release);
    return *array_;
}

template class ToArrayPool<float>;
template class ToArrayPool<std::uint64_t>;
template class ToArrayPool<StrandRoot>;
template class ToArrayPool<Vec3f>;
template class SharedArray<float>;
template class SharedArray<std::uint64_t>;
template class SharedArray<StrandRoot>;
template class SharedArray<Vec3f>;

}  // namespace corvelle
