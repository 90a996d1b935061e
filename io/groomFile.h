#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "expr/mapCatalog.h"
#include "model/guideSet.h"
#include "model/scalpMesh.h"

namespace corvelle {

/// Where an Alembic file animates something. An empty `file`: not set.
struct GroomFileCache {
    std::string file;
    std::string object;
    friend bool operator==(const GroomFileCache&, const GroomFileCache&) = default;
};

/// The bake of one Simulate node; `stamp` is the upstream state it was made from.
struct GroomFileSimCache {
    std::string file;
    std::string object;
    std::uint64_t stamp = 0;
    friend bool operator==(const GroomFileSimCache&, const GroomFileSimCache&) = default;
};

/// A mesh that instances are made of, kept in the file. Shapes: points [n]; triangles [m]; normals
/// and uvs [n] or empty.
struct GroomFilePrototype {
    std::vector<Vec3f> points;
    std::vector<Vec3f> normals;
    std::vector<Triangle> triangles;
    std::vector<Vec2f> uvs;
    // Set by the reader, never saved.
    std::uint64_t hash = 0;      ///< of all of the above
    std::uint64_t topology = 0;  ///< of the triangles, as ScalpMesh::topologyHash
};
using PrototypePtr = std::shared_ptr<const GroomFilePrototype>;

/// Everything that makes a groom, as one plain record: what a `.groom` file holds and a session's
/// document is. Texts are JSON, blank for none. Groom space: Y up, centimetres. Copies are cheap:
/// meshes, guides and maps are shared.
struct GroomFile {
    std::string graph;
    std::string hierarchy;
    ScalpPtr scalp;                                        ///< may be null
    std::vector<std::pair<std::string, ScalpPtr>> scalps;  ///< further scalps by name, in order
    GuidesPtr guides;                                      ///< the flat list; may be null
    std::string parts;
    std::string correctives;
    std::string flow;
    std::map<std::string, float> controls;
    MapCatalogPtr maps;  ///< may be null
    std::map<std::string, ScalpPtr> colliders;
    std::uint64_t topology = 0;  ///< fingerprint of the scalp's triangles; 0: not known
    bool followScalp = false;
    GroomFileCache scalpCache;
    GroomFileCache guideCache;
    std::map<std::string, GroomFileSimCache> simCaches;
    std::string cardBakePrefix;   ///< of the files of the last bake of a card atlas; empty: none
    std::string cardBakeStrands;  ///< what strands it was made of
    std::map<std::string, PrototypePtr> prototypes;
    double framesPerSecond = 24.0;
    std::string units = "cm";
    std::string upAxis = "Y";
    std::string source;  ///< what host wrote it
    std::vector<std::string> searchPaths;
    std::string directory;  ///< folder that relative paths resolve against; not saved
};

}  // namespace corvelle
