#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "model/scalpMesh.h"

namespace corvelle {

/// Distances along the surface of one mesh: circular-front propagation over welded vertices
/// (Novotni, Klein, "Computing geodesic distances on triangular meshes", WSCG 2002). One per mesh
/// content, shared process-wide (the newest 4 stay alive).
class SurfaceGraph {
public:
    static std::shared_ptr<const SurfaceGraph> of(const ScalpPtr& mesh);
    explicit SurfaceGraph(ScalpPtr mesh);
    ~SurfaceGraph();
    const ScalpPtr& mesh() const;

    /// Distances from one root to the welded vertices within `radius`.
    class Front;
    /// Cached by the root's bits and the radius; null for a root on no triangle. Thread-safe.
    std::shared_ptr<const Front> front(const StrandRoot& root, float radius) const;
    /// Along the surface from the front's root to a place on the mesh; infinite where the front
    /// does not reach. Never below the straight distance.
    float distance(const Front& front, const StrandRoot& to, Vec3f toPosition) const;

private:
    struct Data;
    std::unique_ptr<Data> data_;
};

/// One front per guide root for a fixed radius. Built from a previous one, it reuses the fronts of
/// unmoved roots and makes only the rest, in parallel.
class SurfaceFronts {
public:
    SurfaceFronts(std::shared_ptr<const SurfaceGraph> graph, std::span<const StrandRoot> roots,
                  float radius, const SurfaceFronts* previous = nullptr);
    float radius() const { return radius_; }
    std::size_t size() const { return fronts_.size(); }
    /// Infinite where front `i` does not reach, or root `i` lies on no triangle.
    float distance(std::size_t i, const StrandRoot& to, Vec3f toPosition) const;

private:
    std::shared_ptr<const SurfaceGraph> graph_;
    std::vector<StrandRoot> roots_;
    std::vector<std::shared_ptr<const SurfaceGraph::Front>> fronts_;
    float radius_ = 0.0f;
};

}  // namespace corvelle
