#include "model/elementary.h"

#include <bit>
#include <cstdint>
#include <limits>

namespace corvelle::math {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Constants in two parts, the second one what the first one lacks.
constexpr double kPiHigh = 0x1.921fb54442d18p1, kPiLow = 0x1.1a62633145c07p-53;
constexpr double kHalfPiHigh = 0x1.921fb54442d18p0, kHalfPiLow = 0x1.1a62633145c07p-54;
constexpr double kLn2High = 0x1.62e42feep-1, kLn2Low = 0x1.a39ef35793c76p-33;  // 32 bits, 53 bits
constexpr double kLn2 = 0x1.62e42fefa39efp-1, kInverseLn2 = 0x1.71547652b82fep0;

/// Added and taken off again, it rounds a number below 2^51 to a whole one. The sum's low bits
/// are that number.
constexpr double kRounder = 0x1.8p52;

std::uint64_t bitsOf(double x) { return std::bit_cast<std::uint64_t>(x); }
double ofBits(std::uint64_t bits) { return std::bit_cast<double>(bits); }
/// 2^n for the whole number n in the low bits of `rounded`, -1022 to 1023.
double powerOfTwo(double rounded) { return ofBits((bitsOf(rounded) + 1023) << 52); }

// ---- angles ------------------------------------------------------------------------------------

constexpr double kQuarterPi = 0x1.921fb54442d18p-1;
constexpr double kLargeAngle = 0x1p20;
constexpr double kInverseHalfPi = 0x1.45f306dc9c883p-1;

/// An angle less `quadrant` right angles: high + low, -pi/4 to pi/4.
struct Reduced {
    double high, low;
    unsigned quadrant;  ///< only the two low bits count
};

/// For finite angles from kLargeAngle up (Payne, Hanek): of x times 2/pi only the bits that tell
/// the quadrant and the angle within are worked out.
Reduced reduceLarge(double x) {
    // 2/pi, 32 bits a word.
    static constexpr std::uint32_t kWords[40] = {
        0xa2f9836e, 0x4e441529, 0xfc2757d1, 0xf534ddc0, 0xdb629599, 0x3c439041, 0xfe5163ab,
        0xdebbc561, 0xb7246e3a, 0x424dd2e0, 0x06492eea, 0x09d1921c, 0xfe1deb1c, 0xb129a73e,
        0xe88235f5, 0x2ebb4484, 0xe99c7026, 0xb45f7e41, 0x3991d639, 0x835339f4, 0x9c845f8b,
        0xbdf9283b, 0x1ff897ff, 0xde05980f, 0xef2f118b, 0x5a0a6d1f, 0x6d367ecf, 0x27cb09b7,
        0x4f463f66, 0x9e5fea2d, 0x7527bac7, 0xebe5f17b, 0x3d0739f7, 0x8a5292ea, 0x6bfb5fb1,
        0x1f8d5d08, 0x56033046, 0xfc7b6bab, 0xf0cfbc20, 0x9af4361d};
    constexpr int kUsed = 7;

    // |x| is mantissa * 2^exponent; words that give whole turns of it are left out.
    const std::uint64_t bits = bitsOf(x) & ~(std::uint64_t(1) << 63);
    const std::uint64_t mantissa = (bits & 0xfffffffffffffu) | 0x10000000000000u;
    const int exponent = int(bits >> 52) - 1075;
    const int first = exponent > 2 ? (exponent - 2) / 32 : 0;

    // The product, its lowest 32 bits first.
    std::uint32_t product[kUsed + 3] = {};
    const std::uint64_t halves[2] = {mantissa & 0xffffffffu, mantissa >> 32};
    for (int half = 0; half < 2; ++half) {
        std::uint64_t carry = 0;
        for (int i = 0; i < kUsed; ++i) {
            const std::uint64_t sum =
                halves[half] * kWords[first + kUsed - 1 - i] + product[i + half] + carry;
            product[i + half] = std::uint32_t(sum);
            carry = sum >> 32;
        }
        product[kUsed + half] = std::uint32_t(carry);
    }

    // The binary point is `point` bits up; 128 bits below it are the share of a right angle.
    const int point = 32 * (first + kUsed) - exponent;
    const auto wordAt = [&](int bit) {  // 32 bits from `bit` on
        const int word = bit / 32, shift = bit % 32;
        const std::uint64_t pair =
            product[word] | std::uint64_t(word < kUsed + 2 ? product[word + 1] : 0) << 32;
        return pair >> shift & 0xffffffffu;
    };
    unsigned quadrant = unsigned(wordAt(point));
    std::uint64_t share = wordAt(point - 32) << 32 | wordAt(point - 64);
    std::uint64_t below = wordAt(point - 96) << 32 | wordAt(point - 128);
    const bool past = share >> 63 != 0;  // nearer to the next right angle
    if (past) {
        ++quadrant;
        below = 0 - below;
        share = ~share + (below == 0 ? 1 : 0);
    }
    const double angle = (double(share) * 0x1p-64 + double(below) * 0x1p-128) * kHalfPiHigh;
    const bool negative = std::signbit(x);
    return {past != negative ? -angle : angle, 0.0, negative ? 0 - quadrant : quadrant};
}

/// The nearest whole number of right angles, plus kRounder.
double rightAngles(double x) { return x * kInverseHalfPi + kRounder; }

/// Accurate to 2^-99, for angles below kLargeAngle: pi/2 in three parts, the first two of 33 bits,
/// so that their products with whole numbers are exact.
Reduced reduce(double x) {
    if (!(std::abs(x) < kLargeAngle)) return x - x == 0.0 ? reduceLarge(x) : Reduced{kNaN, 0.0, 0};
    const double rounded = rightAngles(x), n = rounded - kRounder;
    const double a = x - n * 0x1.921fb544p0;
    const double b = n * 0x1.0b4611a6p-34;
    const double high = a - b;
    const double back = high - a;  // Knuth's exact difference
    const double lost = (a - (high - back)) - (b + back);
    const double rest = lost - n * 0x1.3198a2e037073p-69;
    const double sum = high + rest;
    return {sum, (high - sum) + rest, unsigned(bitsOf(rounded))};
}

/// Good to 2^-65 for angles below kLargeAngle: enough for floats, none of which is nearer to a
/// right angle's multiple than 2^-31 there.
Reduced reduceFloat(double x) {
    if (!(std::abs(x) < kLargeAngle)) return reduce(x);
    const double rounded = rightAngles(x), n = rounded - kRounder;
    return {(x - n * 0x1.921fb544p0) - n * 0x1.0b4611a626331p-34, 0.0, unsigned(bitsOf(rounded))};
}

// Sine and cosine of high + low, -pi/4 to pi/4.

double sineNear(double high, double low) {
    if (std::abs(high) < 0x1p-27) return high;
    const double q = high * high, cube = q * high;
    double p = 0x1.5d8e4f9ceb61ap-33;
    p = p * q - 0x1.ae5e54bf4ccb8p-26;
    p = p * q + 0x1.71de355f53864p-19;
    p = p * q - 0x1.a01a019bf261dp-13;
    p = p * q + 0x1.111111110f75ep-7;
    return high - ((q * (0.5 * low - cube * p) - low) + cube * 0x1.5555555555548p-3);
}

double cosineNear(double high, double low) {
    const double q = high * high;
    double p = -0x1.8f9f63550b646p-37;
    p = p * q + 0x1.1ee9ccb78e6c6p-29;
    p = p * q - 0x1.27e4f7d8e48a7p-22;
    p = p * q + 0x1.a01a019c687a6p-16;
    p = p * q - 0x1.6c16c16c14e49p-10;
    p = p * q + 0x1.555555555554ap-5;
    const double half = 0.5 * q, whole = 1.0 - half;
    return whole + (((1.0 - whole) - half) + (q * (q * p) - high * low));
}

/// Within 2^-37.
double sineForFloat(double x) {
    const double q = x * x, q2 = q * q;
    return x *
           ((1.0 - q * 0x1.5555554c351d3p-3) +
            q2 * ((0x1.1111084ac01dep-7 - q * 0x1.a00f6b3a0393bp-13) + q2 * 0x1.6cce087763643p-19));
}
/// Within 2^-33.
double cosineForFloat(double x) {
    const double q = x * x, q2 = q * q;
    return (1.0 - q * 0x1.ffffffca11022p-2) +
           q2 * ((0x1.55553c19a911ep-5 - q * 0x1.6c07d3d1ca103p-10) + q2 * 0x1.9910dc15cac58p-16);
}

// The sine of an angle `turned` right angles further on.

float turnedSine(float x, unsigned turned) {
    const Reduced angle = reduceFloat(double(x));
    const unsigned quadrant = angle.quadrant + turned;
    const double value = quadrant & 1 ? cosineForFloat(angle.high) : sineForFloat(angle.high);
    return float(quadrant & 2 ? -value : value);
}

double turnedSine(double x, unsigned turned) {
    const Reduced angle =
        std::abs(x) < kQuarterPi ? Reduced{x, 0.0, 0} : reduce(x);  // keeps a zero's sign
    const unsigned quadrant = angle.quadrant + turned;
    const double value =
        quadrant & 1 ? cosineNear(angle.high, angle.low) : sineNear(angle.high, angle.low);
    return quadrant & 2 ? -value : value;
}

// ---- inverse functions -------------------------------------------------------------------------

/// The angle of (x, y), given that of the smaller over the larger of their sizes.
template <class Real>
double placed(double acute, Real y, Real x, bool steep) {
    double angle = acute;
    if (steep)
        angle = std::signbit(x) ? kHalfPiHigh + (acute + kHalfPiLow)
                                : kHalfPiHigh - (acute - kHalfPiLow);
    else if (std::signbit(x))
        angle = kPiHigh - (acute - kPiLow);
    return std::copysign(angle, double(y));
}

/// The smaller over the larger, each 0 or more: 1 for two infinities, 0 for two zeros.
double ratio(double smaller, double larger) {
    if (smaller == larger) return larger == 0.0 ? 0.0 : 1.0;
    return smaller / larger;
}

/// atan for 0 to 1.
double arcTangentNear(double t) {
    // Angles of which the rest is small enough: 0, atan(1/2), atan(1).
    double high = 0.0, low = 0.0, r = t;
    if (t >= 0.6875) {
        high = 0x1.921fb54442d18p-1, low = 0x1.1a62633145c07p-55;
        r = (t - 1.0) / (t + 1.0);
    } else if (t >= 0.4375) {
        high = 0x1.dac670561bb4fp-2, low = 0x1.a2b7f222f65e2p-56;
        r = (2.0 * t - 1.0) / (2.0 + t);
    }
    const double q = r * r;
    double p = -0x1.0a491d5f54c09p-6;
    p = p * q + 0x1.2afab8b547e9dp-5;
    p = p * q - 0x1.9792f28c4a88cp-5;
    p = p * q + 0x1.ddda111d6821cp-5;
    p = p * q - 0x1.10d5b4bf7c194p-4;
    p = p * q + 0x1.3b0f181a62508p-4;
    p = p * q - 0x1.745cdb1132456p-4;
    p = p * q + 0x1.c71c6fd4a2542p-4;
    p = p * q - 0x1.2492491fddb91p-3;
    p = p * q + 0x1.999999998e342p-3;
    p = p * q - 0x1.5555555555508p-2;
    return high + (r + (r * (q * p) + low));
}

/// The same within 2^-33.
double arcTangentForFloat(double t) {
    const double q = t * t, q2 = q * q, q4 = q2 * q2;
    const double a =
        (1.0 - q * 0x1.5555547e115cfp-2) + q2 * (0x1.9999351915b95p-3 - q * 0x1.248a02b1ecf01p-3);
    const double b = (0x1.c66bd06a1c8a7p-4 - q * 0x1.7000118d9fa63p-4) +
                     q2 * (0x1.2939b30e4ee5p-4 - q * 0x1.be281c191cf64p-5);
    const double c = (0x1.19ea4d9ab01e3p-5 - q * 0x1.0a4e8c1f531a7p-6) +
                     q2 * (0x1.41a0c0da08d25p-8 - q * 0x1.6c2e345452636p-11);
    return t * (a + q4 * (b + q4 * c));
}

/// asin(s) with q = s * s, for s up to 1/2, within 2^-35.
double arcSineForFloat(double s, double q) {
    const double q2 = q * q;
    const double a =
        (1.0 + q * 0x1.5555560af4e95p-3) + q2 * (0x1.3332a7a5a308fp-4 + q * 0x1.6ddb2589652fbp-5);
    const double b = (0x1.ed54e8070998dp-6 + q * 0x1.934b9ca663bb1p-6) +
                     q2 * (0x1.ea48f05373838p-8 + q * 0x1.1c12537c21cf6p-5);
    return s * (a + q2 * q2 * b);
}

/// acos(size), size 0.5 to 1; NaN above 1.
double arcCosineNearOne(double size) {
    const double q = 0.5 * (1.0 - size);
    return 2.0 * arcSineForFloat(std::sqrt(q), q);
}

// ---- powers ------------------------------------------------------------------------------------

/// x as mantissa * 2^exponent, mantissa from `least` to twice that, for positive normal x.
struct Split {
    double mantissa, exponent;
    std::uint64_t sixteenth;  ///< how far up from `least`, by the mantissa's first four bits
};
Split split(double x, double least) {
    const std::uint64_t bits = bitsOf(x), above = bits - bitsOf(least);
    return {ofBits(bits - (above & 0xfff0000000000000u)), double(std::int64_t(above) >> 52),
            above >> 48 & 15};
}

/// log2(x) for a float above 0, within 2^-37 of itself.
double log2ForFloat(double x) {
    // Of each sixteenth of the mantissas a reciprocal of so few bits that products with a float
    // are exact, and its logarithm. That of 1 is 1, so that logarithms near 0 stay accurate.
    static constexpr struct {
        double reciprocal, log2;
    } kSixteenths[16] = {
        {0x1.66p0, -0x1.ef6d67328e22p-2},  {0x1.57p0, -0x1.b031befe06434p-2},
        {0x1.49p0, -0x1.72a1637cbc183p-2}, {0x1.3dp0, -0x1.3bbd3a0a1dcfbp-2},
        {0x1.31p0, -0x1.02baba24d0664p-2}, {0x1.26p0, -0x1.98edd077e70dfp-3},
        {0x1.1cp0, -0x1.32ae9e278ae1ap-3}, {0x1.12p0, -0x1.918a16e46335bp-4},
        {0x1.09p0, -0x1.985bfc3495194p-5}, {0x1p0, 0.0},
        {0x1.e5p-1, 0x1.4023b7b26ac9ep-4}, {0x1.cap-1, 0x1.494f863b8df35p-3},
        {0x1.b2p-1, 0x1.e857d3d361368p-3}, {0x1.9cp-1, 0x1.4106017c3eca3p-2},
        {0x1.88p-1, 0x1.8a8980abfbd32p-2}, {0x1.76p-1, 0x1.cffae611ad12bp-2},
    };
    const auto [mantissa, exponent, sixteenth] = split(x, 0.69921875);
    const auto& near = kSixteenths[sixteenth];
    const double r = mantissa * near.reciprocal - 1.0, r2 = r * r;
    const double p = (0x1.71547652bfcd2p0 - r * 0x1.71547652e2131p-1) +
                     r2 * ((0x1.ec7095989eeabp-2 - r * 0x1.71546bc561675p-2) +
                           r2 * (0x1.27c9d555efea4p-2 - r * 0x1.ed16c3572c93p-3));
    return (exponent + near.log2) + r * p;
}

/// 2^x for -1000 to 1000, within 2^-33. NaN for NaN.
double exp2ForFloat(double x) {
    static constexpr double kPowers[32] = {// 2^(i / 32)
                                           0x1p0,
                                           0x1.059b0d3158574p0,
                                           0x1.0b5586cf9890fp0,
                                           0x1.11301d0125b51p0,
                                           0x1.172b83c7d517bp0,
                                           0x1.1d4873168b9aap0,
                                           0x1.2387a6e756238p0,
                                           0x1.29e9df51fdee1p0,
                                           0x1.306fe0a31b715p0,
                                           0x1.371a7373aa9cbp0,
                                           0x1.3dea64c123422p0,
                                           0x1.44e086061892dp0,
                                           0x1.4bfdad5362a27p0,
                                           0x1.5342b569d4f82p0,
                                           0x1.5ab07dd485429p0,
                                           0x1.6247eb03a5585p0,
                                           0x1.6a09e667f3bcdp0,
                                           0x1.71f75e8ec5f74p0,
                                           0x1.7a11473eb0187p0,
                                           0x1.82589994cce13p0,
                                           0x1.8ace5422aa0dbp0,
                                           0x1.93737b0cdc5e5p0,
                                           0x1.9c49182a3f09p0,
                                           0x1.a5503b23e255dp0,
                                           0x1.ae89f995ad3adp0,
                                           0x1.b7f76f2fb5e47p0,
                                           0x1.c199bdd85529cp0,
                                           0x1.cb720dcef9069p0,
                                           0x1.d5818dcfba487p0,
                                           0x1.dfc97337b9b5fp0,
                                           0x1.ea4afa2a490dap0,
                                           0x1.f50765b6e454p0};
    constexpr double kRounder32 = kRounder / 32.0;  // rounds to a 32nd
    const double rounded = x + kRounder32, r = x - (rounded - kRounder32);
    const std::uint64_t n = bitsOf(rounded), index = n & 31;
    const double power = ofBits(bitsOf(kPowers[index]) + ((n - index) << 47));
    const double p = (1.0 + r * 0x1.62e42ff184325p-1) +
                     r * r * (0x1.ebfce69b5cc04p-3 + r * 0x1.c6ae9e4e0cff3p-5);
    return power * p;
}

double limited(double x, double low, double high) {  // keeps NaN
    return x < low ? low : x > high ? high : x;
}

}  // namespace

float sin(float x) { return turnedSine(x, 0); }
float cos(float x) { return turnedSine(x, 1); }
float tan(float x) {
    const Reduced angle = reduceFloat(double(x));
    const double s = sineForFloat(angle.high), c = cosineForFloat(angle.high);
    return float(angle.quadrant & 1 ? -c / s : s / c);
}

float asin(float x) {
    const double size = std::abs(double(x));
    const double angle =
        size <= 0.5 ? arcSineForFloat(size, size * size) : kHalfPiHigh - arcCosineNearOne(size);
    return std::copysign(float(angle), x);
}
float acos(float x) {
    const double t = double(x), size = std::abs(t);
    if (size <= 0.5) return float(kHalfPiHigh - arcSineForFloat(t, t * t));
    const double angle = arcCosineNearOne(size);
    return float(t < 0.0 ? kPiHigh - angle : angle);
}

float atan(float x) { return atan2(x, 1.0f); }
float atan2(float y, float x) {
    if (x != x || y != y) return x + y;
    const double up = std::abs(double(y)), along = std::abs(double(x));
    const bool steep = up > along;
    const double t = steep ? ratio(along, up) : ratio(up, along);
    return float(placed(arcTangentForFloat(t), y, x, steep));
}

float exp(float x) { return float(exp2ForFloat(limited(double(x) * kInverseLn2, -200.0, 200.0))); }

float log(float x) {
    const double t = double(x);
    if (!(t > 0.0 && t < kInfinity))
        return float(t == 0.0 ? -kInfinity : t == kInfinity ? kInfinity : kNaN);
    return float(log2ForFloat(t) * kLn2);
}

namespace {

/// What is not a positive finite number to a finite power.
float unusualPower(float x, float y) {
    if (y == 0.0f || x == 1.0f) return 1.0f;
    if (x != x || y != y) return x + y;
    const double size = std::abs(double(x)), power = double(y);
    const bool whole = std::floor(power) == power;
    if (x < 0.0f && size < kInfinity && !whole) return float(kNaN);
    double result = 1.0;  // -1 to an infinite power too
    if (size == 0.0 || size == kInfinity)
        result = (size == 0.0) == (power < 0.0) ? kInfinity : 0.0;
    else if (size != 1.0)
        result = exp2ForFloat(limited(power * log2ForFloat(size), -200.0, 200.0));
    const bool odd = whole && std::floor(0.5 * power) != 0.5 * power;
    return float(std::signbit(x) && odd ? -result : result);
}

}  // namespace

float pow(float x, float y) {
    const double base = double(x), power = double(y);
    if (!(base > 0.0 && base < kInfinity && power - power == 0.0)) return unusualPower(x, y);
    return float(exp2ForFloat(limited(power * log2ForFloat(base), -200.0, 200.0)));
}

float cbrt(float x) {
    const double size = std::abs(double(x));
    if (!(size > 0.0 && size < kInfinity)) return x;
    // A third of the exponent is within 6 %; each of Halley's steps cubes the error.
    double root = ofBits(bitsOf(size) / 3 + 0x2a9f84fe36d22425u);
    for (int step = 0; step < 2; ++step) {
        const double cube = root * root * root;
        root = root * (cube + 2.0 * size) / (2.0 * cube + size);
    }
    return std::copysign(float(root), x);
}

double sin(double x) { return turnedSine(x, 0); }
double cos(double x) { return turnedSine(x, 1); }

double atan2(double y, double x) {
    if (x != x || y != y) return x + y;
    const double up = std::abs(y), along = std::abs(x);
    const bool steep = up > along;
    const double t = steep ? ratio(along, up) : ratio(up, along);
    return placed(arcTangentNear(t), y, x, steep);
}
double acos(double x) {  // exact differences near 1 and -1
    return 2.0 * atan2(std::sqrt(1.0 - x), std::sqrt(1.0 + x));
}

double exp(double x) {
    if (x != x) return x;
    if (x > 710.0) return kInfinity;
    if (x < -746.0) return 0.0;
    const double rounded = x * kInverseLn2 + kRounder, n = rounded - kRounder;
    const double high = x - n * kLn2High, low = n * kLn2Low, r = high - low;
    double p = 0x1.1ee004182688dp-29;
    p = p * r + 0x1.af6e5636e47bap-26;
    p = p * r + 0x1.27e53c62c0d36p-22;
    p = p * r + 0x1.71ddee88cf263p-19;
    p = p * r + 0x1.a01a017909a11p-16;
    p = p * r + 0x1.a01a01b43d5ebp-13;
    p = p * r + 0x1.6c16c16c1f3a5p-10;
    p = p * r + 0x1.111111110ea07p-7;
    p = p * r + 0x1.5555555555542p-5;
    p = p * r + 0x1.555555555555cp-3;
    p = p * r + 0.5;
    const double value = 1.0 + (high - (low - r * r * p));
    // In two steps: the power itself may be too large or too small.
    const double half = std::floor(0.5 * n);
    return value * powerOfTwo(half + kRounder) * powerOfTwo((n - half) + kRounder);
}

double log(double x) {
    if (!(x > 0.0 && x < kInfinity)) return x == 0.0 ? -kInfinity : x == kInfinity ? x : kNaN;
    const bool tiny = x < 0x1p-1022;
    const Split parts = split(tiny ? x * 0x1p54 : x, 0x1.6a09e667f3bcdp-1);  // sqrt(1/2)
    const double mantissa = parts.mantissa;
    const double exponent = tiny ? parts.exponent - 54.0 : parts.exponent;
    const double f = mantissa - 1.0, s = f / (2.0 + f), q = s * s;
    double p = 0x1.2f0edc7587e65p-3;
    p = p * q + 0x1.39a0bb5f6a887p-3;
    p = p * q + 0x1.74664992e5112p-3;
    p = p * q + 0x1.c71c51d01b16cp-3;
    p = p * q + 0x1.249249424137p-2;
    p = p * q + 0x1.999999997f6f8p-2;
    p = p * q + 0x1.5555555555594p-1;
    // 2 s = f - s f, and s f = f^2 / 2 - s f^2 / 2: so f, the leading part, stays exact.
    const double half = 0.5 * f * f;
    return exponent * kLn2High - ((half - (s * (half + q * p) + exponent * kLn2Low)) - f);
}

}  // namespace corvelle::math
