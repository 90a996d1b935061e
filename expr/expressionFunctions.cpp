#include "expr/expressionFunctions.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <type_traits>
#include <utility>

#include "expr/expressionNoise.h"
#include "expr/lanes.h"
#include "model/elementary.h"
#include "model/hash.h"
#include "model/vec3f.h"

// Transcendental functions are ours (model/elementary.h), everything else is exact IEEE arithmetic
// or hashing: the same bits on every machine, whatever the thread count or batch.

namespace corvelle {

namespace {

constexpr std::uint64_t kHashSalt = 0x68617368;  // "hash"
constexpr std::uint64_t kPickSalt = 0x7069636b;  // "pick"
constexpr float kWholeLimit = 1e9f;              // of whole-number arguments
constexpr std::size_t kMaxArguments = 64;
constexpr float kTinyLength = 1e-12f;
constexpr float kRadiansPerDegree = 0.017453292f;
constexpr float kDegreesPerRadian = 57.295776f;

// ---- numbers ----

float sine(float x) { return math::sin(x); }
float cosine(float x) { return math::cos(x); }
float tangent(float x) { return math::tan(x); }
float arcTangent(float x) { return math::atan(x); }
float absolute(float x) { return std::abs(x); }
float floorOf(float x) { return std::floor(x); }
float ceilOf(float x) { return std::ceil(x); }
float exponential(float x) { return math::exp(x); }
float roundOf(float x) { return std::round(x); }  // halves away from zero
float truncOf(float x) { return std::trunc(x); }

float limit(float x, float lo, float hi) {
    const float raised = x < lo ? lo : x;
    return raised > hi ? hi : raised;
}

float arcSine(float x) { return math::asin(limit(x, -1.0f, 1.0f)); }
float arcCosine(float x) { return math::acos(limit(x, -1.0f, 1.0f)); }
float squareRoot(float x) { return std::sqrt(x > 0.0f ? x : 0.0f); }
float fraction(float x) { return x - std::floor(x); }
float logarithm(float x) { return x > 0.0f ? math::log(x) : 0.0f; }
float signOf(float x) { return float(x > 0.0f) - float(x < 0.0f); }
float toRadians(float x) { return x * kRadiansPerDegree; }
float toDegrees(float x) { return x * kDegreesPerRadian; }
float arcTangent2(float y, float x) { return math::atan2(y, x); }
float minimum(float a, float b) { return b < a ? b : a; }
float maximum(float a, float b) { return a < b ? b : a; }
float modulo(float a, float b) { return b == 0.0f ? 0.0f : a - std::floor(a / b) * b; }
float stepAt(float edge, float x) { return edge > x ? 0.0f : 1.0f; }
float clampBetween(float x, float a, float b) { return limit(x, minimum(a, b), maximum(a, b)); }
float blend(float a, float b, float t) { return a + (b - a) * t; }
float linearStep(float a, float b, float x) {
    const float t = limit((x - a) / (b - a), 0.0f, 1.0f);
    const float hard = a > x ? 0.0f : 1.0f;
    return a == b ? hard : t;
}
float smoothStep(float a, float b, float x) {
    const float t = linearStep(a, b, x);
    return (3.0f - 2.0f * t) * t * t;  // exact at 0 and 1
}
float gammaOf(float x, float g) { return x > 0.0f && g > 0.0f ? math::pow(x, 1.0f / g) : 0.0f; }
float biasOf(float x, float b) {
    if (!(x > 0.0f && b > 0.0f)) return 0.0f;
    return b >= 1.0f ? 1.0f : math::pow(x, math::log(b) / math::log(0.5f));
}
float gainOf(float x, float g) {
    const float h = 1.0f - g;
    return x < 0.5f ? biasOf(2.0f * x, h) * 0.5f : 1.0f - biasOf(2.0f - 2.0f * x, h) * 0.5f;
}
float fitTo(float x, float a, float b, float c, float d) {
    const float fitted = (x - a) / (b - a) * (d - c) + c;
    return a == b ? c : fitted;
}
float remapTo(float x, float a, float b, float c, float d) {
    return clampBetween(fitTo(x, a, b, c, d), c, d);
}
float hashOfNumber(float x) { return unitHash(hashCombine(kHashSalt, x + 0.0f)); }  // -0 + 0 is 0
float noiseAt(float x, float y, float z) { return expression::noise({x, y, z}); }

/// A whole number from a float that may be anything.
std::int64_t wholeNumber(float rounded) {
    return rounded == rounded ? std::int64_t(limit(rounded, -kWholeLimit, kWholeLimit)) : 0;
}
struct WholeRange {
    std::int64_t low, high;
    WholeRange(float a, float b)
        : low(wholeNumber(std::round(a))), high(wholeNumber(std::round(b))) {
        if (low > high) std::swap(low, high);
    }
    std::int64_t count() const { return high - low + 1; }
};

float cycleIn(float x, float a, float b) {
    const WholeRange range(a, b);
    const std::int64_t offset = (wholeNumber(std::floor(x)) - range.low) % range.count();
    return float(range.low + (offset < 0 ? offset + range.count() : offset));
}

/// pick(x, lo, hi, w...): the values past the list of weights weigh 1 each, all at once, so the
/// size of the range costs nothing.
float pickFrom(const float* arguments, std::size_t count) {
    const WholeRange range(arguments[1], arguments[2]);
    const float* weights = arguments + 3;
    const std::int64_t listed = std::min(std::int64_t(count) - 3, range.count());
    const auto weight = [&](std::int64_t k) {
        const float w = finiteOrZero(weights[k]);
        return w > 0.0f ? double(w) : 0.0;
    };
    const double rest = double(range.count() - listed);
    double total = rest;
    for (std::int64_t k = 0; k < listed; ++k) total += weight(k);
    if (!(total > 0.0)) return float(range.low);
    const std::uint64_t h = hashCombine(kPickSalt, arguments[0] + 0.0f);
    double left = double(h >> 11) * 0x1p-53 * total;  // 53 bits: ranges are longer than 2^24
    std::int64_t last = 0;                            // the last listed value that may be picked
    for (std::int64_t k = 0; k < listed; ++k) {
        const double w = weight(k);
        if (left < w) return float(range.low + k);
        if (w > 0.0) last = k;
        left -= w;
    }
    if (listed == range.count()) return float(range.low + last);  // rounding ate the last bit
    const std::int64_t past = std::min(std::int64_t(left), range.count() - listed - 1);
    return float(range.low + listed + past);
}

float chooseFrom(const float* arguments, std::size_t count) {
    const float t = arguments[0];
    const std::size_t entries = count - 1;
    if (!(t > 0.0f)) return arguments[1];
    if (t >= 1.0f) return arguments[count - 1];
    return arguments[1 + std::min(std::size_t(t * float(entries)), entries - 1)];
}

// ---- vectors ----

float dotProduct(Vec3f a, Vec3f b) { return dot(a, b); }
float distanceBetween(Vec3f a, Vec3f b) { return distance(a, b); }
Vec3f crossProduct(Vec3f a, Vec3f b) { return cross(a, b); }
float lengthOf(Vec3f a) { return length(a); }
Vec3f unitVector(Vec3f a) {
    const float l = length(a);
    return l < kTinyLength ? Vec3f{} : a / l;
}
/// Rodrigues' rotation, right-handed, by an angle in radians about an axis of any length.
Vec3f rotateAbout(Vec3f v, Vec3f axis, float angle) {
    const float l = length(axis);
    if (!(l >= kTinyLength)) return v;
    const Vec3f k = axis / l;
    const float c = math::cos(angle), s = math::sin(angle);
    return v * c + cross(k, v) * s + k * (dot(k, v) * (1.0f - c));
}

// ---- from plain functions to rows ----

/// The slots a function's arguments and result take, and a call of it over loose floats.
template <class F>
struct Signature;
template <class Result, class... Arguments>
struct Signature<Result (*)(Arguments...)> {
    template <class T>
    static constexpr std::size_t kSize = std::is_same_v<T, Vec3f> ? 3 : 1;
    static constexpr std::size_t kSlots = (kSize<Arguments> + ...);
    static constexpr std::size_t kResults = kSize<Result>;
    using Slots = std::array<float, kSlots>;

    template <class T>
    static T take(const Slots& slots, std::size_t& at) {
        const std::size_t from = at;
        at += kSize<T>;
        if constexpr (std::is_same_v<T, Vec3f>)
            return {slots[from], slots[from + 1], slots[from + 2]};
        else
            return slots[from];
    }
    static Result call(Result (*f)(Arguments...), const Slots& slots) {
        std::size_t at = 0;
        // Braces: arguments are taken from left to right.
        const std::tuple<Arguments...> taken{take<Arguments>(slots, at)...};
        return std::apply(f, taken);
    }
};

inline void store(float result, float* slots, std::size_t) { slots[0] = finiteOrZero(result); }
inline void store(Vec3f result, float* slots, std::size_t stride) {
    slots[0] = finiteOrZero(result.x);
    slots[stride] = finiteOrZero(result.y);
    slots[2 * stride] = finiteOrZero(result.z);
}

template <auto F>
void callSingle(float* slots, std::size_t, const ExpressionCallContext&) {
    using S = Signature<decltype(F)>;
    typename S::Slots arguments;
    std::copy_n(slots, S::kSlots, arguments.begin());
    store(S::call(F, arguments), slots, 1);
}

template <auto F>
void callBatch(float* slots, std::size_t stride, std::size_t, std::size_t lanes,
               const ExpressionBatchCallContext&) {
    using S = Signature<decltype(F)>;
    CORVELLE_INDEPENDENT_LANES
    for (std::size_t i = 0; i < lanes; ++i) {
        typename S::Slots arguments;
        for (std::size_t k = 0; k < S::kSlots; ++k) arguments[k] = slots[k * stride + i];
        store(S::call(F, arguments), slots + i, stride);
    }
}

/// For functions of many arguments: `F(arguments, count)`, the lane's arguments side by side.
template <auto F>
void callListSingle(float* slots, std::size_t count, const ExpressionCallContext&) {
    store(F(slots, count), slots, 1);
}
template <auto F>
void callListBatch(float* slots, std::size_t stride, std::size_t count, std::size_t lanes,
                   const ExpressionBatchCallContext&) {
    std::array<float, kMaxArguments> arguments;
    for (std::size_t i = 0; i < lanes; ++i) {
        for (std::size_t k = 0; k < count; ++k) arguments[k] = slots[k * stride + i];
        store(F(arguments.data(), count), slots + i, stride);
    }
}

// Points with optional numbers after them: p, then what is given.
float numberOr(const float* arguments, std::size_t count, std::size_t at, float otherwise) {
    return at < count ? arguments[at] : otherwise;
}
template <auto F>
auto octaves(const float* a, std::size_t count) {
    return F({a[0], a[1], a[2]}, numberOr(a, count, 3, 4.0f), numberOr(a, count, 4, 2.0f),
             numberOr(a, count, 5, 0.5f));
}
float voronoiAt(const float* a, std::size_t count) {
    return expression::voronoi({a[0], a[1], a[2]}, numberOr(a, count, 3, 1.0f),
                               numberOr(a, count, 4, 1.0f));
}

float randomOf(std::uint64_t id, float x) { return unitHash(hashCombine(mix64(id), x)); }
void randomSingle(float* slots, std::size_t, const ExpressionCallContext& context) {
    slots[0] = randomOf(context.id, slots[0]);
}
void randomBatch(float* slots, std::size_t, std::size_t, std::size_t lanes,
                 const ExpressionBatchCallContext& context) {
    for (std::size_t i = 0; i < lanes; ++i)
        slots[i] = randomOf(context.ids ? context.ids[i] : 0, slots[i]);
}

void curveSingle(float* slots, std::size_t, const ExpressionCallContext& context) {
    slots[0] = finiteOrZero((*context.curve)(slots[0]));
}
void curveBatch(float* slots, std::size_t, std::size_t, std::size_t lanes,
                const ExpressionBatchCallContext& context) {
    for (std::size_t i = 0; i < lanes; ++i) slots[i] = finiteOrZero((*context.curve)(slots[i]));
}

// ---- the table ----

using enum ExpressionFamily;

/// Numbers or vectors of a fixed count, read off the function itself.
template <auto F>
constexpr ExpressionFunction row(std::string_view name, std::uint8_t arguments,
                                 ExpressionFamily family = Numbers, std::uint8_t vectors = 0) {
    return {name,   arguments,     arguments,
            family, vectors,       Signature<decltype(F)>::kResults == 3,
            false,  callSingle<F>, callBatch<F>};
}
template <auto F>
constexpr ExpressionFunction listRow(std::string_view name, std::uint8_t least, std::uint8_t most,
                                     ExpressionFamily family = List, std::uint8_t vectors = 0) {
    using Result = decltype(F(nullptr, 0));
    return {name,
            least,
            most,
            family,
            vectors,
            std::is_same_v<Result, Vec3f>,
            false,
            callListSingle<F>,
            callListBatch<F>};
}

constexpr ExpressionFunction kFunctions[] = {
    row<sine>("sin", 1),
    row<cosine>("cos", 1),
    row<tangent>("tan", 1),
    row<arcTangent>("atan", 1),
    row<absolute>("abs", 1),
    row<floorOf>("floor", 1),
    row<ceilOf>("ceil", 1),
    row<exponential>("exp", 1),
    row<roundOf>("round", 1),
    row<truncOf>("trunc", 1),
    row<arcSine>("asin", 1),
    row<arcCosine>("acos", 1),
    row<squareRoot>("sqrt", 1),
    row<fraction>("fract", 1),
    row<logarithm>("log", 1),
    row<signOf>("sign", 1),
    row<toRadians>("radians", 1),
    row<toDegrees>("degrees", 1),
    row<expressionPower>("pow", 2),
    row<arcTangent2>("atan2", 2),
    row<minimum>("min", 2),
    row<maximum>("max", 2),
    row<modulo>("mod", 2),
    row<stepAt>("step", 2),
    row<clampBetween>("clamp", 3),
    row<blend>("mix", 3),
    row<blend>("lerp", 3),
    row<smoothStep>("smoothstep", 3),
    row<linearStep>("linearstep", 3),
    row<gammaOf>("gamma", 2),
    row<biasOf>("bias", 2),
    row<gainOf>("gain", 2),
    row<fitTo>("fit", 5),
    row<remapTo>("remap", 5),
    {"rand", 1, 1, Numbers, 0, false, true, randomSingle, randomBatch},
    row<hashOfNumber>("hash", 1),
    listRow<pickFrom>("pick", 3, 64),
    listRow<chooseFrom>("choose", 2, 64),
    row<cycleIn>("cycle", 3),
    row<dotProduct>("dot", 2, Vectors, 2),
    row<distanceBetween>("distance", 2, Vectors, 2),
    row<crossProduct>("cross", 2, Vectors, 2),
    row<lengthOf>("length", 1, Vectors, 1),
    row<unitVector>("normalize", 1, Vectors, 1),
    row<rotateAbout>("rotate", 3, Vectors, 2),
    row<noiseAt>("noise", 3),
    row<expression::noise>("noise", 1, Point, 1),
    row<expression::vectorNoise>("vnoise", 1, Point, 1),
    listRow<octaves<expression::fbm>>("fbm", 1, 4, Point, 1),
    listRow<octaves<expression::turbulence>>("turbulence", 1, 4, Point, 1),
    listRow<octaves<expression::vectorFbm>>("vfbm", 1, 4, Point, 1),
    row<expression::cellNoise>("cellnoise", 1, Point, 1),
    listRow<voronoiAt>("voronoi", 1, 3, Point, 1),
    {"curve", 3, 64, Curve, 0, false, false, curveSingle, curveBatch},
    {"linearcurve", 3, 64, Curve, 0, false, false, curveSingle, curveBatch},
    {"spline", 2, 64, Spline, 0, false, false, curveSingle, curveBatch},
    {"map", 1, 2, Map, 0, false, false, nullptr, nullptr},
    {"cmap", 1, 1, Map, 0, true, false, nullptr, nullptr},
};
static_assert(std::size(kFunctions) == 58);

}  // namespace

std::span<const ExpressionFunction> expressionFunctions() { return kFunctions; }

}  // namespace corvelle
