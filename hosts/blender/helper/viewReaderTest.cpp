#include <cmath>
#include <random>

#include <gmock/gmock.h>

#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/viewReader.h"
#include "tools/fakeStrokeHost.h"

namespace corvelle {
namespace {

using Matrix = std::array<double, 16>;
constexpr Matrix kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
constexpr char kLost[] = "the view's matrix cannot be inverted: no camera to brush from";

std::string failureOf(const Json& view, const SceneSpace& space = {}) {
    try {
        decodeView(view, space);
    } catch (const RequestError& error) {
        return error.code() + ": " + error.what();
    }
    return "read";
}

Json viewOf(const Matrix& whole, double width = 800.0, double height = 600.0) {
    return {{"perspectiveMatrix", whole}, {"width", width}, {"height", height}};
}

/// A camera at `eye` (host space) that looks along -z with its near plane at 0.1.
struct Camera {
    Matrix view = kIdentity, projection;
    explicit Camera(std::array<double, 3> eye, double far = 1000.0) {
        for (std::size_t k = 0; k < 3; ++k) view[4 * k + 3] = -eye[k];
        const double near = 0.1, a = -(far + near) / (far - near),
                     b = -2.0 * far * near / (far - near);
        projection = {1.5, 0, 0, 0, 0, 2, 0, 0, 0, 0, a, b, 0, 0, -1, 0};
    }
    Json json() const {
        return {{"viewMatrix", view},
                {"projectionMatrix", projection},
                {"width", 800},
                {"height", 600}};
    }
};

TEST(ViewReader, APlaceIsSeenWhereTheHostSeesIt) {
    std::mt19937 random{3};
    std::uniform_real_distribution<float> along(-0.05f, 0.05f);
    for (const char* up : {"Y", "Z"})
        for (const double meters : {0.01, 1.0, 0.3048}) {
            const SceneSpace space(up, meters);
            const Camera camera({0.02, -0.01, 0.3});
            Json shifted = camera.json();
            Matrix object = kIdentity;  // the object stands 0.01 to the right
            object[3] = 0.01;
            shifted["objectMatrix"] = object;
            const ToolView view = decodeView(camera.json(), space),
                           moved = decodeView(shifted, space);
            for (int i = 0; i < 50; ++i) {
                const Vec3f host{along(random), along(random), along(random)};
                const auto seen = [&](double dx) {
                    const double x = double(host.x) + dx - 0.02, y = double(host.y) + 0.01,
                                 w = 0.3 - double(host.z);
                    return std::pair{(1.5 * x / w * 0.5 + 0.5) * 800.0,
                                     (2.0 * y / w * 0.5 + 0.5) * 600.0};
                };
                double x = 0.0, y = 0.0;
                ASSERT_TRUE(view.project(space.pointToGroom(host), x, y));
                EXPECT_NEAR(x, seen(0.0).first, 1e-3);
                EXPECT_NEAR(y, seen(0.0).second, 1e-3);
                ASSERT_TRUE(moved.project(space.pointToGroom(host), x, y));
                EXPECT_NEAR(x, seen(0.01).first, 1e-3);
            }
            const Vec3f eye = space.pointToHost(view.cameraPosition);
            EXPECT_NEAR(eye.x, 0.02f, 1e-5f);
            EXPECT_NEAR(eye.y, -0.01f, 1e-5f);
            EXPECT_NEAR(eye.z, 0.3f, 1e-5f);
            const Vec3f look = space.directionToHost(view.pickDirection);
            EXPECT_NEAR(look.z, -1.0f, 1e-5f);
            EXPECT_FALSE(view.isOrthographic);
            EXPECT_FALSE(view.target);
        }
}

TEST(ViewReader, TheWholeMatrixAndItsPartsGiveOneView) {
    const Camera camera({0, 0, 5});
    const SceneSpace space("Z", 0.5);
    Json rows = camera.json();
    for (const char* key : {"viewMatrix", "projectionMatrix"}) {
        Json nested = Json::array();
        for (int r = 0; r < 4; ++r)
            nested.push_back({rows[key][4 * r], rows[key][4 * r + 1], rows[key][4 * r + 2],
                              rows[key][4 * r + 3]});
        rows[key] = nested;
    }
    Json whole = viewOf(multiplyMatrices(camera.projection, camera.view));
    whole["viewMatrix"] = "not read beside the whole";
    whole["target"] = {1, 2, 3};
    const ToolView flat = decodeView(camera.json(), space);
    EXPECT_EQ(decodeView(rows, space).matrix, flat.matrix);
    const ToolView one = decodeView(whole, space);
    EXPECT_EQ(one.matrix, flat.matrix);
    ASSERT_TRUE(one.target);
    EXPECT_EQ(*one.target, space.pointToGroom({1, 2, 3}));
    const Json told = viewJson(one);
    EXPECT_EQ(told["groomMatrix"], Json(one.matrix));
    EXPECT_EQ(told["orthographic"], false);
    EXPECT_EQ(told["width"], 800.0);
}

TEST(ViewReader, ReadsCamerasWithoutPerspectiveFarOffAndWithoutEnd) {
    const ToolView flat = decodeView(
        viewOf({0.1, 0, 0, 0, 0, 0.1, 0, 0, 0, 0, -0.01, 0, 0, 0, 0, 1}), SceneSpace("Y", 0.01));
    EXPECT_TRUE(flat.isOrthographic);
    EXPECT_EQ(flat.pickDirection, (Vec3f{0, 0, -1}));
    // A far plane at infinity, and an eye a thousand kilometres off.
    for (const Camera& camera : {Camera({0, 0, 3}, 1e30), Camera({0, 0, 1e6}, 1e9)}) {
        const ToolView view = decodeView(camera.json(), SceneSpace("Y", 0.01));
        EXPECT_FALSE(view.isOrthographic);
        EXPECT_NEAR(view.pickDirection.z, -1.0f, 1e-5f);
        double x = 0.0, y = 0.0;
        ASSERT_TRUE(view.project({0.5f, 0.25f, 0}, x, y));
        const Vec3f back = view.placeAtDepth(x, y, {0, 0, 0});
        EXPECT_NEAR(back.x, 0.5f, 1e-3f);
        EXPECT_NEAR(back.y, 0.25f, 1e-3f);
    }
}

TEST(ViewReader, SaysWhatIsWrong) {
    const std::string shape = " is a 4x4 matrix (4 rows of 4, or 16 numbers rows first)";
    const auto bad = [](const std::string& text) { return "bad_request: " + text; };
    for (const Json& value : {Json(), Json(3), Json("view"), Json::array()})
        EXPECT_EQ(failureOf(value), bad("view is an object: viewMatrix, projectionMatrix (or "
                                        "perspectiveMatrix), width, height"));
    EXPECT_EQ(failureOf(Json::object()), bad("view.viewMatrix" + shape));
    EXPECT_EQ(failureOf({{"viewMatrix", kIdentity}}), bad("view.projectionMatrix" + shape));
    for (const Json& matrix : {Json(1), Json::array(), Json({1, 2, 3, 4}), Json::object(),
                               Json(std::vector<int>(17, 1))})
        EXPECT_EQ(failureOf({{"perspectiveMatrix", matrix}}), bad("view.perspectiveMatrix" + shape))
            << matrix;
    Json numbers(kIdentity);
    numbers[7] = nullptr;
    EXPECT_EQ(failureOf({{"perspectiveMatrix", numbers}}),
              bad("view.perspectiveMatrix holds something that is not a number"));
    numbers[7] = std::numeric_limits<double>::infinity();
    EXPECT_EQ(failureOf({{"perspectiveMatrix", numbers}}),
              bad("view.perspectiveMatrix holds a NaN or an infinity"));
    Json object = viewOf(kIdentity);
    object["objectMatrix"] = "here";
    EXPECT_EQ(failureOf(object), bad("view.objectMatrix" + shape));
    for (const auto& [width, height] : {std::pair{0.0, 4.0}, {4.0, 0.0}, {-1.0, 4.0}})
        EXPECT_EQ(failureOf(viewOf(kIdentity, width, height)),
                  bad("view.width and view.height are the region's size in pixels"));
    Json aimed = viewOf(kIdentity);
    for (const Json& target : {Json(1), Json({1, 2}), Json({1, 2, "3"}), Json({1, 2, 1e300})}) {
        aimed["target"] = target;
        EXPECT_EQ(failureOf(aimed), bad("view.target is a point [x, y, z]")) << target;
    }
    for (Matrix lost : {Matrix{}, Matrix{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0},
                        Matrix{1, 2, 3, 4, 2, 4, 6, 8, 0, 0, 1, 0, 0, 0, 0, 1}})
        EXPECT_EQ(failureOf(viewOf(lost)), bad(kLost));
    EXPECT_EQ(
        failureOf(viewOf({1e308, 1e308, 0, 0, -1e308, 1e308, 0, 0, 0, 0, 1e308, 0, 0, 0, 0, 1e308}),
                  SceneSpace("Z", 1e-6)),
        bad(kLost))
        << "what overflows";
}

}  // namespace
}  // namespace corvelle
