#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/strandSet.h"
#include "model/vec3f.h"

namespace corvelle {

// What goes out in one frame, as plain views that the writers of all formats read. They must live
// for the call only. Groom space: Y up, centimetres; colours are linear RGB.

/// The guides that shaped a strand most, greatest weight first; a weight of 0 ends the list.
struct GuideShares {
    std::array<std::uint64_t, 3> guides{};
    std::array<float, 3> weights{};
    friend bool operator==(const GuideShares&, const GuideShares&) = default;
};

/// Strands and what rides on them. Empty: there is none of it.
struct StrandFrame {
    const StrandSet* strands = nullptr;   ///< never null when written
    std::span<const Vec2f> rootUvs;       ///< [strands]
    std::span<const Vec3f> colors;        ///< [strands]
    std::span<const Vec3f> pointColors;   ///< [points]
    std::span<const GuideShares> shares;  ///< [strands]
};

/// A mesh with everything but its faces per vertex.
struct MeshView {
    std::span<const std::int32_t> faceVertexCounts;
    std::span<const std::int32_t> faceVertexIndices;
    std::span<const Vec3f> points;
    std::span<const Vec3f> normals;  ///< [points], or empty
    std::span<const Vec2f> uvs;      ///< [points], or empty
};

/// A mesh that is instanced: its geometry, or none where a host has it.
struct Prototype {
    std::string name;
    std::optional<MeshView> mesh;
};

/// Meshes standing on strands.
struct InstancesFrame {
    std::span<const Prototype> prototypes;
    std::span<const std::int32_t> protoIndices;          ///< [instances], into `prototypes`
    std::span<const Vec3f> positions;                    ///< [instances]
    std::span<const std::array<float, 4>> orientations;  ///< [instances], (w, x, y, z), any length
    std::span<const Vec3f> scales;                       ///< [instances]
    bool carriersOnly = false;  ///< the strands only carry the instances and are not to be rendered
};

/// What tells one plate from the next: [faces] of a mesh, or [instances]. Empty: defaults.
struct ScaleLook {
    std::span<const Vec3f> color;      ///< default: grey 0.5
    std::span<const Vec3f> rootColor;  ///< default: grey 0.5; meshes only
    std::span<const float> id;
    std::span<const Vec2f> uv;
    std::span<const std::int32_t> variant;
};

/// Plates that bend with the skin: all in one mesh.
struct ScaleMesh {
    MeshView mesh;
    std::span<const Vec3f> colors;  ///< [points], or empty: grey 0.5
    ScaleLook look;                 ///< per face
};

/// Rigid plates.
struct ScaleInstances {
    InstancesFrame instances;
    ScaleLook look;  ///< per instance
};

struct ScalesFrame {
    std::optional<ScaleMesh> mesh;
    std::optional<ScaleInstances> instances;
};

inline constexpr Vec3f kNoColor{0.5f, 0.5f, 0.5f};

// Each gives the first fault of a frame as a text for the user, empty for none: arrays of other
// lengths than those they belong to, indices out of range.
std::string faultOf(const StrandFrame& frame);
std::string faultOf(const MeshView& mesh);
std::string faultOf(const InstancesFrame& frame);
std::string faultOf(const ScalesFrame& frame);

}  // namespace corvelle
