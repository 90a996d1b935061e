#pragma once

/// Before a loop whose iterations touch lanes of their own alone: the compiler need not prove that
/// the arrays do not overlap.
#if defined(__clang__)
#define CORVELLE_INDEPENDENT_LANES _Pragma("clang loop vectorize(assume_safety)")
#elif defined(__GNUC__)
#define CORVELLE_INDEPENDENT_LANES _Pragma("GCC ivdep")
#elif defined(_MSC_VER)
#define CORVELLE_INDEPENDENT_LANES __pragma(loop(ivdep))
#else
#define CORVELLE_INDEPENDENT_LANES
#endif
