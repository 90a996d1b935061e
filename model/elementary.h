#pragma once

#include <cmath>

namespace corvelle::math {

// Sines, logarithms and the like with the same bits on every machine. A C library promises none:
// two libraries, and one library on two processors, differ in last bits, and a strand that hashes,
// rounds or compares such a value may land elsewhere. So everything that reaches a result calls
// these. They are made of single IEEE operations in double, in a fixed order; what IEEE defines
// (sqrt, floor, round, fmod...) is taken from the library.
//
// Special values are those of the C standard: an infinite angle has the sine NaN, log(0) is minus
// infinity, atan2 minds the signs of zeros, pow(x, 0) is 1.
//
// Pure, any thread. Sources: Cody, Waite, "Software Manual for the Elementary Functions", 1980
// (reductions); Payne, Hanek, "Radian Reduction for Trigonometric Functions", SIGNUM 18(1), 1983
// (large angles); coefficients fitted for the least greatest relative error.

// Floats are computed in double and rounded once: within 0.51 ulp, of any argument.
float sin(float x);
float cos(float x);
float tan(float x);
float asin(float x);
float acos(float x);
float atan(float x);
float atan2(float y, float x);
float exp(float x);
float log(float x);
float pow(float x, float y);
float cbrt(float x);

// Doubles are within 1 ulp, but atan2 within 2, and within 3 acos and sines and cosines of angles
// from 2^20 up.
double sin(double x);
double cos(double x);
double acos(double x);
double atan2(double y, double x);
double exp(double x);
double log(double x);

/// The length of (x, y) or (x, y, z), within 2 ulp where the squares are neither too large nor too
/// small for a double: for lengths of 1e-150 to 1e150.
inline double hypot(double x, double y) { return std::sqrt(x * x + y * y); }
inline double hypot(double x, double y, double z) { return std::sqrt(x * x + y * y + z * z); }
/// Of any floats, within 0.51 ulp.
inline float hypot(float x, float y) { return float(hypot(double(x), double(y))); }

}  // namespace corvelle::math
