#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "model/guideHierarchy.h"

namespace corvelle {

/// The look-up tables of a hierarchy. Followed by id or position only, never walked into a result.
struct GuideIndex {
    std::unordered_map<std::uint64_t, std::uint32_t> guides;  ///< id to position
    std::vector<std::vector<std::uint32_t>> children;         ///< by position: who has it as parent
    std::unordered_map<std::uint32_t, std::uint32_t> groups;  ///< id to position
    std::vector<std::int32_t> depth;                          ///< by group position
};

/// One edit of guides: copies of those it changes are worked on here, what follows them is rebuilt
/// parents first, and all are taken in by `commit` at once. Dropped without `commit`, or when
/// anything throws, the hierarchy stays as it was. Groups, parents and positions must not change
/// between making the edit and its end.
class GuideEdit {
public:
    /// `operation` opens the error texts.
    GuideEdit(GuideHierarchy& hierarchy, std::string operation)
        : hierarchy_(hierarchy), operation_(std::move(operation)) {}

    /// The guide as the edit has it.
    const Guide& at(std::uint32_t index) const;
    /// The edit's own copy. References stay valid to the end of the edit.
    Guide& change(std::uint32_t index);
    /// As `change`; what follows the guide is rebuilt.
    Guide& move(std::uint32_t index);
    /// As `move`; a follower's offsets are worked out again from the points (and the frame from
    /// `frameUp`) it was given.
    Guide& shape(std::uint32_t index, bool points, bool up);
    /// The follower's points are worked out again from its offsets.
    Guide& follow(std::uint32_t index);

    /// Rebuilds followers, checks all numbers and takes the changes in. With a scalp the rebuilt
    /// followers are rooted at the point of it closest to their first point.
    void commit(const ScalpMesh* scalp = nullptr);

    /// Puts a guide in the place of one of the same id that differs in its pose alone.
    static void replace(GuideHierarchy& hierarchy, std::uint32_t index, GuidePtr guide) {
        hierarchy.guides_[index] = std::move(guide);
    }

private:
    struct Entry {
        std::uint32_t index = 0;
        std::shared_ptr<Guide> guide;
        bool capturePoints = false, captureUp = false, due = false, moved = false;
    };
    struct Task;  ///< a parent and those of its followers that are due
    std::uint32_t entryOf(std::uint32_t index);
    std::int32_t levelOf(std::uint32_t index) const;
    void put(std::uint32_t entry, std::uint32_t index);
    Guide& own(Entry& entry) const;
    void rebuild(Task& task, const ScalpMesh* scalp);

    GuideHierarchy& hierarchy_;
    std::string operation_;
    std::vector<Entry> entries_;
    std::unordered_map<std::uint32_t, std::uint32_t> entryAt_;  ///< by position of the guide
    std::vector<std::vector<std::uint32_t>> levels_;            ///< entries with work, by level
};

/// Ids from here on are hashes of child guides: they do not raise the counter of new ids.
inline constexpr std::uint64_t kCountedIds = std::uint64_t(1) << 53;

/// Works out `detail` and the hashes of a guide whose other fields are final.
void finishGuide(Guide& guide, std::int32_t level);

/// Throws std::invalid_argument with `operation`: fewer than 2 points, or one that is not finite.
void checkGuidePoints(const std::string& operation, std::span<const Vec3f> points);

}  // namespace corvelle
