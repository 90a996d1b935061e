#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>

#include <gmock/gmock.h>

#include "model/hash.h"
#include "session/sceneSpace.h"

namespace corvelle {
namespace {

std::string errorOf(const std::string& upAxis, double metersPerUnit) {
    try {
        SceneSpace(upAxis, metersPerUnit);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

TEST(SceneSpace, RefusesWhatIsNoSpace) {
    EXPECT_EQ(errorOf("X", 1.0), "space.upAxis is \"Y\" or \"Z\", not \"X\"");
    EXPECT_EQ(errorOf("z", -1.0), "space.upAxis is \"Y\" or \"Z\", not \"z\"")
        << "the axis comes first";
    for (const double scale : {0.0, -0.0, -1.0, 1e6 * 1.0000001, 1e300, std::nan(""),
                               std::numeric_limits<double>::infinity()})
        EXPECT_EQ(errorOf("Y", scale), "space.metersPerUnit must be above 0") << scale;
    for (const double scale : {1e6, 1e-300, 0.01})
        EXPECT_EQ(errorOf("Z", scale), "no error") << scale;
}

TEST(SceneSpace, TurnsZUpMetresIntoYUpCentimetres) {
    const SceneSpace blender;
    EXPECT_EQ(blender.pointToGroom({1.0f, 2.0f, 3.0f}), (Vec3f{100.0f, 300.0f, -200.0f}));
    EXPECT_EQ(blender.pointToHost({100.0f, 300.0f, -200.0f}), (Vec3f{1.0f, 2.0f, 3.0f}));
    EXPECT_EQ(blender.directionToGroom({0.0f, 0.0f, 1.0f}), (Vec3f{0.0f, 1.0f, 0.0f}));
    EXPECT_EQ(blender.directionToHost({0.0f, 0.0f, -1.0f}), (Vec3f{0.0f, 1.0f, 0.0f}));
    EXPECT_EQ(blender.lengthToGroom(0.5f), 50.0f);
    const SceneSpace centimetres("Y", 0.01);
    EXPECT_EQ(centimetres.centimetersPerUnit(), 1.0);
    EXPECT_EQ(centimetres.pointToGroom({1.0f, 2.0f, 3.0f}), (Vec3f{1.0f, 2.0f, 3.0f}));
}

TEST(SceneSpace, GoesThereAndBackWithinOneRounding) {
    SplitMix random(3);
    for (const char* axis : {"Y", "Z"})
        for (const double scale : {1.0, 0.01, 0.0254, 0.3048, 1e-6, 1e6}) {
            const SceneSpace space(axis, scale);
            for (int i = 0; i < 200; ++i) {
                const Vec3f p{random.nextRange(-50.0f, 50.0f), random.nextRange(-50.0f, 50.0f),
                              random.nextRange(-50.0f, 50.0f)};
                const Vec3f there = space.pointToGroom(p), back = space.pointToHost(there);
                for (int k = 0; k < 3; ++k) EXPECT_NEAR(back[k], p[k], 1.2e-7f * std::abs(p[k]));
                // Handedness stays: the axes are turned, never mirrored.
                EXPECT_EQ(space.directionToHost(space.directionToGroom(p)), p);
                EXPECT_NEAR(double(length(there)), double(length(p)) * scale * 100.0,
                            1e-6 * double(length(there)));
            }
            EXPECT_EQ(cross(space.directionToGroom({1, 0, 0}), space.directionToGroom({0, 1, 0})),
                      space.directionToGroom({0, 0, 1}));
        }
}

}  // namespace
}  // namespace corvelle
