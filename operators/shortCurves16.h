#pragma once

#include "operators/neighborLanes.h"

// Kernels of neighborKernels.h for strands of at most 16 points, a point a lane: where along
// another curve a point reads is then looked up in a register, all points of a strand at once. Part
// of lanesAvx512.cpp, after its Float16; the same operations on each number as in neighborLanes.h,
// so the same bits.

namespace corvelle {

namespace {

/// The most points that these kernels take.
constexpr std::size_t kShort = 16;

/// Numbers of 16 strands, a strand a row.
struct ShortRows {
    alignas(64) float rows[16][kShort];
};

CORVELLE_AVX512 inline __mmask16 shortMask(std::size_t n) { return __mmask16((1u << n) - 1); }
CORVELLE_AVX512 inline Float16 loadShort(const float* from, __mmask16 mask) {
    return _mm512_maskz_loadu_ps(mask, from);
}
CORVELLE_AVX512 inline Float16 allOf(const float* number) { return _mm512_set1_ps(*number); }

/// x, y, z of each point, taken apart. Lanes past the last point are 0.
CORVELLE_AVX512 inline void loadShortPoints(const float* from, std::size_t n, Float16 at[3]) {
    const std::uint64_t mask = (std::uint64_t(1) << (3 * n)) - 1;
    const __m512 a = _mm512_maskz_loadu_ps(__mmask16(mask), from);
    const __m512 b = _mm512_maskz_loadu_ps(__mmask16(mask >> 16), from + 16);
    const __m512 c = _mm512_maskz_loadu_ps(__mmask16(mask >> 32), from + 32);
    // Of a and b together, then of that and c.
    const __m512i first =
        _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 1, 4, 7, 10, 13);
    const __m512i one = _mm512_set1_epi32(1);
    const __m512i second = _mm512_add_epi32(first, one), third = _mm512_add_epi32(second, one);
    const __m512i xs = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 17, 20, 23, 26, 29);
    const __m512i ys = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 18, 21, 24, 27, 30);
    const __m512i zs = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 16, 19, 22, 25, 28, 31);
    at[0] = _mm512_permutex2var_ps(_mm512_permutex2var_ps(a, first, b), xs, c);
    at[1] = _mm512_permutex2var_ps(_mm512_permutex2var_ps(a, second, b), ys, c);
    at[2] = _mm512_permutex2var_ps(_mm512_permutex2var_ps(a, third, b), zs, c);
}

/// The way back.
CORVELLE_AVX512 inline void storeShortPoints(const Float16 at[3], float* to, std::size_t n) {
    const std::uint64_t mask = (std::uint64_t(1) << (3 * n)) - 1;
    const __m512 x = at[0].lanes, y = at[1].lanes, z = at[2].lanes;
    // Of x and y together, then of that and z.
    const __m512i a = _mm512_setr_epi32(0, 16, 0, 1, 17, 0, 2, 18, 0, 3, 19, 0, 4, 20, 0, 5);
    const __m512i b = _mm512_setr_epi32(21, 0, 6, 22, 0, 7, 23, 0, 8, 24, 0, 9, 25, 0, 10, 26);
    const __m512i c = _mm512_setr_epi32(0, 11, 27, 0, 12, 28, 0, 13, 29, 0, 14, 30, 0, 15, 31, 0);
    const __m512i az = _mm512_setr_epi32(0, 1, 16, 3, 4, 17, 6, 7, 18, 9, 10, 19, 12, 13, 20, 15);
    const __m512i bz = _mm512_setr_epi32(0, 21, 2, 3, 22, 5, 6, 23, 8, 9, 24, 11, 12, 25, 14, 15);
    const __m512i cz = _mm512_setr_epi32(26, 1, 2, 27, 4, 5, 28, 7, 8, 29, 10, 11, 30, 13, 14, 31);
    _mm512_mask_storeu_ps(to, __mmask16(mask),
                          _mm512_permutex2var_ps(_mm512_permutex2var_ps(x, a, y), az, z));
    _mm512_mask_storeu_ps(to + 16, __mmask16(mask >> 16),
                          _mm512_permutex2var_ps(_mm512_permutex2var_ps(x, b, y), bz, z));
    _mm512_mask_storeu_ps(to + 32, __mmask16(mask >> 32),
                          _mm512_permutex2var_ps(_mm512_permutex2var_ps(x, c, y), cz, z));
}

/// Lane i of what lane i + 1 holds; lane 0 comes last.
CORVELLE_AVX512 inline Float16 nextLane(Float16 v) {
    const __m512i lanes = _mm512_castps_si512(v.lanes);
    return _mm512_castsi512_ps(_mm512_alignr_epi32(lanes, lanes, 1));
}

/// How long the segments are that begin at each point but the last.
CORVELLE_AVX512 inline Float16 shortSegments(const Float16 at[3]) {
    Float16 v[3];
    for (int x = 0; x < 3; ++x) v[x] = nextLane(at[x]) - at[x];
    return lengthAcross(v);
}

CORVELLE_AVX512 inline void shortColumns(const ShortRows& rows, std::size_t count,
                                         Float16* columns) {
    const float* from[16];
    for (std::size_t l = 0; l < 16; ++l) from[l] = rows.rows[l];
    gatherLanes(from, (count + 3) / 4 * 4, columns);
}

/// The arc lengths at each point, from those of the segments: strands side by side. Returns the
/// whole. columns [n rounded up to fours].
CORVELLE_AVX512 inline Float16 shortArcs(const ShortRows& segments, std::size_t n,
                                         Float16* columns) {
    shortColumns(segments, n, columns);
    Float16 arc(0.0f);
    for (std::size_t i = 0; i < n; ++i) {
        const Float16 segment = columns[i];
        columns[i] = arc;
        if (i + 1 < n) arc = arc + segment;
    }
    return arc;
}

/// The same in place, strand by strand.
CORVELLE_AVX512 inline Float16 turnIntoArcs(ShortRows& rows, std::size_t n, Float16* columns) {
    const Float16 total = shortArcs(rows, n, columns);
    float* to[16];
    for (std::size_t l = 0; l < 16; ++l) to[l] = rows.rows[l];
    scatterLanes(columns, n, to);
    return total;
}

/// For each lane the segment that it lies on: the last entry of an ascending row that is below
/// `at`, and the first where none is. By fours, then within four: two steps that wait for one
/// another where halves would take four.
CORVELLE_AVX512 inline __m512i segmentsAt(Float16 row, Float16 at) {
    const __m512i four = _mm512_set1_epi32(4), one = _mm512_set1_epi32(1);
    __m512i found = _mm512_setzero_si512();
    for (int k = 4; k < 16; k += 4) {
        const __m512 value = _mm512_permutexvar_ps(_mm512_set1_epi32(k), row.lanes);
        found = _mm512_mask_add_epi32(found, _mm512_cmp_ps_mask(value, at.lanes, _CMP_LT_OQ), found,
                                      four);
    }
    const __m512i first = found;
    for (int k = 1; k < 4; ++k) {
        const __m512 value =
            _mm512_permutexvar_ps(_mm512_add_epi32(first, _mm512_set1_epi32(k)), row.lanes);
        found = _mm512_mask_add_epi32(found, _mm512_cmp_ps_mask(value, at.lanes, _CMP_LT_OQ), found,
                                      one);
    }
    return found;
}

/// The points of a curve at `at`, by where its own points lie along it; `along` is infinite past
/// the last one.
CORVELLE_AVX512 inline void readShort(const Float16 curve[3], Float16 along, Float16 at,
                                      Float16 out[3]) {
    const Float16 zero(0.0f), one(1.0f);
    const __m512i here = segmentsAt(along, at);
    const __m512i there = _mm512_add_epi32(here, _mm512_set1_epi32(1));
    const Float16 start = _mm512_permutexvar_ps(here, along.lanes);
    const Float16 span = Float16(_mm512_permutexvar_ps(there, along.lanes)) - start;
    const Float16 share = select(span > zero, lower(one, (at - start) / span), zero);
    for (int x = 0; x < 3; ++x) {
        const Float16 from = _mm512_permutexvar_ps(here, curve[x].lanes);
        const Float16 to = _mm512_permutexvar_ps(there, curve[x].lanes);
        out[x] = from + (to - from) * share;
    }
}

CORVELLE_AVX512 inline Float16 infiniteBut(const float* from, __mmask16 mask) {
    const __m512 most = _mm512_castsi512_ps(_mm512_set1_epi32(0x7f800000));
    return _mm512_mask_loadu_ps(most, mask, from);
}

CORVELLE_LANES_TARGET inline void measureShort(const MeasureJob& job,
                                               const StrandGroup<Float16>& group, std::size_t n,
                                               float*) {
    ShortRows segments;
    float* to[16];
    const __mmask16 mask = shortMask(n);
    for (std::size_t l = 0; l < 16; ++l) {
        float* const row = job.rows + 4 * job.starts[job.seats[group.places[l]]];
        Float16 points[3];
        loadShortPoints(group.from[l], n, points);
        shortSegments(points).store(segments.rows[l]);
        for (std::size_t x = 0; x < 3; ++x)
            _mm512_mask_storeu_ps(row + x * n, mask, points[x].lanes);
        to[l] = row + 3 * n;
    }
    Float16 shares[kShort];
    const Float16 total = shortArcs(segments, n, shares);
    sharesOfArcs(total, n, shares);
    alignas(64) float lengths[16];
    total.store(lengths);
    for (std::size_t l = 0; l < 16; ++l) job.lengths[job.seats[group.places[l]]] = lengths[l];
    scatterLanes(shares, n, to);
}

CORVELLE_LANES_TARGET inline void blendShort(const BlendJob& job, const StrandGroup<Float16>& group,
                                             std::size_t n, float*) {
    const CurveRows& curves = job.curves;
    const Float16 zero(0.0f), one(1.0f);
    const __mmask16 mask = shortMask(n), moving = __mmask16(mask & ~1u);
    Float16 out[16][3];
    ShortRows segments;
    alignas(64) float lengths[16];
    for (std::size_t l = 0; l < 16; ++l) {
        const std::size_t place = group.places[l];
        const std::uint32_t seat = job.seats[place];
        const float* const own = curves.rows + 4 * curves.starts[seat];
        const Float16 shares = loadShort(own + 3 * n, mask);
        lengths[l] = curves.lengths[seat];
        Float16 sum[3] = {zero, zero, zero};
        const std::uint32_t count = job.counts[place];
        for (std::uint32_t j = 0; j < count; ++j) {
            const std::uint32_t other = job.neighbors[place][j];
            const std::size_t m = std::size_t(curves.starts[other + 1] - curves.starts[other]);
            const __mmask16 theirs = shortMask(m);
            const float* const row = curves.rows + 4 * curves.starts[other];
            Float16 points[3], p[3];
            for (std::size_t x = 0; x < 3; ++x) points[x] = loadShort(row + x * m, theirs);
            readShort(points, infiniteBut(row + 3 * m, theirs), shares, p);
            for (std::size_t x = 0; x < 3; ++x) sum[x] = sum[x] + (p[x] - allOf(row + x * m));
        }
        const Float16 share(1.0f / float(count)), strength(job.strengths[place]);
        const Float16 amount = clampAcross(rampAcross(job.profile, shares) * strength);
        for (std::size_t x = 0; x < 3; ++x) {
            const Float16 p = loadShort(own + x * n, mask), root = allOf(own + x * n);
            const Float16 target = root + sum[x] * share;
            out[l][x] = select(Mask16{moving}, p + (target - p) * amount, p);
        }
        shortSegments(out[l]).store(segments.rows[l]);
    }
    if (job.keepLength) {
        Float16 columns[kShort];
        const Float16 is = shortArcs(segments, n, columns), length = Float16::load(lengths);
        const auto scales = (is > zero) & (length > zero);
        alignas(64) float scale[16];
        select(scales, length / is, one).store(scale);
        for (std::size_t l = 0; l < 16; ++l) {
            const __mmask16 lanes = (laneBits(scales) >> l) & 1 ? moving : __mmask16(0);
            for (Float16& p : out[l]) {
                const Float16 root = _mm512_broadcastss_ps(_mm512_castps512_ps128(p.lanes));
                p = select(Mask16{lanes}, root + (p - root) * Float16(scale[l]), p);
            }
        }
    }
    for (std::size_t l = 0; l < 16; ++l) storeShortPoints(out[l], group.to[l], n);
}

CORVELLE_LANES_TARGET inline void stickShort(const StickJob& job, const StrandGroup<Float16>& group,
                                             std::size_t n, float*) {
    Float16 own[16][3], partners[16][3];
    ShortRows arcs, partnerArcs;
    for (std::size_t l = 0; l < 16; ++l) {
        const std::uint32_t partner = job.partners[group.places[l]];
        loadShortPoints(group.from[l], n, own[l]);
        loadShortPoints(job.points.from + 3 * job.points.offsets[partner], n, partners[l]);
        shortSegments(own[l]).store(arcs.rows[l]);
        shortSegments(partners[l]).store(partnerArcs.rows[l]);
    }
    // Spans, from the arcs, with the strands side by side.
    Float16 columns[kShort], span[4];
    numbersAcross(group, job.spans, 4, span);
    const Float16 length = turnIntoArcs(arcs, n, columns);
    const Float16 partnerLength = turnIntoArcs(partnerArcs, n, columns);
    const Float16 zero(0.0f), one(1.0f), most(3.4028235e38f);
    const Float16 begin = span[0] * length, end = lower(partnerLength, span[1] * length);
    const auto sticks = (end > begin) & (most >= partnerLength);
    alignas(64) float begins[16], ends[16], scales[16], strengths[16], limits[16];
    begin.store(begins);
    select(sticks, end, zero - one).store(ends);
    (one / (end - begin)).store(scales);
    span[2].store(strengths);
    partnerLength.store(limits);
    const float reach = job.reach > 0.0f ? job.reach : 3e38f;
    const __mmask16 mask = shortMask(n), moving = __mmask16(mask & ~1u);
    for (std::size_t l = 0; l < 16; ++l) {
        // What lies past the partner's end does not stick anyway.
        const Float16 first(begins[l]);
        const Float16 at = lower(Float16::load(arcs.rows[l]), Float16(limits[l]));
        const auto takes = Mask16{moving} & (at > first) & (at < Float16(ends[l]));
        Float16 pull[3];
        readShort(partners[l], infiniteBut(partnerArcs.rows[l], mask), at, pull);
        for (std::size_t x = 0; x < 3; ++x) pull[x] = pull[x] - own[l][x];
        const Float16 squared = pull[0] * pull[0] + pull[1] * pull[1] + pull[2] * pull[2];
        const auto far = takes & (squared > Float16(reach * reach));
        const Mask16 moves{laneBits(far) != 0 ? __mmask16(0) : takes.bits};
        const Float16 amount =
            Float16(strengths[l]) * easedAcross((at - first) * Float16(scales[l]));
        for (std::size_t x = 0; x < 3; ++x)
            own[l][x] = select(moves, own[l][x] + pull[x] * amount, own[l][x]);
        storeShortPoints(own[l], group.to[l], n);
    }
}

/// Strands of at most 16 points by these kernels, others by those of neighborLanes.h.
CORVELLE_LANES_TARGET inline void measureEither(const MeasureJob& job, std::size_t first,
                                                std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<Float16, MeasureJob>(job.byComponent ? measureShort : measureGroup<Float16>,
                                          job, first, count, n, scratch);
}
CORVELLE_LANES_TARGET inline void blendEither(const BlendJob& job, std::size_t first,
                                              std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<Float16, BlendJob>(job.curves.byComponent ? blendShort : blendGroup<Float16>,
                                        job, first, count, n, scratch);
}
CORVELLE_LANES_TARGET inline void stickEither(const StickJob& job, std::size_t first,
                                              std::size_t count, std::size_t n, float* scratch) {
    eachFetchedGroup<Float16, StickJob>(n <= kShort ? stickShort : stickGroup<Float16>, job, first,
                                        count, n, scratch);
}

}  // namespace

}  // namespace corvelle
