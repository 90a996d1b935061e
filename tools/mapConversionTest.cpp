#include <cmath>
#include <functional>

#include <gmock/gmock.h>

#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "tools/mapConversion.h"

namespace corvelle {
namespace {

std::string errorOf(const std::function<void()>& run) {
    try {
        run();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing was thrown";
}

ScalpPtr shared(ScalpMesh mesh) { return std::make_shared<const ScalpMesh>(std::move(mesh)); }

/// A smooth function of the place, in 0..1.
float tone(Vec3f p) { return 0.5f + 0.04f * p.x - 0.03f * p.z; }

std::vector<float> tones(const ScalpMesh& mesh, int channels) {
    std::vector<float> values;
    for (const Vec3f& p : mesh.points())
        for (int c = 0; c < channels; ++c) values.push_back(tone(p) * (1.0f - 0.2f * float(c)));
    return values;
}

class MapConversion : public testing::TestWithParam<int> {
protected:
    const int channels = GetParam();
    const ScalpPtr from = shared(makePlane(5, 5, 10.0f));
    const ScalpPtr to = shared(makePlane(9, 7, 8.0f));  // lies within
    const ScalpPtr bare = shared(makeIcosphere(1, 3.0f));
};
INSTANTIATE_TEST_SUITE_P(Channels, MapConversion, testing::Values(1, 4));

TEST_P(MapConversion, VertexValuesReadTheNearestPlace) {
    const std::vector<float> values = tones(*from, channels);
    const std::vector<float> same = projectVertexMap(values, channels, *from, *from);
    const std::vector<float> other = projectVertexMap(values, channels, *from, *to);
    const std::vector<float> wanted = tones(*to, channels);
    for (std::size_t i = 0; i < values.size(); ++i) EXPECT_NEAR(same[i], values[i], 1e-5f);
    ASSERT_EQ(other.size(), wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) EXPECT_NEAR(other[i], wanted[i], 1e-5f);
    std::vector<float> one;
    runWithThreads(1, [&] { one = projectVertexMap(values, channels, *from, *to); });
    EXPECT_EQ(one, other);
}

TEST_P(MapConversion, ATextureOfVertexValuesGivesThemBack) {
    const std::vector<float> values = tones(*from, channels);
    const auto image = textureFromVertexMap(values, channels, from, 512);
    EXPECT_EQ(image->channels(), channels);
    const std::vector<float> back = vertexMapFromTexture(*image->texture(), channels, *from);
    for (std::size_t i = 0; i < values.size(); ++i) EXPECT_NEAR(back[i], values[i], 0.006f) << i;

    const auto moved = projectTexture(*image, from, to);
    const std::vector<float> there = vertexMapFromTexture(*moved->texture(), channels, *to);
    const std::vector<float> wanted = tones(*to, channels);
    for (std::size_t i = 0; i < wanted.size(); ++i) EXPECT_NEAR(there[i], wanted[i], 0.01f) << i;
    std::shared_ptr<const PaintImage> one;
    runWithThreads(1, [&] { one = projectTexture(*image, from, to); });
    EXPECT_EQ(one->texture()->hash(), moved->texture()->hash());
}

TEST_P(MapConversion, CornerColorsAreThoseOfTheirVertices) {
    const std::vector<float> values = tones(*from, channels);
    const std::vector<Color4f> colors = cornerColorsFromVertexMap(values, channels, *from);
    ASSERT_EQ(colors.size(), 3 * from->triangles().size());
    for (std::size_t c = 0; c < colors.size(); ++c) {
        const float* v =
            values.data() + std::size_t(from->triangles()[c / 3][c % 3]) * std::size_t(channels);
        EXPECT_EQ(colors[c], channels == 1 ? (Color4f{v[0], v[0], v[0], 1.0f})
                                           : (Color4f{v[0], v[1], v[2], v[3]}));
    }
}

TEST_P(MapConversion, SaysWhatIsMissing) {
    const auto image = PaintImage::filled(16, 16, channels, {1, 2, 3, 4});
    const ScalpPtr empty = shared(ScalpMesh());
    const std::vector<float> values = tones(*bare, channels);
    EXPECT_EQ(errorOf([&] { projectTexture(*image, from, bare); }),
              "the new scalp has no UVs to paint a texture map on");
    EXPECT_EQ(errorOf([&] { projectTexture(*image, bare, from); }),
              "the old scalp has no UVs to read the texture map at");
    EXPECT_EQ(errorOf([&] { projectTexture(*image, empty, from); }), "the old scalp has no faces");
    EXPECT_EQ(errorOf([&] { projectVertexMap({}, channels, *empty, *from); }),
              "the old scalp has no faces");
    EXPECT_EQ(errorOf([&] { projectVertexMap(values, channels, *from, *to); }),
              "the map has 42 vertices' values and the old scalp 36 vertices");
    EXPECT_EQ(errorOf([&] { textureFromVertexMap(values, channels, bare, 64); }),
              "the scalp has no UVs to paint a texture map on");
    EXPECT_EQ(errorOf([&] { textureFromVertexMap(values, channels, from, 64); }),
              "textureFromVertexMap: one value per scalp vertex and channel");
    EXPECT_EQ(errorOf([&] { cornerColorsFromVertexMap(values, channels, *from); }),
              "cornerColorsFromVertexMap: one value per scalp vertex and channel");
    EXPECT_EQ(errorOf([&] { vertexMapFromTexture(*image->texture(), channels, *bare); }),
              "the scalp has no UVs to read a texture map at");
}

}  // namespace
}  // namespace corvelle
