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

    // Worked out once, when the hierarchy takes the guide in.
    std::shared_ptr<const GuideDetail> detail;  ///< what a GuideSet carries of it
    std::uint64_t viewHash = 0;                 ///< `guideHash` of what a GuideSet shows
    std::uint64_t contentHash = 0;              ///< everything above

    bool follows() const { return parent != 0 && !locked; }
};
using GuidePtr = std::shared_ptr<const Guide>;

/// The tube radius at a share 0..1 (clamped) of the guide: values evenly spaced from root to tip,
/// straight between them; an empty list is 1.
float tubeProfile(std::span<const float> radius, float share);

/// Settings of `generateChildren`. Spreads are in tube radii.
struct ChildSettings {
    int count = 8;  ///< per parent, 0 to 1000
    float rootSpread = 1.0f;
    float tipSpread = 1.0f;
    float twist = 0.0f;           ///< radians from root to tip
    float jitter = 0.0f;          ///< 0 to 1
    float childTubeScale = 0.5f;  ///< a child's tube radius over its parent's, 0 and up
    std::uint64_t seed = 0;
};

/// A mapping of positions as guides move to another scalp: p' = (p - a) * s + b, s above 0.
struct ScalpMapping {
    Vec3f a;
    float s = 1.0f;
    Vec3f b;
    Vec3f operator()(Vec3f p) const { return (p - a) * s + b; }
};

struct GuideIndex;

/// The editable guides: named groups in a tree, and guides in them. Primary guides live in root
/// groups; a child group's guides hang off parents in the parent group and follow them.
///
/// Copies are cheap: guides are shared pointers to const, and the look-up tables are shared until
/// guides come or go. Edited on one thread; the followers of what changed are rebuilt inside each
/// mutation, parents first, so const readers may run in parallel.
///
/// Followers: `offsets` are the parent's (N / radius, B / radius, T) parts per point, the first two
/// turned back by the parent's tube twist; a parent of another point count is read resampled to the
/// follower's. Points of a follower are what its offsets give back, so that a saved and reopened
/// groom has the same bits: within rounding of those that were set.
///
/// Errors: all edits throw std::invalid_argument with the operation's name and leave everything as
/// it was. Points, radii and values must be finite.
/// Cost:   edits of a guide take time in proportion to the guide and what follows it;
/// `removeGuides`,
///         `reparent` and the group operations to the hierarchy: give them many guides at once.
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
    /// Attributes every new guide gets, and their defaults. Those of a document read back are the
    /// union of what its guides carry, with default 0.
    const std::map<std::string, float>& declaredAttributes() const { return declared_; }
    /// The id that the next guide without a given one gets: above all ids below kCountedIds ever
    /// held (model/guideEdit.h: those past it are hashes of generated children).
    std::uint64_t nextGuideId() const { return nextGuide_; }
    /// Keeps ids of guides and groups from coming back after an undo: nothing new gets an id that
    /// `other` has given out.
    void reserveIdsOf(const GuideHierarchy& other);
    std::uint64_t scalpTopology() const { return scalpTopology_; }
    void setScalpTopology(std::uint64_t hash);

    std::uint32_t addGroup(const std::string& name, std::uint32_t parent);
    void renameGroup(std::uint32_t group, const std::string& name);
    void removeGroup(std::uint32_t group);  ///< with its child groups and all their guides
    /// A primary guide; id 0 asks for the next free one. `frameUp` starts as the first edge of the
    /// root's triangle less its share along the guide, without a scalp as any perpendicular.
    std::uint64_t addGuide(std::uint32_t group, StrandRoot root, std::vector<Vec3f> points,
                           std::uint64_t id, const ScalpMesh* scalp = nullptr);
    /// A follower. `frameUp` starts as the parent's; the root is unrooted until `refreshRoots`.
    std::uint64_t addChildGuide(std::uint32_t group, std::uint64_t parent,
                                std::vector<Vec3f> points, std::uint64_t id);
    void removeGuides(std::span<const std::uint64_t> ids);  ///< with all that hangs off them
    void reparent(std::span<const std::uint64_t> guides, std::uint64_t newParent);
    void reparent(std::uint64_t guide, std::uint64_t newParent);
    /// A locked child keeps its points whatever its parent does; unlocked it follows again from
    /// where it is. A primary guide follows nothing: it stays as it is.
    void setLocked(std::uint64_t guide, bool locked);
    /// A child group becomes a root group: its guides keep their points, unlocked, without parents.
    void promoteGroup(std::uint32_t group);
    /// A group becomes a child of a sibling: each guide follows the nearest root there (ties: the
    /// lower id), unlocked, points unmoved.
    void demoteGroup(std::uint32_t group, std::uint32_t newParent);
    void setPoints(std::uint64_t guide, std::vector<Vec3f> points);
    /// Many guides at once: parents before children, followers rebuilt once. Unknown or repeated
    /// ids throw. Point attributes are resampled where the point count changes.
    void setPoints(std::span<const std::pair<std::uint64_t, std::vector<Vec3f>>> edits);
    void setRoot(std::uint64_t guide, StrandRoot root);
    /// Roots all that follows the guides `moved`, at every level, at the scalp point closest to its
    /// first point: for the end of an edit that moved parents.
    void refreshRoots(std::span<const std::uint64_t> moved, const ScalpMesh& scalp);
    void setTube(std::uint64_t guide, std::vector<float> radius, float twist);
    void setFrameUp(std::uint64_t guide, Vec3f up);
    void setAttribute(std::uint64_t guide, const std::string& name, float value);
    void setPointAttribute(std::uint64_t guide, const std::string& name, std::vector<float> values);
    void addAttribute(const std::string& name, float defaultValue);
    void removeAttribute(const std::string& name);  ///< from every guide, per point ones too

    /// The group that children of `parentGroup` go to unless told: its only child group, else
    /// "<name>_children".
    std::string childGroupName(std::uint32_t parentGroup) const;
    /// Fills or refills a child group. `parentGuides` null: all guides of the parent group. The
    /// followers that those parents had in the group are replaced; locked children stay, and so
    /// does what hangs off a child that comes back under its old id. Ids depend on parent id, seed
    /// and number alone. A child copies its parent's curve and attributes at an even draw over the
    /// disc of the tube; with a scalp its first point is moved onto it, the shift fading to the
    /// tip. Returns the child group's id.
    std::uint32_t generateChildren(std::uint32_t parentGroup, const std::string& childGroupName,
                                   const ChildSettings& settings,
                                   const std::vector<std::uint64_t>* parentGuides,
                                   const ScalpMesh* scalp);
    /// Replaces the guides rooted on one side of a plane by reflected copies of those on the other
    /// (axis 0, 1, 2; `positiveSide`: the positive side is the source). Roots within 1e-4 of the
    /// scalp's diagonal of the plane stay as they are. Copies get new ids, and with a scalp their
    /// first point lies on it. `mirrorAll` copies what hangs off the sources too; `mirrorGroup`
    /// works on one root group and copies its guides alone.
    void mirrorAll(int axis, float plane, bool positiveSide, const ScalpMesh* scalp);
    void mirrorGroup(std::uint32_t group, int axis, float plane, bool positiveSide,
                     const ScalpMesh* scalp);
    /// Roots the guides on another scalp. Where both meshes have the same triangles, roots stay and
    /// points are carried; else mapped points stay and roots are the closest points. Tubes and what
    /// follows are scaled by `mapping.s`. `oldScalp` null: not known.
    void transfer(const ScalpMesh* oldScalp, const ScalpMesh& newScalp,
                  const ScalpMapping& mapping);
    /// Primary and locked guides carried from one pose of the scalp to another; followers follow.
    /// Where the triangle of a root is bit-equal in both poses nothing is computed.
    /// Throws std::invalid_argument if the two differ in triangles.
    GuideHierarchy deformed(const ScalpMesh& from, const ScalpMesh& to) const;

    /// The groups at that depth plus shallower ones without a populated child group; -1: the leaf
    /// groups of every branch (a child group without guides does not count). `exclude`: group ids
    /// left out with their child groups.
    GuidesPtr flatten(int level = -1, std::span<const std::uint32_t> exclude = {}) const;
    GuidesPtr flattenGroups(std::span<const std::uint32_t> groups,
                            std::span<const std::uint32_t> exclude = {}) const;
    /// Every guide by level, then group, then age: parents come before children.
    GuidesPtr all() const;

    std::uint64_t contentHash() const;  ///< of the whole document; O(n) over stored hashes
    /// Builds a hierarchy from records, as the JSON reader does: primary and locked guides give
    /// `points`, followers `offsets`, `rootLocal` and `frameUpLocal`; derived fields are ignored.
    /// Throws std::invalid_argument naming the group or guide that does not fit.
    static GuideHierarchy restore(std::vector<GuideGroup> groups, std::vector<Guide> guides,
                                  std::uint64_t scalpTopology);

private:
    friend class GuideEdit;
    const GuideIndex& index() const;
    GuideIndex& writableIndex();
    void reindex();
    std::uint32_t at(std::uint64_t guide, const char* operation) const;
    std::uint32_t groupAt(std::uint32_t group) const;  ///< position, or groups_.size()
    std::uint64_t takeId(std::uint64_t id, const char* operation) const;
    void append(std::shared_ptr<Guide> guide);
    void erase(const std::vector<bool>& gone);
    std::vector<bool> withDescendants(std::vector<bool> chosen) const;
    std::vector<bool> excluded(std::span<const std::uint32_t> groups) const;
    GuidesPtr select(const std::vector<bool>& chosenGroups) const;
    void mirror(const std::vector<bool>& groups, int axis, float plane, bool positiveSide,
                bool withChildren, const ScalpMesh* scalp, const char* operation);

    std::vector<GuideGroup> groups_;
    std::vector<GuidePtr> guides_;
    std::shared_ptr<GuideIndex> index_;  ///< copied before a write that others would see
    std::map<std::string, float> declared_;
    std::uint64_t nextGuide_ = 1;
    std::uint32_t nextGroup_ = 1;
    std::uint64_t scalpTopology_ = 0;
};

/// The guide JSON of a groom. Floats are the shortest decimal that reads back to the same float32.
std::string guidesToJson(const GuideHierarchy& hierarchy);
/// Blank text gives an empty hierarchy. Throws std::invalid_argument (or the JSON library's
/// exception) with the text to show; nothing is half-built.
GuideHierarchy guidesFromJson(std::string_view text);

/// One frame per point of a guide: unit T along it, N and B = T x N, right-handed.
struct GuideFrame {
    Vec3f T, N, B;
};
/// Fills `frames`, turning as little as possible from root to tip.
///
/// Shapes:  points [n], frames [n], n >= 2; root first. `up` of any length: N starts as its part
///          square to the guide, as any perpendicular where nothing is left of it.
/// Edges:   a segment of zero length keeps the frame before it; a guide that starts with coinciding
///          points takes its first direction from the first that differ, a dot stands along +y.
/// Throws:  std::invalid_argument if the sizes differ or n < 2, before anything is written.
/// Source:  Wang, Juettler, Zheng, Liu, "Computation of Rotation Minimizing Frames",
///          ACM TOG 27(1), 2008: double reflection. We differ: central-difference tangents.
void guideFrames(std::span<const Vec3f> points, Vec3f up, std::span<GuideFrame> frames);

}  // namespace corvelle
