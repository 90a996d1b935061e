#pragma once

/// Before a loop whose iterations touch lanes of their own alone: the compiler need not prove that
/// the arrays do not overlap. Clang checks that as the loop begins, and warns of every hint that it
/// cannot follow, so it gets none.
#if defined(__GNUC__) && !defined(__clang__)
#define CORVELLE_INDEPENDENT_LANES _Pragma("GCC ivdep")
#elif defined(_MSC_VER) && !defined(__clang__)
#define CORVELLE_INDEPENDENT_LANES __pragma(loop(ivdep))
#else
#define CORVELLE_INDEPENDENT_LANES
#endif
