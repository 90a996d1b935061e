#include "model/guidePose.h"

#include <stdexcept>
#include <vector>

#include "model/carry.h"
#include "model/guideEdit.h"
#include "model/guideFollow.h"
#include "model/parallel.h"

namespace corvelle {

GuideHierarchy deformedBack(const GuideHierarchy& edited, const GuideHierarchy& shown,
                            const GuideHierarchy& stored, const ScalpMesh& from,
                            const ScalpMesh& to) {
    if (from.topologyHash() != to.topologyHash())
        throw std::invalid_argument("deformed: the two poses of the scalp differ in triangles");
    GuideHierarchy next = edited;
    const auto guides = edited.guides();
    std::vector<std::uint32_t> changed;
    for (std::uint32_t i = 0; i < guides.size(); ++i) {
        GuidePtr held;
        if (shown.guide(guides[i]->id) == guides[i]) held = stored.guide(guides[i]->id);
        if (held)
            GuideEdit::replace(next, i, std::move(held));
        else
            changed.push_back(i);
    }
    GuideEdit edit(next, "deformed");
    for (const std::uint32_t i : changed) {
        const Guide& guide = *guides[i];
        if (guide.follows()) {
            edit.follow(i);
            continue;
        }
        const RootMotion motion = rootMotion(guide.root, from, to);
        if (motion.identity) continue;
        Guide& moved = edit.move(i);
        moved.frameUp = motion.rotation(usableUp(moved.points, moved.frameUp));
        carry(guide.points, guide.root, from, to, moved.points);
    }
    edit.commit();
    return next;
}

}  // namespace corvelle
