#include <algorithm>
#include <cmath>
#include <numbers>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "model/flowData.h"
#include "model/hash.h"
#include "model/testing/meshes.h"

namespace corvelle {
namespace {

std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}
std::string readErrorOf(const std::string& text) {
    return errorOf([&] { readFlowData(text); });
}

StrandRoot randomRoot(const ScalpMesh& mesh, SplitMix& random) {
    const float u = random.nextFloat(), v = random.nextFloat() * (1.0f - u);
    return {std::int32_t(random.nextU64() % mesh.triangles().size()), u, v};
}
Vec3f randomUnit(SplitMix& random) {
    while (true) {
        const Vec3f v{random.nextRange(-1, 1), random.nextRange(-1, 1), random.nextRange(-1, 1)};
        if (lengthSquared(v) > 0.01f && lengthSquared(v) < 1.0f) return normalized(v);
    }
}

TEST(FlowData, ReadsBackWhatItWrites) {
    const FlowData data{{{{3, 0.25f, 0.1f}, 0.6f, -0.8f, 4}, {{-1, 0, 1e-7f}, 1, 0, -1}},
                        {{{9, 0.5f, 0.5f}, -70.0f, 2.5f}}};
    const std::string text = flowDataJson(data);
    EXPECT_EQ(text,
              R"({"pins":[{"dir":[0.6,-0.8,0],"face":3,"line":4,"u":0.25,"v":0.1},)"
              R"({"dir":[1,0,0],"face":-1,"u":0,"v":1e-07}],)"
              R"("sinks":[{"angle":-70,"face":9,"radius":2.5,"u":0.5,"v":0.5}],"version":1})");
    EXPECT_EQ(readFlowData(text), data);
    EXPECT_EQ(flowDataJson({}), "");
    EXPECT_TRUE(readFlowData(" \t\r\n").empty());
    EXPECT_TRUE(readFlowData(R"({"version":1,"pins":[],"sinks":[]})").empty());
    EXPECT_EQ(readFlowData(" " + text + "\n"), data);
}

TEST(FlowData, NamesWhatIsWrong) {
    EXPECT_EQ(readErrorOf(R"({"version":2})"),
              "flow data version is newer than this Corvelle supports");
    EXPECT_EQ(readErrorOf("[]"), "flow data is a JSON object");
    EXPECT_EQ(readErrorOf(R"({"pins":{}})"), "flow data: 'pins' is a list");
    EXPECT_EQ(readErrorOf(R"({"sinks":[3]})"), "flow sink number 0: not an object");
    EXPECT_THAT(readErrorOf(R"({"pins":[{"u":0,"v":0,"dir":[1,0,0]}]})"),
                testing::HasSubstr("key 'face' not found"));
    EXPECT_THAT(readErrorOf(R"({"sinks":[{"face":1,"u":0,"v":0,"angle":1}]})"),
                testing::HasSubstr("key 'radius' not found"));
    const auto pin = [](const char* face, const char* dir) {
        return readErrorOf(std::string(R"({"pins":[{"u":0,"v":0,"face":)") + face + R"(,"dir":)" +
                           dir + "}]}");
    };
    EXPECT_EQ(pin("1", "[1,0,0]"), "no error");
    EXPECT_EQ(pin("1", "[1,0]"), "flow pin number 0: 'dir' is a list of three numbers");
    EXPECT_EQ(pin("1", "[1,0,1e39]"), "flow pin number 0: 'dir' holds no 32-bit float");
    EXPECT_EQ(pin("1.5", "[1,0,0]"),
              "flow pin number 0: 'face' is a whole number from -1 to 2147483647");
    const std::string whole = flowDataJson({{{{3, 0.25f, 0.1f}, 0.6f, 0.8f, 4}}, {}});
    for (std::size_t cut = 1; cut < whole.size(); ++cut)
        EXPECT_NE(readErrorOf(whole.substr(0, cut)), "no error") << cut;
}

TEST(FlowData, SinkKindsAreAngles) {
    EXPECT_EQ(flowSinkAngle("whorl"), 70.0f);
    EXPECT_EQ(flowSinkAngle("whorlcw"), -70.0f);
    EXPECT_EQ(flowSinkAngle("converge"), 180.0f);
    EXPECT_EQ(flowSinkAngle("part"), 0.0f);
    EXPECT_EQ(errorOf([] { flowSinkAngle("swirl"); }),
              "flow sink: unknown kind 'swirl' (whorl, whorlcw, converge, part)");
}

TEST(FlowPinTest, KeepsItsDirectionInTheTriangleAndFollowsThePose) {
    const ScalpMesh sphere = makeIcosphere(3, 10.0f);
    const Rotation turn = Rotation::about(normalized(Vec3f{1, 2, 3}), 1.1f);
    std::vector<Vec3f> moved;
    for (const Vec3f p : sphere.points()) moved.push_back(turn(p) + Vec3f{5, 0, 0});
    const ScalpPtr posed = sphere.withPoints(moved);
    SplitMix random(3);
    for (int i = 0; i < 300; ++i) {
        const StrandRoot at = randomRoot(sphere, random);
        const Vec3f normal = sphere.faceNormal(at.triangle), wanted = randomUnit(random);
        const FlowPin pin = flowPin(sphere, at, wanted * 7.0f);
        const Vec3f direction = flowPinDirection(sphere, pin);
        EXPECT_NEAR(length(direction), 1.0f, 1e-6f);
        EXPECT_NEAR(dot(direction, normal), 0.0f, 1e-5f);
        EXPECT_NEAR(dot(direction, normalized(wanted - normal * dot(wanted, normal))), 1.0f, 1e-4f);
        EXPECT_LT(distance(flowPinDirection(*posed, pin), turn(direction)), 2e-4f);

        const char* along = "flow pin: the direction is along the surface normal";
        for (const float size : {1.0f, -40.0f, 1e-3f})
            EXPECT_EQ(errorOf([&] { flowPin(sphere, at, normal * size); }), along);
        EXPECT_EQ(errorOf([&] { flowPin(sphere, at, direction * 1e-9f); }), along);
    }
    const char* off = "flow pin: not a point on the scalp";
    EXPECT_EQ(errorOf([&] { flowPin(sphere, {-1, 0, 0}, {1, 0, 0}); }), off);
    EXPECT_EQ(errorOf([&] { flowPin(sphere, {1 << 30, 0, 0}, {1, 0, 0}); }), off);
}

/// Pins and sinks all over a sphere.
FlowData makeFlow(const ScalpMesh& mesh, std::size_t pins, std::size_t sinks, std::uint64_t seed) {
    SplitMix random(seed);
    FlowData data;
    while (data.pins.size() < pins) {
        const StrandRoot at = randomRoot(mesh, random);
        data.pins.push_back(flowPin(mesh, at, randomUnit(random)));
    }
    while (data.sinks.size() < sinks)
        data.sinks.push_back(
            {randomRoot(mesh, random), random.nextRange(-180, 180), random.nextRange(0.5f, 4.0f)});
    return data;
}

/// The field as its formulas stand, over all pins and sinks, before it is made unit.
Vec3f plainField(const FlowData& data, const ScalpMesh& mesh, Vec3f x, Vec3f n) {
    const auto beside = [&](Vec3f v) { return v - n * dot(v, n); };
    std::vector<std::pair<float, Vec3f>> pins;
    for (const FlowPin& pin : data.pins)
        pins.emplace_back(lengthSquared(mesh.surfacePoint(pin.at) - x),
                          flowPinDirection(mesh, pin));
    std::sort(pins.begin(), pins.end(), [](auto& a, auto& b) { return a.first < b.first; });
    pins.resize(std::min<std::size_t>(pins.size(), 6));
    const float far = pins.empty() ? 0.0f : std::max(pins.back().first, 1e-12f);
    Vec3f fromPins, sum;
    for (const auto& [d2, direction] : pins) {
        const float share = far / (0.25f * far + d2);
        if (length(beside(direction)) >= 1e-6f)
            fromPins += normalized(beside(direction)) * (share * share);
    }
    float weights = 0.0f;
    for (const FlowSink& sink : data.sinks) {
        const Vec3f d = beside(x - mesh.surfacePoint(sink.at));
        const float r = length(d);
        if (r >= sink.radius || r < sink.radius * 1e-6f) continue;
        if (std::abs(dot(x - mesh.surfacePoint(sink.at), n)) >= sink.radius) continue;
        const float t = r / sink.radius, s = t < 0.35f ? 1.0f : 1.0f - (t - 0.35f) / 0.65f;
        const float angle = sink.angle * std::numbers::pi_v<float> / 180.0f;
        const float w = (3.0f - 2.0f * s) * s * s;
        sum += (d * (std::cos(angle) / r) + cross(n, d / r) * std::sin(angle)) * w;
        weights += w;
    }
    return sum + normalized(fromPins) * (1.0f - std::min(weights, 1.0f));
}

TEST(FlowFieldTest, IsWhatItsFormulasSay) {
    const auto mesh = std::make_shared<const ScalpMesh>(makeIcosphere(4, 10.0f));
    for (const auto& [pins, sinks] : {std::pair{200, 30}, {4, 0}, {0, 40}, {1, 1}}) {
        const FlowData data = makeFlow(*mesh, std::size_t(pins), std::size_t(sinks), 8);
        const auto field = flowFieldOn(data, mesh);
        EXPECT_FALSE(field->empty());
        SplitMix random(12);
        std::size_t zero = 0;
        for (int i = 0; i < 2000; ++i) {
            const StrandRoot at = randomRoot(*mesh, random);
            const Vec3f x = mesh->surfacePoint(at), n = mesh->surfaceNormal(at);
            const Vec3f got = field->at(x, n), wanted = plainField(data, *mesh, x, n);
            EXPECT_LT(distance(got * length(wanted), wanted), 1e-4f)
                << pins << " pins, " << sinks << " sinks";
            EXPECT_NEAR(dot(got, n), 0.0f, 1e-5f);
            zero += got == Vec3f{};
        }
        EXPECT_EQ(zero > 0, pins == 0) << "sinks alone leave places that nothing reaches";
    }
}

TEST(FlowFieldTest, SinksPointWhereTheirKindSays) {
    const auto plane = std::make_shared<const ScalpMesh>(makePlane(8, 8, 20.0f));
    SurfaceHit hit;
    ASSERT_TRUE(plane->closestPoint({0.1f, 0, 0.1f}, 1.0f, hit));
    const Vec3f up{0, 1, 0}, away = normalized(Vec3f{1, 0, 2});
    for (const auto& [kind, degrees] :
         {std::pair{"whorl", 70.0f}, {"whorlcw", -70.0f}, {"converge", 180.0f}, {"part", 0.0f}}) {
        FlowData data;
        data.sinks.push_back({hit.root(), flowSinkAngle(kind), 3.0f});
        const auto field = flowFieldOn(data, plane);
        const Vec3f wanted =
            Rotation::about(up, degrees * std::numbers::pi_v<float> / 180.0f)(away);
        EXPECT_LT(distance(field->at(hit.position + away * 2.0f, up), wanted), 1e-4f) << kind;
        EXPECT_EQ(field->at(hit.position + away * 3.01f, up), Vec3f{}) << "past its radius";
        EXPECT_EQ(field->at(hit.position, up), Vec3f{}) << "on its center";
    }
}

TEST(FlowFieldTest, LeavesOutWhatLiesOnNoTriangle) {
    const auto mesh = std::make_shared<const ScalpMesh>(makeIcosphere(2, 10.0f));
    FlowData data = makeFlow(*mesh, 3, 2, 1);
    const std::uint64_t hash = flowFieldOn(data, mesh)->hash();
    EXPECT_EQ(flowFieldOn(data, std::make_shared<const ScalpMesh>(*mesh))->hash(), hash);
    EXPECT_TRUE(flowFieldOn(data, nullptr)->empty());
    EXPECT_TRUE(flowFieldOn({}, mesh)->empty());
    EXPECT_EQ(flowFieldOn({}, mesh)->at({1, 2, 3}, {0, 1, 0}), Vec3f{});
    data.pins[1].d0 += 0.5f;
    EXPECT_NE(flowFieldOn(data, mesh)->hash(), hash);
    for (FlowPin& pin : data.pins) pin.at.triangle = 1 << 30;
    for (FlowSink& sink : data.sinks) sink.radius = -1.0f;
    EXPECT_TRUE(flowFieldOn(data, mesh)->empty());
}

TEST(FlowTransfer, MovesPinsAndSinksToAnotherMeshOfTheSameShape) {
    const auto from = std::make_shared<const ScalpMesh>(makeIcosphere(4, 10.0f));
    const auto to = std::make_shared<const ScalpMesh>(makeSphere(48, 64, 10.0f));
    FlowData data = makeFlow(*from, 60, 10, 5);
    data.pins[7].line = 3;
    const FlowData moved = transferFlow(data, *from, *to);
    ASSERT_EQ(moved.pins.size(), 60u);
    ASSERT_EQ(moved.sinks.size(), 10u);
    EXPECT_EQ(moved.pins[7].line, 3);
    for (std::size_t i = 0; i < 60; ++i) {
        EXPECT_LT(distance(to->surfacePoint(moved.pins[i].at), from->surfacePoint(data.pins[i].at)),
                  0.1f);
        EXPECT_GT(dot(flowPinDirection(*to, moved.pins[i]), flowPinDirection(*from, data.pins[i])),
                  0.98f);
    }
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(moved.sinks[i].radius, data.sinks[i].radius);
        EXPECT_EQ(moved.sinks[i].angle, data.sinks[i].angle);
    }
    data.pins[0].at.triangle = -1;
    EXPECT_EQ(transferFlow(data, *from, *to).pins.size(), 59u);
    EXPECT_EQ(errorOf([&] { transferFlow(data, *from, ScalpMesh()); }),
              "transfer: the new scalp has no faces");
}

}  // namespace
}  // namespace corvelle
