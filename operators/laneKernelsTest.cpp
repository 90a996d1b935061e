#include <gtest/gtest.h>

#include "model/hash.h"
#include "model/polyline.h"
#include "model/rampSlopes.h"
#include "model/testing/tuft.h"
#include "operators/bend.h"
#include "operators/clumpPull.h"
#include "operators/laneKernels.h"
#include "operators/laneRuns.h"
#include "operators/length.h"
#include "operators/part.h"
#include "operators/partLanes.h"
#include "operators/placeStrands.h"
#include "operators/rootFrame.h"
#include "operators/segmentTurn.h"
#include "operators/smooth.h"
#include "operators/straighten.h"
#include "operators/strandOperator.h"
#include "operators/width.h"

namespace corvelle {
namespace {

/// Those that this processor does not take come as narrower ones.
constexpr SplineLanes kWidths[] = {SplineLanes::Four, SplineLanes::Eight, SplineLanes::Sixteen};

/// Strands of n points, some with points on top of one another, some of no length at all.
StrandSet strandsOf(std::size_t n, std::uint64_t seed) {
    StrandSet set =
        makeTuft({.strands = 61, .pointsPerStrand = n, .seed = seed, .channels = false});
    const auto points = set.mutablePoints();
    for (std::size_t s = 0; s < set.strandCount(); s += 7)
        for (std::size_t i = s % 2; i + 1 < n; i += 2) points[s * n + i + 1] = points[s * n + i];
    return set;
}

class LaneKernelsTest : public testing::TestWithParam<std::size_t> {
protected:
    const StrandSet set = strandsOf(GetParam(), GetParam());
    std::vector<std::uint32_t> all = [this] {
        std::vector<std::uint32_t> list(set.strandCount());
        for (std::uint32_t s = 0; s < list.size(); ++s) list[s] = s;
        return list;
    }();
    std::vector<float> numbers(float most) const {
        SplitMix random(3);
        std::vector<float> out(set.strandCount());
        for (float& x : out) x = std::min(1.0f, random.nextFloat() * most);
        out[4] = 0.0f;
        return out;
    }
};
INSTANTIATE_TEST_SUITE_P(Points, LaneKernelsTest,
                         testing::Values<std::size_t>(2, 3, 4, 5, 9, 16, 33, 70));

TEST_P(LaneKernelsTest, TrimWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> shares = numbers(1.3f);  // some whole
    std::vector<Vec3f> wanted(set.pointCount());
    for (const std::uint32_t s : all)
        trimStrand(set.pointsOf(s), shares[s], std::span(wanted).subspan(s * n, n));
    for (const SplineLanes lanes : kWidths) {
        std::vector<Vec3f> out(set.pointCount());
        const TrimJob job{&set.points()[0].x, &out[0].x, set.offsets().data()};
        LaneScratch scratch;
        laneKernels(lanes).trim(job, all.data(), shares.data(), all.size(), n, scratch.of(n));
        EXPECT_EQ(out, wanted);
    }
}

TEST_P(LaneKernelsTest, WidenWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> widths = numbers(0.5f);
    const std::vector<Ramp> profiles = {
        Ramp({{0.0f, 1.0f}, {0.7f, 0.85f}, {1.0f, 0.15f}}),
        Ramp({{0.2f, 0.3f}, {0.5f, 0.3f}, {0.5f, 0.9f}, {0.8f, 0.1f}}, true),
        Ramp({{0.0f, 0.0f}, {0.3f, 1.0f}, {0.4f, 0.2f}, {0.9f, 0.7f}}),
        Ramp({{0.5f, 0.2f}, {0.5f, 0.6f}})};
    for (const Ramp& profile : profiles) {
        std::vector<float> wanted(set.pointCount());
        for (const std::uint32_t s : all)
            strandWidths(set.pointsOf(s), {&widths[s], 1}, profile, 1.0f,
                         std::span(wanted).subspan(s * n, n));
        std::vector<float> positions, values;
        for (const auto& [position, value] : profile.keys()) {
            positions.push_back(position);
            values.push_back(value);
        }
        const std::vector<float> slopes = rampSlopes(profile.keys());
        for (const SplineLanes lanes : kWidths) {
            std::vector<float> out(set.pointCount());
            const WidthJob job{&set.points()[0].x,
                               out.data(),
                               set.offsets().data(),
                               {positions.data(), values.data(), slopes.data(), positions.size(),
                                profile.linear()}};
            LaneScratch scratch;
            laneKernels(lanes).widths(job, all.data(), widths.data(), all.size(), n, scratch.of(n));
            EXPECT_EQ(out, wanted);
        }
    }
}

const Ramp kRise({{0.0f, -0.2f}, {0.4f, 0.7f}, {1.0f, 1.4f}});

/// Directions of every kind: along and against the strands' own, and none at all.
std::vector<Vec3f> directionsFor(const StrandSet& set) {
    SplitMix random(9);
    std::vector<Vec3f> out(set.strandCount());
    for (std::size_t s = 0; s < out.size(); ++s) {
        const auto points = set.pointsOf(s);
        out[s] = {random.nextRange(-2, 2), random.nextRange(-2, 2), random.nextRange(-2, 2)};
        if (s % 5 == 1) out[s] = points[0] - points[1];
        if (s % 5 == 2) out[s] = points[1] - points[0];
        if (s == 20) out[s] = {};
    }
    return out;
}

/// The strands of `set` with the kernel's result, at either width. `job` without its points.
template <class Job>
std::vector<Vec3f> deformed(const StrandSet& set, const std::vector<std::uint32_t>& all,
                            LaneDeform<Job> kernel, Job job) {
    std::vector<Vec3f> out(set.pointCount());
    job.points = lanePoints(set, all, out);
    LaneScratch scratch;
    const std::size_t n = set.pointCountOf(0);
    kernel(job, 0, 23, n, scratch.of(n));  // as a batch is split: the groups fall elsewhere
    kernel(job, 23, all.size() - 23, n, scratch.of(n));
    return out;
}

TEST_P(LaneKernelsTest, TurnWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> strengths = numbers(1.3f);
    const std::vector<Vec3f> directions = directionsFor(set);
    const LaneRamp rise(kRise);
    enum class Kind { Plain, Straighten, Profiled, Laid };
    for (const Kind kind : {Kind::Plain, Kind::Straighten, Kind::Profiled, Kind::Laid}) {
        std::vector<Vec3f> wanted(set.pointCount());
        LaneNumbers<4> toward, normals;
        for (const std::uint32_t s : all) {
            const std::span<Vec3f> out = std::span(wanted).subspan(s * n, n);
            const Vec3f normal = s % 3 == 0   ? Vec3f{}
                                 : s % 3 == 1 ? normalized(directions[s])  // no way to lie
                                              : normalized(directions[s / 2]);
            const Vec3f way =
                kind == Kind::Laid ? laidOnSurface(directions[s], normal) : directions[s];
            toward.set(s, 0, directions[s], strengths[s]);
            normals.set(s, 0, normal, 0.0f);
            if (kind == Kind::Straighten) {
                straightenStrand(set.pointsOf(s), strengths[s], out);
            } else if (kind == Kind::Profiled) {
                std::vector<float> shares(n);
                segmentShares(set.pointsOf(s), kRise, strengths[s], shares);
                turnSegments(set.pointsOf(s), way, shares, out);
            } else {
                turnSegments(set.pointsOf(s), way, {&strengths[s], 1}, out);
            }
        }
        for (const SplineLanes lanes : kWidths) {
            std::vector<std::uint8_t> again(all.size());
            const TurnJob job{{},
                              toward.data(),
                              kind == Kind::Laid ? normals.data() : nullptr,
                              kind == Kind::Straighten,
                              kind == Kind::Profiled ? rise.keys() : RampKeys{},
                              again.data()};
            const std::vector<Vec3f> out = deformed(set, all, laneKernels(lanes).turn, job);
            std::size_t lanesDid = 0;
            for (const std::uint32_t s : all) {
                lanesDid += !again[s];
                for (std::size_t i = s * n; !again[s] && i < (s + 1) * n; ++i)
                    EXPECT_EQ(out[i], wanted[i]) << s << " " << int(kind);
            }
            EXPECT_GT(lanesDid, all.size() / 2) << "too few to prove anything";
            if (kind == Kind::Plain || kind == Kind::Profiled) {
                EXPECT_LT(lanesDid, all.size()) << "some point straight away";
            }
        }
    }
}

TEST_P(LaneKernelsTest, StepWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<Vec3f> directions = directionsFor(set);
    std::vector<float> steps;
    std::vector<Vec3f> wanted(set.pointCount());
    for (const std::uint32_t s : all) {
        const Vec3f step = directions[s];
        steps.insert(steps.end(), {step.x, step.y, step.z, 0.0f});
        const auto points = set.pointsOf(s);
        std::vector<float> amounts(n);
        polylineShares(points, amounts);
        kRise.sample(amounts, amounts);
        wanted[s * n] = points[0];
        for (std::size_t i = 1; i < n; ++i) wanted[s * n + i] = points[i] + step * amounts[i];
    }
    const LaneRamp rise(kRise);
    for (const SplineLanes lanes : kWidths)
        EXPECT_EQ(
            deformed<StepJob>(set, all, laneKernels(lanes).step, {{}, steps.data(), rise.keys()}),
            wanted);
}

TEST_P(LaneKernelsTest, SmoothWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> strengths = numbers(1.3f);
    const LaneRamp rise(kRise);
    for (const bool profiled : {false, true}) {
        std::vector<Vec3f> wanted(set.pointCount()), before(n);
        std::vector<float> amounts(n);
        for (const std::uint32_t s : all) {
            std::fill(amounts.begin(), amounts.end(), strengths[s]);
            if (profiled) {
                polylineShares(set.pointsOf(s), amounts);
                kRise.sample(amounts, amounts);
                for (float& a : amounts) a = clampShare(a * strengths[s]);
            }
            smoothStrand(set.pointsOf(s), amounts, 3, before, std::span(wanted).subspan(s * n, n));
        }
        for (const SplineLanes lanes : kWidths)
            EXPECT_EQ(
                deformed<SmoothJob>(set, all, laneKernels(lanes).smooth,
                                    {{}, strengths.data(), profiled ? rise.keys() : RampKeys{}, 3}),
                wanted);
    }
}

TEST(LaneDraws, AreThoseOfTheIds) {
    const StrandSet set = strandsOf(3, 5);
    std::vector<std::uint32_t> list;
    for (std::uint32_t s = 0; s < set.strandCount(); s += 1 + s % 3) list.push_back(s);
    for (const SplineLanes lanes : kWidths) {
        std::vector<float> draws(list.size());
        laneKernels(lanes).draw(77, set.ids().data(), list.data(), list.size(), draws.data());
        for (std::size_t k = 0; k < list.size(); ++k)
            EXPECT_EQ(draws[k], draw(77, set.ids()[list[k]]));
    }
}

/// Numbers as placing jobs take them: in each four a unit vector, or at times none, and an angle or
/// share; in the last one just that, or a move.
template <std::size_t kNumbers>
LaneNumbers<kNumbers> placingNumbers(const StrandSet& set) {
    SplitMix random(31);
    LaneNumbers<kNumbers> numbers;
    for (std::size_t s = 0; s < set.strandCount(); ++s)
        for (std::size_t four = 0; four < kNumbers / 4; ++four) {
            const Vec3f v{random.nextRange(-1, 1), random.nextRange(-1, 1),
                          s % 4 == 0 ? 0.0f : random.nextRange(-1, 1)};
            const Vec3f unit = random.nextFloat() < 0.3f ? Vec3f{} : normalized(v);
            numbers.set(s, four, unit, s % 9 == 2 ? 0.0f : random.nextRange(-1.5f, 3.1f));
        }
    return numbers;
}

template <class Job>
void expectPlacedAlike(const StrandSet& set, const std::vector<std::uint32_t>& all,
                       LaneDeform<Job> LaneKernels::*kernel, Job job) {
    const std::size_t n = set.pointCountOf(0);
    const auto numbers = placingNumbers<Job::kNumbers>(set);
    job.numbers = numbers.data();
    std::vector<Vec3f> wanted(set.points().begin(), set.points().end());
    for (const std::uint32_t s : all) placeAcross(job, numbers.at(s), &wanted[s * n].x, n);
    std::size_t moved = 0;
    for (const std::uint32_t s : all)
        moved += !(wanted[s * n + n - 1] == set.points()[s * n + n - 1]);
    EXPECT_GT(moved, all.size() / 4) << "too few to prove anything";
    for (const SplineLanes lanes : kWidths)
        EXPECT_EQ(deformed(set, all, laneKernels(lanes).*kernel, job), wanted);
}

TEST_P(LaneKernelsTest, PlaceWithTheBitsOfOneStrandAlone) {
    for (const bool either : {false, true}) {
        expectPlacedAlike<LeanJob>(
            set, all, &LaneKernels::lean,
            {.direction = {0.3f, either ? 0.0f : -2.0f, 0.1f}, .alongTangent = either});
        expectPlacedAlike<TransformJob>(set, all, &LaneKernels::transform, {.world = either});
    }
    expectPlacedAlike<LayJob>(set, all, &LaneKernels::lay, {});
}

TEST_P(LaneKernelsTest, TurnAwayWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const LaneRamp rise(kRise);
    auto numbers = placingNumbers<AwayJob::kNumbers>(set);
    for (const bool profiled : {false, true}) {
        std::vector<Vec3f> wanted(set.pointCount());
        std::vector<float> shares(n);
        for (const std::uint32_t s : all) {
            const auto points = set.pointsOf(s);
            const Vec3f v{numbers.at(s)[0], numbers.at(s)[1], numbers.at(s)[2]};
            numbers.set(s, 0, v, clampShare(numbers.at(s)[3]));
            const auto at = [&](std::size_t i) { return Lanes3<float>::at(numbers.at(s) + i); };
            const Lanes3<float> normal = normalAcross(at(0), lanes3(firstDirection(points)));
            const Vec3f away = vec3(wayFromPart(normal, at(4), at(8), numbers.at(s)[7]));
            std::ranges::fill(shares, numbers.at(s)[3]);
            if (profiled) segmentShares(points, kRise, numbers.at(s)[3], shares);
            turnAway(points, vec3(normal), away, shares, std::span(wanted).subspan(s * n, n));
        }
        for (const SplineLanes lanes : kWidths)
            EXPECT_EQ(deformed<AwayJob>(set, all, laneKernels(lanes).away,
                                        {{}, numbers.data(), profiled ? rise.keys() : RampKeys{}}),
                      wanted);
    }
}

TEST_P(LaneKernelsTest, BendWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<Vec3f> directions = directionsFor(set);
    for (const BendSpan span : {BendSpan{0.0f, 1.0f}, BendSpan{0.3f, 0.6f}, BendSpan{0.5f, 0.5f}}) {
        for (const bool limited : {false, true}) {
            LaneNumbers<4> bends;
            std::vector<float> shares(n);
            std::vector<Vec3f> wanted(set.pointCount());
            for (const std::uint32_t s : all) {
                const auto points = set.pointsOf(s);
                Vec3f toward = normalized(directions[s]);
                const float angle = s % 4 == 0 ? 0.0f : 0.1f * float(s % 60) - 3.0f;
                bends.set(s, 0, toward, angle);
                if (limited && toward == Vec3f{})
                    toward = rootNormal(nullptr, {}, firstDirection(points));
                polylineShares(points, shares);
                const Bending bend =
                    bendToward(bendDirection(points, shares, span.start), toward, angle, limited);
                bendStrand(points, shares, span, bend.axis, bend.angle,
                           std::span(wanted).subspan(s * n, n));
            }
            for (const SplineLanes lanes : kWidths)
                EXPECT_EQ(
                    deformed<BendJob>(set, all, laneKernels(lanes).bend,
                                      {{}, bends.data(), span.start, sharesToTurn(span), limited}),
                    wanted);
        }
    }
}

/// Axes of 1 to 90 points, some of one point over another, shorter and longer than the strands.
std::vector<std::vector<Vec3f>> axesFor(const StrandSet& set) {
    SplitMix random(21);
    const float length = polylineLength(set.pointsOf(1));
    std::vector<std::vector<Vec3f>> out;
    for (const std::size_t points : {1u, 2u, 5u, 16u, 17u, 40u, 90u}) {
        std::vector<Vec3f> axis(points);
        const float step = length * random.nextRange(0.4f, 2.0f) / float(points);
        for (std::size_t i = 1; i < points; ++i)
            axis[i] = axis[i - 1] + (i % 6 == 3 ? Vec3f{}
                                                : Vec3f{random.nextRange(-0.3f, 0.3f),
                                                        random.nextRange(0.2f, 1.8f),
                                                        random.nextRange(-0.3f, 0.3f)} *
                                                      step);
        out.push_back(std::move(axis));
    }
    return out;
}

TEST_P(LaneKernelsTest, PullWithTheBitsOfOneStrandAlone) {
    const std::size_t n = GetParam();
    const std::vector<float> strengths = numbers(1.3f);
    const auto shapes = axesFor(set);
    std::vector<AxisCurve> curves;
    for (const auto& shape : shapes) curves.push_back({.points = shape, .frame = {}});
    std::vector<std::uint32_t> axisOf(set.strandCount());
    for (std::uint32_t s = 0; s < axisOf.size(); ++s)  // runs of one axis, then all mixed
        axisOf[s] = s < 24 ? s / 12 : (5 * s) % std::uint32_t(shapes.size());
    const Ramp profiles[] = {Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}}),
                             Ramp({{0.1f, 0.3f}, {0.5f, 1.0f}, {0.9f, 0.2f}})};
    for (const Ramp& profile : profiles)
        for (const bool extend : {false, true}) {
            const PullSettings settings{.profile = profile, .volumizeProfile = {}};
            const ClumpAxes axes(curves, {.extend = extend});
            const PlainPull plain(axes, settings);
            ASSERT_TRUE(plain.fits());
            StrandPuller single(axes, settings, n);
            std::vector<Vec3f> wanted(set.pointCount());
            for (const std::uint32_t s : all)
                single.pull({.points = set.pointsOf(s), .strength = strengths[s], .strengths = {}},
                            axisOf[s], std::span(wanted).subspan(s * n, n));
            std::vector<Vec3f> alone(set.pointCount());
            for (const std::uint32_t s : all)
                plain.pull(set, {&s, 1}, {&axisOf[s], 1}, {&strengths[s], 1}, alone);
            for (std::size_t i = 0; i < alone.size(); ++i)
                EXPECT_LT(distance(alone[i], wanted[i]), 1e-4f) << i << " " << extend;
            for (const SplineLanes lanes : kWidths) {
                std::vector<Vec3f> out(set.pointCount());
                plain.pull(set, all, axisOf, strengths, out, lanes);
                EXPECT_EQ(out, alone);
            }
        }
}

}  // namespace
}  // namespace corvelle
