#pragma once

#include <atomic>
#include <memory>

#if defined(__SANITIZE_THREAD__)
#define CORVELLE_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CORVELLE_THREAD_SANITIZER 1
#endif
#endif

namespace corvelle {

/// True when `object` has this one owner, which may then write it: all that former owners did to
/// the object happened before. The count alone (use_count() == 1) does not order anything.
template <class T>
bool isSoleOwner(const std::shared_ptr<T>& object) {
    if (object.use_count() != 1) return false;
#ifdef CORVELLE_THREAD_SANITIZER
    // It does not know fences; letting go of one more hold orders the same way.
    std::shared_ptr<T>(object).reset();
#else
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    return true;
}

}  // namespace corvelle
