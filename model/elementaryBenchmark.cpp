// Our elementary functions against those of the C library, over the same arguments in one run.
#include <cmath>
#include <vector>

#include <benchmark/benchmark.h>

#include "model/elementary.h"
#include "model/hash.h"

namespace corvelle {
namespace {

constexpr std::size_t kArguments = 4096;

template <class Real, class Function>
void timeFunction(benchmark::State& state, Function&& function, float low, float high) {
    SplitMix random(3);
    std::vector<Real> x(kArguments), y(kArguments);
    for (std::size_t i = 0; i < kArguments; ++i) {
        x[i] = Real(random.nextRange(low, high));
        y[i] = Real(random.nextRange(0.5f, 3.0f));
    }
    for (auto _ : state) {
        Real sum{};
        for (std::size_t i = 0; i < kArguments; ++i) sum += function(x[i], y[i]);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(kArguments));
}

template <class Real, class Ours, class Librarys>
void pair(const std::string& name, Ours ours, Librarys librarys, float low, float high) {
    benchmark::RegisterBenchmark(
        ("elementary/" + name + "/library").c_str(),
        [=](benchmark::State& state) { timeFunction<Real>(state, librarys, low, high); });
    benchmark::RegisterBenchmark(
        ("elementary/" + name + "/ours").c_str(),
        [=](benchmark::State& state) { timeFunction<Real>(state, ours, low, high); });
}

#define CORVELLE_PAIR(real, name, low, high)                                                   \
    pair<real>(                                                                                \
        std::string(#name) + (sizeof(real) == 8 ? " of doubles" : ""),                         \
        [](real x, real) { return math::name(x); }, [](real x, real) { return std::name(x); }, \
        low, high)
#define CORVELLE_PAIR2(real, name, low, high)                          \
    pair<real>(                                                        \
        std::string(#name) + (sizeof(real) == 8 ? " of doubles" : ""), \
        [](real x, real y) { return math::name(x, y); },               \
        [](real x, real y) { return std::name(x, y); }, low, high)

const bool registered = [] {
    CORVELLE_PAIR(float, sin, -10.0f, 10.0f);
    CORVELLE_PAIR(float, cos, -10.0f, 10.0f);
    CORVELLE_PAIR(float, tan, -10.0f, 10.0f);
    CORVELLE_PAIR(float, asin, -1.0f, 1.0f);
    CORVELLE_PAIR(float, acos, -1.0f, 1.0f);
    CORVELLE_PAIR(float, atan, -3.0f, 3.0f);
    CORVELLE_PAIR2(float, atan2, -3.0f, 3.0f);
    CORVELLE_PAIR(float, exp, -10.0f, 10.0f);
    CORVELLE_PAIR(float, log, 0.01f, 100.0f);
    CORVELLE_PAIR2(float, pow, 0.01f, 10.0f);
    CORVELLE_PAIR(float, cbrt, 0.0f, 1.0f);
    CORVELLE_PAIR(double, sin, -10.0f, 10.0f);
    CORVELLE_PAIR(double, cos, -10.0f, 10.0f);
    CORVELLE_PAIR(double, acos, -1.0f, 1.0f);
    CORVELLE_PAIR2(double, atan2, -3.0f, 3.0f);
    CORVELLE_PAIR(double, exp, -10.0f, 10.0f);
    CORVELLE_PAIR(double, log, 0.01f, 100.0f);
    return true;
}();

}  // namespace
}  // namespace corvelle
