#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/guideSet.h"
#include "model/scalpMesh.h"

namespace corvelle {

struct GuideGroup {
    std::uint32_t id = 0;  ///< from a counter; 0 is none
    std::string name;
    std::uint32_t parent = 0;  ///< 0 for a root group
    friend bool operator==(const GuideGroup&, const GuideGroup&) = default;
};

/// One guide of the edited document. A guide with a parent that is not locked follows it: its
/// `offsets` are the truth and `points` are rebuilt from the parent; any other stores `points`.
struct Guide {
    std::uint64_t id = 0;
    std::uint32_t group = 0;
    std::uint64_t parent = 0;
    bool locked = false;
    StrandRoot root;
    Vec3f frameUp;
    std::vector<float> tubeRadius;
    float tubeTwist = 0.0f;
    std::map<std::string, float, std::less<>> attributes;
    std::map<std::string, std::vector<float>, std::less<>> pointAttributes;
    std::vector<Vec3f> points;   ///< groom space; rebuilt for followers
    std::vector<Vec3f> offsets;  ///< followers: (N, B, T) parts per point in the parent's frames
    Vec3f rootLocal;             ///< followers: root less the parent's, in the parent's first frame
    Vec3f frameUpLocal;          ///< followers: frameUp in the parent's first frame
    bool follows() const { return parent != 0 && !locked; }
};
using GuidePtr = std::shared_ptr<const Guide>;

/// Settings of `generateChildren`. Spreads are in tube radii.
struct ChildSettings {
    int count = 8;                ///< per parent, 0 to 1000
    float rootSpread = 1.0f;
    float tipSpread = 1.0f;
    float twist = 0.0f;           ///< radians
    float jitter = 0.0f;          ///< 0 to 1
    float childTubeScale = 0.5f;
    std::uint64_t seed = 0;
};

/// A mapping of positions as guides move to another scalp: p' = (p - a) * s + b.
struct ScalpMapping {
    Vec3f a;
    float s = 1.0f;
    Vec3f b;
    Vec3f operator()(Vec3f p) const { return (p - a) * s + b; }
};

/// The editable guides: named groups in a tree, and guides in them. Primary guides live in root
/// groups; a child group's guides hang off parents in the parent group and follow them.
/// Copies are cheap (guides are shared pointers to const). Edited on one thread; followers are
/// rebuilt inside each mutation, so const readers may run in parallel.
/// All edits throw std::invalid_argument with the operation's name and leave everything as it was.
class GuideHierarchy {
public:
    std::span<const GuideGroup> groups() const { return groups_; }
    std::span<const GuidePtr> guides() const { return guides_; }  ///< creation order
    std::size_t size() const { return guides_.size(); }
    bool empty() const { return guides_.empty(); }
    const GuideGroup* group(std::uint32_t id) const;
    const GuideGroup* groupNamed(std::string_view name) const;
    int depthOf(std::uint32_t group) const;  ///< 0 for a root group
    int deepestLevel() const;
    GuidePtr guide(std::uint64_t id) const;  ///< null for none
    const std::map<std::string, float>& declaredAttributes() const { return declared_; }
    std::uint64_t scalpTopology() const { return scalpTopology_; }
    void setScalpTopology(std::uint64_t hash);

    std::uint32_t addGroup(const std::string& name, std::uint32_t parent);
    void renameGroup(std::uint32_t group, const std::string& name);
    void removeGroup(std::uint32_t group);  ///< with its child groups and all their guides
    std::uint64_t addGuide(std::uint32_t group, StrandRoot root, std::vector<Vec3f> points, std::uint64_t id,
                           const ScalpMesh* scalp = nullptr);
    std::uint64_t addChildGuide(std::uint32_t group, std::uint64_t parent, std::vector<Vec3f> points,
                                std::uint64_t id);
    void removeGuides(std::span<const std::uint64_t> ids);  ///< followers of a removed guide go too
    void reparent(std::uint64_t guide, std::uint64_t newParent);
    void setLocked(std::uint64_t guide, bool locked);
    void promoteGroup(std::uint32_t group);
    void demoteGroup(std::uint32_t group, std::uint32_t newParent);
    void setPoints(std::uint64_t guide, std::vector<Vec3f> points);
    /// Many guides at once: parents before children, followers rebuilt once. Unknown ids throw.
    void setPoints(std::span<const std::pair<std::uint64_t, std::vector<Vec3f>>> edits);
    void setRoot(std::uint64_t guide, StrandRoot root);
    void setTube(std::uint64_t guide, std::vector<float> radius, float twist);
    void setFrameUp(std::uint64_t guide, Vec3f up);
    void setAttribute(std::uint64_t guide, const std::string& name, float value);
    void setPointAttribute(std::uint64_t guide, const std::string& name, std::vector<float> values);
    void addAttribute(const std::string& name, float defaultValue);
    void removeAttribute(const std::string& name);

    /// `parentGuides` null: all guides of the parent group. Returns the child group's id.
    std::uint32_t generateChildren(std::uint32_t parentGroup, const std::string& childGroupName,
                                   const ChildSettings& settings,
                                   const std::vector<std::uint64_t>* parentGuides, const ScalpMesh* scalp);
    void mirrorAll(int axis, float plane, bool positiveSide, const ScalpMesh* scalp);
    void mirrorGroup(std::uint32_t group, int axis, float plane, bool positiveSide, const ScalpMesh* scalp);
    void transfer(const ScalpMesh* oldScalp, const ScalpMesh& newScalp, const ScalpMapping& mapping);
    /// Primary and locked guides carried from one pose of the scalp to another; followers follow.
    /// Meshes with equal points and normals give an equal copy without arithmetic.
    GuideHierarchy deformed(const ScalpMesh& from, const ScalpMesh& to) const;

    /// The groups at that depth plus shallower ones without a populated child group; -1: the leaf
    /// groups of every branch (a child group without guides does not count). `exclude`: group ids
    /// left out with their child groups.
    GuidesPtr flatten(int level = -1, std::span<const std::uint32_t> exclude = {}) const;
    GuidesPtr flattenGroups(std::span<const std::uint32_t> groups, std::span<const std::uint32_t> exclude = {}) const;
    /// Every guide in order of group and level.
    GuidesPtr all() const;

    std::uint64_t contentHash() const;
    /// Restores groups, guides and attributes as read; used by the JSON reader. Followers are rebuilt.
    static GuideHierarchy restore(std::vector<GuideGroup> groups, std::vector<Guide> guides,
                                  std::uint64_t scalpTopology);

private:
    std::vector<GuideGroup> groups_;
    std::vector<GuidePtr> guides_;
    std::map<std::uint64_t, std::uint32_t> index_;
    std::map<std::string, float> declared_;
    std::uint64_t nextGuide_ = 1;
    std::uint32_t nextGroup_ = 1;
    std::uint64_t scalpTopology_ = 0;
};

/// The guide JSON of a groom. Floats are the shortest decimal that reads back to the same float32.
std::string guidesToJson(const GuideHierarchy& hierarchy);
/// Throws std::invalid_argument (or the JSON library's exception) with the text to show.
GuideHierarchy guidesFromJson(std::string_view text);

/// One frame per point of a guide: unit T along it, N and B, carried by double reflection (Wang,
/// Juettler, Zheng, Liu, "Computation of Rotation Minimizing Frames", ACM TOG 27(1), 2008).
struct GuideFrame {
    Vec3f T, N, B;
};
void guideFrames(std::span<const Vec3f> points, Vec3f up, std::span<GuideFrame> frames);

}  // namespace corvelle
