#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "expr/mapCatalog.h"
#include "model/flowData.h"
#include "model/guideHierarchy.h"
#include "model/guideSet.h"
#include "model/partData.h"
#include "model/scalpMesh.h"
#include "model/strandRoot.h"
#include "model/subdivisionPlan.h"

namespace corvelle {

/// One cage as its render refines it: the plan, and where a root on the cage lies on the refined
/// mesh. Immutable after it is made.
///
/// Roots keep their place within their polygon, not in space: polygons are laid out flat as regular
/// ones, the refinement of that layout is the plan's own (linear, as it is for UVs), and a root
/// goes to the refined triangle that covers it there. So the answer does not depend on the pose,
/// and UVs at a root stay what they were.
class RefinedTopology {
public:
    explicit RefinedTopology(const ScalpMesh& cage);
    /// The same triangles, polygons and levels.
    bool fits(const ScalpMesh& cage) const;
    const SubdivisionPlan& plan() const { return plan_; }
    std::size_t cageTriangles() const { return faceOf_.size(); }
    std::size_t refinedTriangles() const { return plan_.cageFace().size(); }
    /// A root on no triangle of the cage comes back as it is.
    StrandRoot refinedRoot(const StrandRoot& root) const;

private:
    SubdivisionPlan plan_;
    std::uint64_t topology_ = 0;
    std::vector<std::int32_t> polygons_;
    std::vector<std::uint32_t> faceOf_;                       ///< polygon of each cage triangle
    std::vector<Vec2f> cageFlat_, refinedFlat_;               ///< the layout, per triangle corner
    std::vector<std::uint32_t> faceOffsets_, faceTriangles_;  ///< refined triangles of each polygon
};

/// What a session evaluates on when its scalps ask for the surface that renders draw
/// (`ScalpMesh::subdivision` above 0): refined meshes, and all that is rooted on their cages
/// carried onto them. What has no levels comes back as the same object, and so does what was asked
/// before.
class ScalpRefinement {
public:
    /// The meshes of the groom in the order of their triangles' numbers: the own one first.
    using Scalps = std::vector<std::pair<std::string, ScalpPtr>>;

    ScalpPtr mesh(const ScalpPtr& cage);  ///< null for null
    Scalps meshes(const Scalps& named);

    /// Names the cages that the following are rooted on. Their triangles count, not their poses.
    void setCages(const ScalpPtr& own, const Scalps& named);
    bool refines() const { return refines_; }
    StrandRoot root(const StrandRoot& root) const;
    GuidesPtr guides(const GuidesPtr& guides);
    std::shared_ptr<const GuideHierarchy> hierarchy(
        const std::shared_ptr<const GuideHierarchy>& from);
    PartData parts(PartData parts) const;
    /// Arrows keep their direction in space; both meshes in one pose.
    FlowData flow(FlowData flow, const ScalpMesh& cage, const ScalpMesh& refined) const;
    /// Vertex maps that were painted on the own mesh, smoothed as its points are.
    MapCatalogPtr maps(const MapCatalogPtr& maps);

private:
    using TopologyPtr = std::shared_ptr<const RefinedTopology>;
    TopologyPtr topologyOf(const ScalpMesh& cage);
    struct Pose {
        ScalpPtr cage, refined;
    };
    /// A run of triangle numbers: of one cage, and of what it becomes.
    struct Run {
        TopologyPtr topology;  ///< null: as it is
        std::uint64_t topologyHash = 0;
        std::size_t first = 0, count = 0, refinedFirst = 0;
    };
    std::vector<TopologyPtr> topologies_;  ///< newest first, likewise `poses_`
    std::vector<Pose> poses_;
    std::vector<Run> runs_;
    std::size_t ownPoints_ = 0;
    bool refines_ = false;
    struct {
        GuidesPtr from, result;
    } guides_;
    struct {
        std::shared_ptr<const GuideHierarchy> from, result;
    } hierarchy_;
    struct {
        MapCatalogPtr from, result;
    } maps_;
};

}  // namespace corvelle
