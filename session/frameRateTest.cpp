#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "session/frameRate.h"

namespace corvelle {
namespace {

TEST(FrameRate, HoldsNtscRatesExactlyAndLeavesOthers) {
    const double infinite = std::numeric_limits<double>::infinity();
    const struct {
        double given, held;
    } cases[] = {{24, 24},
                 {25, 25},
                 {24.5, 24.5},
                 {23.976, 24000.0 / 1001.0},
                 {29.97, 30000.0 / 1001.0},
                 {59.94, 60000.0 / 1001.0},
                 {119.88, 120000.0 / 1001.0},
                 {23.98, 23.98},  // too far from 24000/1001 to be meant as it
                 {25.0 + 5e-10, 25.0 + 5e-10},
                 {0.3, 0.3},
                 {1e300, 1e300},
                 {0, 24},
                 {-30, 24},
                 {infinite, 24},
                 {std::nan(""), 24}};
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(effectiveRate(c.given), c.held) << c.given;
        EXPECT_EQ(effectiveRate(effectiveRate(c.given)), effectiveRate(c.given))
            << "settled at once";
    }
}

TEST(FrameRate, FramesAndSecondsAreInverse) {
    EXPECT_EQ(secondsFromFrames(24, 24), 1.0);
    EXPECT_EQ(framesFromSeconds(1.0, 24), 24.0);
    EXPECT_EQ(secondsFromFrames(30, effectiveRate(29.97)), 1.001);
    // Ten hours in, an NTSC frame is still a whole number: nothing has drifted.
    const double rate = effectiveRate(29.97);
    EXPECT_EQ(framesFromSeconds(1001.0 * 36, rate), 30000.0 * 36);
    for (const double fps : {24.0, 29.97, 23.976, 12.5, 1000.0})
        for (const double frame : {-48.0, 0.0, 1.0, 1001.0, 86400.5}) {
            const double r = effectiveRate(fps);
            EXPECT_NEAR(framesFromSeconds(secondsFromFrames(frame, r), r), frame, 1e-9);
        }
}

}  // namespace
}  // namespace corvelle
