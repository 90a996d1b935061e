#include "model/parallel.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <mutex>

#ifdef CORVELLE_TSAN_STD_THREADS
#include <atomic>
#include <exception>
#include <thread>
#include <vector>
#else
#include <tbb/blocked_range.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#endif

namespace corvelle {

namespace detail {

unsigned parseThreadLimit(const char* text) {
    if (!text || !*text) return 0;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*end != '\0') return 0;
    return unsigned(std::min<unsigned long>(value, std::numeric_limits<unsigned>::max()));
}

namespace {

unsigned limitOfEnvironment() { return parseThreadLimit(std::getenv("CORVELLE_THREADS")); }

}  // namespace

#ifndef CORVELLE_TSAN_STD_THREADS

namespace {

unsigned hardwareThreads() { return unsigned(std::max(1, tbb::info::default_concurrency())); }

/// 0 for "no limit": that is also what a count of all cores or more means.
unsigned effectiveLimit(unsigned count) { return count >= hardwareThreads() ? 0 : count; }

/// The process-wide limit and the arena that keeps to it, made by the first loop that needs it.
class ThreadControl {
public:
    static ThreadControl& instance() {
        static auto* const control = new ThreadControl;  // loops may run until the very end
        return *control;
    }
    void setLimit(unsigned count) {
        const std::lock_guard guard(mutex_);
        limit_ = effectiveLimit(count);
        arena_.reset();
    }
    /// Null when loops run on the default scheduler.
    std::shared_ptr<tbb::task_arena> arena() {
        const std::lock_guard guard(mutex_);
        if (limit_ != 0 && !arena_) arena_ = std::make_shared<tbb::task_arena>(int(limit_), 1);
        return arena_;
    }

private:
    std::mutex mutex_;
    unsigned limit_ = effectiveLimit(limitOfEnvironment());
    std::shared_ptr<tbb::task_arena> arena_;
};

}  // namespace

void parallelRange(std::size_t begin, std::size_t end, std::size_t grain, RangeBody body,
                   void* context) {
    if (begin >= end) return;
    const auto loop = [&] {
        tbb::task_group_context group(tbb::task_group_context::isolated);
        tbb::parallel_for(
            tbb::blocked_range<std::size_t>(begin, end, std::max<std::size_t>(grain, 1)),
            [=](const tbb::blocked_range<std::size_t>& part) {
                body(context, part.begin(), part.end());
            },
            tbb::auto_partitioner(), group);
    };
    // Held to the loop's end: the limit may change meanwhile. An arena that is narrower already,
    // such as that of runWithThreads, keeps the loop.
    const std::shared_ptr<tbb::task_arena> arena = ThreadControl::instance().arena();
    if (arena && tbb::this_task_arena::max_concurrency() > arena->max_concurrency())
        arena->execute(loop);
    else
        loop();
}

void runWithThreads(unsigned count, void (*function)(void* context), void* context) {
    if (effectiveLimit(count) == 0) return function(context);
    tbb::task_arena arena(int(count), 1);
    arena.execute([&] { function(context); });
}

#else

// The loop on plain threads, for ThreadSanitizer: it cannot see how an uninstrumented scheduler
// orders its tasks. Blocks of one grain are handed out by a counter; a loop inside a loop is
// serial.

namespace {

std::atomic<unsigned>& limit() {
    static std::atomic<unsigned> value{limitOfEnvironment()};
    return value;
}
thread_local unsigned localLimit = 0;
thread_local bool insideLoop = false;

class InsideLoop {
public:
    InsideLoop() : before_(insideLoop) { insideLoop = true; }
    ~InsideLoop() { insideLoop = before_; }
    InsideLoop(const InsideLoop&) = delete;
    InsideLoop& operator=(const InsideLoop&) = delete;

private:
    bool before_;
};

unsigned threadsOfLoop() {
    unsigned count = std::max(2u, std::thread::hardware_concurrency());
    if (const unsigned n = limit()) count = n;
    if (localLimit != 0) count = std::min(count, localLimit);
    return std::min(count, 64u);
}

}  // namespace

void parallelRange(std::size_t begin, std::size_t end, std::size_t grain, RangeBody body,
                   void* context) {
    if (begin >= end) return;
    const std::size_t step = std::max<std::size_t>(grain, 1);
    const std::size_t blocks = (end - begin + step - 1) / step;
    const std::size_t workers = std::min<std::size_t>(threadsOfLoop(), blocks);
    if (insideLoop || workers < 2) return body(context, begin, end);

    std::atomic<std::size_t> next{0};
    std::mutex failureLock;
    std::exception_ptr failure;
    const auto work = [&] {
        const InsideLoop inside;
        try {
            for (std::size_t b = next++; b < blocks; b = next++)
                body(context, begin + b * step, std::min(end, begin + (b + 1) * step));
        } catch (...) {
            next = blocks;
            const std::lock_guard guard(failureLock);
            if (!failure) failure = std::current_exception();
        }
    };
    {
        std::vector<std::jthread> threads;
        threads.reserve(workers - 1);
        for (std::size_t i = 1; i < workers; ++i) threads.emplace_back(work);
        work();
    }
    if (failure) std::rethrow_exception(failure);
}

void runWithThreads(unsigned count, void (*function)(void* context), void* context) {
    struct Restore {
        unsigned before = localLimit;
        ~Restore() { localLimit = before; }
    } const restore;
    if (count != 0) localLimit = count;
    function(context);
}

#endif

}  // namespace detail

void setThreadLimit(unsigned count) {
#ifdef CORVELLE_TSAN_STD_THREADS
    detail::limit() = count;
#else
    detail::ThreadControl::instance().setLimit(count);
#endif
}

}  // namespace corvelle
