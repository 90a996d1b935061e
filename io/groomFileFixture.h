#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "io/groomFile.h"
#include "model/hash.h"
#include "model/testing/meshes.h"

namespace corvelle {

/// Any finite float, by its bits: denormals, negative zeros and huge ones among them.
inline float anyFloat(SplitMix& random) {
    for (;;) {
        const std::uint64_t word = random.nextU64();
        if (word % 16 == 0) return std::bit_cast<float>(std::uint32_t(word >> 32) & 0x80000000u);
        if (word % 16 == 1) return std::bit_cast<float>(std::uint32_t(word >> 32) & 0x807fffffu);
        const float value = std::bit_cast<float>(std::uint32_t(word >> 32));
        if (std::isfinite(value)) return value;
    }
}

/// `count` values of `Components` floats each.
template <class Value>
std::vector<Value> anyFloats(std::size_t count, SplitMix& random) {
    std::vector<Value> out(count);
    for (Value& value : out) {
        float floats[sizeof(Value) / sizeof(float)];
        for (float& f : floats) f = anyFloat(random);
        value = std::bit_cast<Value>(floats);
    }
    return out;
}

/// A mesh of a sphere's triangles and polygons, everything else of it any floats.
inline ScalpPtr anyMesh(SplitMix& random, bool scalp) {
    const ScalpMesh sphere = makeSphere(5, 7, 10.0f);
    const std::size_t points = sphere.points().size(), corners = 3 * sphere.triangles().size();
    ScalpMesh mesh(anyFloats<Vec3f>(points, random),
                   {sphere.triangles().begin(), sphere.triangles().end()});
    mesh.setPolygons({sphere.polygons().begin(), sphere.polygons().end()});
    mesh.setRestPoints(anyFloats<Vec3f>(points, random));
    mesh.setSubdivision(2, "the render's own");
    if (scalp) {
        mesh.setUvs(anyFloats<Vec2f>(corners, random));
        mesh.addColorSet("mask", anyFloats<Color4f>(corners, random));
        mesh.addColorSet("a \"quoted\" set", anyFloats<Color4f>(corners, random));
    }
    return std::make_shared<const ScalpMesh>(std::move(mesh));
}

/// A file with something in every place, its floats any floats.
inline GroomFile anyFile(std::uint64_t seed) {
    SplitMix random(seed);
    GroomFile file;
    file.graph =
        R"({"version":1,"nodes":[{"name":"@corvelle.floats:0@","type":"TestWidth","color":[1,0,0]}],)"
        R"("output":"@corvelle.floats:0@","host":{"zoom":1.5}})";
    file.hierarchy = R"({"version":1,"groups":[],"guides":[],"note":"kept","z":[1,2.5,-0.0]})";
    file.parts = R"({"parts":[],"version":1})";
    file.correctives = R"(["of a later version",{"b":1,"a":2}])";
    file.flow = "\"no flow at all\"";
    file.scalp = anyMesh(random, true);
    file.scalps = {{"brows", anyMesh(random, true)}, {"lashes é", anyMesh(random, true)}};
    std::vector<GuideCurve> guides;
    for (std::uint64_t g = 0; g < 50; ++g)
        guides.push_back({.id = 0xfffffffffffffff0u - 3 * g,
                          .root = {std::int32_t(g) - 1, anyFloat(random), anyFloat(random)},
                          .points = anyFloats<Vec3f>(2 + g % 5, random),
                          .detail = nullptr});
    file.guides = std::make_shared<const GuideSet>(guides);
    for (const char* name : {"stiffness", "@corvelle.floats:1@", "é"})
        file.controls[name] = anyFloat(random);
    auto maps = std::make_shared<MapCatalogValue>();
    PaintedMap map;
    map.values = std::make_shared<const std::vector<float>>(anyFloats<float>(40, random));
    map.vertices = 40;
    maps->maps["density"] = map;
    map.channels = 4;
    map.vertices = 10;
    maps->maps["tint"] = map;
    PaintedMap texture, layer;
    texture.kind = PaintedMap::Kind::Texture;
    texture.file = "maps/skin.png";
    layer.kind = PaintedMap::Kind::Guides;
    layer.layer = "curliness";
    maps->maps["skin"] = texture;
    maps->maps["curl"] = layer;
    file.maps = maps;
    file.colliders["body"] = anyMesh(random, false);
    file.topology = file.scalp->topologyHash();
    file.followScalp = seed % 2 == 0;
    file.scalpCache = {"/caches/head.abc", "/head"};
    file.simCaches["simulate"] = {"/caches/sim.abc", "/sim/simShape", 0xfedcba9876543210u};
    file.cardBakePrefix = "/cards/hair_";
    file.cardBakeStrands = "all";
    GroomFilePrototype leaf;
    leaf.points = anyFloats<Vec3f>(4, random);
    leaf.normals = anyFloats<Vec3f>(4, random);
    leaf.uvs = anyFloats<Vec2f>(4, random);
    leaf.triangles = {{0, 1, 2}, {0, 2, 3}};
    file.prototypes["leaf"] = std::make_shared<const GroomFilePrototype>(leaf);
    file.framesPerSecond = 24000.0 / 1001.0;
    file.source = "@corvelle.floats:2@";
    file.searchPaths = {"/textures", "$SHOW/textures"};
    return file;
}

}  // namespace corvelle
