#include <algorithm>
#include <atomic>
#include <mutex>
#include <numeric>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "model/parallel.h"

namespace corvelle {
namespace {

class ThreadLimit : public testing::TestWithParam<unsigned> {
protected:
    void SetUp() override { setThreadLimit(GetParam()); }
    void TearDown() override {
        setThreadLimit(detail::parseThreadLimit(std::getenv("CORVELLE_THREADS")));
    }
};
INSTANTIATE_TEST_SUITE_P(Limits, ThreadLimit, testing::Values(0u, 1u, 2u, 8u, 100000u));

TEST_P(ThreadLimit, EveryElementIsVisitedOnceAndNoPartIsEmpty) {
    for (const std::size_t count : {0u, 1u, 255u, 256u, 257u, 100'003u}) {
        std::vector<int> visits(count + 20);
        std::atomic<bool> empty{false};
        parallelRange(10, 10 + count, 256, [&](std::size_t begin, std::size_t end) {
            if (begin >= end) empty = true;
            for (std::size_t i = begin; i < end; ++i) ++visits[i];
        });
        EXPECT_FALSE(empty);
        EXPECT_EQ(std::accumulate(visits.begin(), visits.end(), 0), int(count));
        EXPECT_TRUE(std::all_of(visits.begin() + 10, visits.begin() + 10 + std::ptrdiff_t(count),
                                [](int v) { return v == 1; }));
    }
}

TEST_P(ThreadLimit, LoopsNest) {
    std::vector<std::atomic<int>> visits(64 * 64);
    parallelRange(0, 64, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            parallelRange(0, 64, 1, [&](std::size_t b, std::size_t e) {
                for (std::size_t j = b; j < e; ++j) ++visits[i * 64 + j];
            });
    });
    for (const auto& v : visits) EXPECT_EQ(v, 1);
}

TEST_P(ThreadLimit, AnExceptionOfABodyReachesTheCaller) {
    EXPECT_THROW(parallelRange(0, 10'000, 1,
                               [](std::size_t begin, std::size_t end) {
                                   if (begin <= 7'777 && 7'777 < end)
                                       throw std::runtime_error("stop");
                               }),
                 std::runtime_error);
    int after = 0;  // and the loop goes on working
    parallelRange(0, 3, 8, [&](std::size_t begin, std::size_t end) { after += int(end - begin); });
    EXPECT_EQ(after, 3);
}

std::size_t threadsSeen(std::size_t blocks) {
    std::mutex lock;
    std::set<std::thread::id> seen;
    parallelRange(0, blocks, 1, [&](std::size_t begin, std::size_t end) {
        // Not sleep_for, which does not wait so short a time on every system.
        const auto until =
            std::chrono::steady_clock::now() + (end - begin) * std::chrono::microseconds(50);
        while (std::chrono::steady_clock::now() < until) std::this_thread::yield();
        const std::lock_guard guard(lock);
        seen.insert(std::this_thread::get_id());
    });
    return seen.size();
}

TEST(RunWithThreads, KeepsToItsCountUnderAnyLimit) {
    for (const unsigned limit : {0u, 1u, 2u, 8u}) {
        setThreadLimit(limit);
        std::size_t seen = 0;
        runWithThreads(1, [&] { seen = threadsSeen(200); });
        EXPECT_EQ(seen, 1u);
        runWithThreads(2, [&] { seen = threadsSeen(200); });
        EXPECT_LE(seen, 2u);
    }
    setThreadLimit(1);
    EXPECT_EQ(threadsSeen(200), 1u);
    setThreadLimit(0);
    if (std::thread::hardware_concurrency() > 1) {
        EXPECT_GT(threadsSeen(2000), 1u);
    }
    setThreadLimit(detail::parseThreadLimit(std::getenv("CORVELLE_THREADS")));
}

TEST(RunWithThreads, PassesExceptionsOn) {
    for (const unsigned count : {0u, 1u, 2u})
        EXPECT_THROW(runWithThreads(count, [] { throw std::invalid_argument("no"); }),
                     std::invalid_argument);
}

TEST(SetThreadLimit, MayChangeWhileLoopsRun) {
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        for (unsigned i = 0; !stop; ++i) setThreadLimit(i % 4);
    });
    for (int round = 0; round < 50; ++round) {
        std::atomic<std::size_t> sum{0};
        parallelRange(0, 5'000, 16,
                      [&](std::size_t begin, std::size_t end) { sum += end - begin; });
        EXPECT_EQ(sum, 5'000u);
    }
    stop = true;
    changer.join();
    setThreadLimit(detail::parseThreadLimit(std::getenv("CORVELLE_THREADS")));
}

TEST(ParseThreadLimit, TakesAWholeDecimalNumberOnly) {
    const auto parse = detail::parseThreadLimit;
    EXPECT_EQ(parse(nullptr), 0u);
    EXPECT_EQ(parse(""), 0u);
    EXPECT_EQ(parse("4x"), 0u);
    EXPECT_EQ(parse("x4"), 0u);
    EXPECT_EQ(parse("4 "), 0u);
    EXPECT_EQ(parse("0x10"), 0u);
    EXPECT_EQ(parse("1.5"), 0u);
    EXPECT_EQ(parse("1"), 1u);
    EXPECT_EQ(parse("010"), 10u);
    EXPECT_EQ(parse("100000"), 100000u);
    EXPECT_EQ(parse("99999999999999999999999"), 4294967295u);
}

}  // namespace
}  // namespace corvelle
