#pragma once

// A groom on a sphere, with guides and the default graph: what the tests of sessions share.

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "graph/graphJson.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"
#include "session/groomSession.h"

namespace corvelle {

using nlohmann::json;

inline const EvaluateOptions kPreview{.preview = true};

inline ScalpPtr sphere(bool withRest = false) {
    ScalpMesh mesh = makeSphere(16, 24, 10.0f);
    if (withRest) mesh.setRestPoints({mesh.points().begin(), mesh.points().end()});
    return std::make_shared<const ScalpMesh>(std::move(mesh));
}

inline std::vector<Vec3f> shifted(std::span<const Vec3f> points, Vec3f by) {
    std::vector<Vec3f> out(points.begin(), points.end());
    for (Vec3f& p : out) p += by;
    return out;
}

/// Guides all over the mesh, along its normals; guide `bent` leans aside.
inline GuidesPtr makeGuides(const ScalpMesh& scalp, std::size_t count, std::size_t bent = 0,
                     float by = 0.0f) {
    std::vector<GuideCurve> curves(count);
    for (std::size_t g = 0; g < count; ++g) {
        curves[g].id = g + 1;
        curves[g].root = {std::int32_t(g * scalp.triangles().size() / count), 0.3f, 0.4f};
        const SurfaceFrame frame = scalp.surfaceFrame(curves[g].root);
        for (int i = 0; i < 6; ++i)
            curves[g].points.push_back(frame.origin + frame.normal * float(i) +
                                       frame.tangent * (g == bent ? by * float(i) : 0.0f));
    }
    return std::make_shared<const GuideSet>(std::move(curves));
}

inline json graphOf(double density) {
    json graph = defaultGraphJson();
    for (json& node : graph["nodes"]) {
        if (node["name"] == "scatter") node["params"]["density"] = density;
        if (node["name"] == "noise") node["params"]["frequency"] = 0.5;  // what 5 segments can show
        if (node["name"] == "resample") node["params"]["segments"] = 5;
    }
    return graph;
}

/// The nodes named, one behind the other, from the default graph.
inline std::string chainOf(const std::vector<std::string>& names, double density) {
    json graph = graphOf(density), nodes = json::array(), connections = json::array();
    for (const json& node : graph["nodes"])
        if (std::ranges::count(names, node["name"].get<std::string>())) nodes.push_back(node);
    for (std::size_t i = 1; i < names.size(); ++i)
        connections.push_back(
            {{"from", names[i - 1]}, {"to", names[i]}, {"input", i == 1 ? "scalp" : "strands"}});
    return json{{"nodes", nodes}, {"connections", connections}, {"output", names.back()}}.dump();
}

inline void setParam(GroomSession& groom, const std::string& node, const std::string& param,
              const json& value) {
    json graph = json::parse(groom.document().graph);
    for (json& n : graph["nodes"])
        if (n["name"] == node) n["params"][param] = value;
    groom.setGraphJson(graph.dump());
}

inline std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

/// How many nodes an evaluation ran.
inline std::uint64_t evaluatedBy(GroomSession& groom, const EvaluateOptions& options = kPreview) {
    const std::uint64_t before = groom.nodesEvaluated();
    groom.evaluate(options);
    return groom.nodesEvaluated() - before;
}

inline std::uint64_t contentOf(const GroomSession& groom) {
    return groom.result().strands ? groom.result().strands->contentHash() : 0;
}

class GroomSessionTest : public testing::Test {
protected:
    explicit GroomSessionTest(double density = 1.0, bool withRest = false)
        : scalp(sphere(withRest)) {
        groom.setScalp(scalp);
        groom.setGuides(makeGuides(*scalp, 40));
        groom.setGraphJson(graphOf(density).dump());
        setVerifyIncremental(true);
    }
    ~GroomSessionTest() override { setVerifyIncremental(false); }
    ScalpPtr scalp;
    GroomSession groom;
};

}  // namespace corvelle
