#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "hosts/blender/helper/answerPool.h"
#include "hosts/blender/helper/displayBuilder.h"
#include "hosts/blender/helper/helperSession.h"
#include "hosts/blender/helper/overlay.h"
#include "session/sessionStrokeHost.h"
#include "tools/brushTool.h"
#include "tools/selection.h"
#include "tools/toolSettings.h"

namespace corvelle {

/// The guides picked, and how far they reach. Ids of guides that have gone are left out when read.
class Selection {
public:
    const GuideIds& ids() const { return ids_; }
    /// Rises with every change.
    std::uint64_t version() const { return version_; }
    void set(GuideIds ids);
    /// The selected guides at 1, with a radius others by distance; kept while nothing changed.
    std::shared_ptr<const GuideWeights> weights(
        const std::shared_ptr<const GuideHierarchy>& hierarchy, const BrushToolSettings& settings);
    /// Frozen by the last pick: everything without a weight then.
    const std::shared_ptr<const GuideIds>& frozen() const { return frozen_; }
    void freeze(GuideIds ids);

private:
    GuideIds ids_;
    std::uint64_t version_ = 1;
    std::shared_ptr<const GuideIds> frozen_;
    struct {
        std::shared_ptr<const GuideHierarchy> hierarchy;
        std::uint64_t version = 0;
        float radius = 0.0f;
        std::int32_t level = 0;
        std::string group;
        std::shared_ptr<const GuideWeights> weights;
    } cache_;
};

struct ToolState;

/// The host of strokes that a request makes: what it has to say goes to the session's messages and
/// to the warnings of the answer, and steps name the session's folder of maps.
class HelperStrokeHost final : public SessionStrokeHost {
public:
    HelperStrokeHost(HelperSession& session, ToolState& tools);

    std::shared_ptr<const std::map<std::uint64_t, float>> selectionWeights() override;
    std::shared_ptr<const std::set<std::uint64_t>> frozenGuides() override;
    std::set<std::string> hiddenGroups() override;
    std::string newMapFile(const std::string& map) override;
    void notify(const std::string& text) override;
    void addWarning(const std::string& text) override;

    /// What was said since the last call, as a list.
    Json takeWarnings();

private:
    std::string mapsDir() override;

    HelperSession& session_;
    ToolState& tools_;
    std::vector<std::string> warnings_;
};

/// The interactive tools of a session. Made on first use.
struct ToolState {
    explicit ToolState(HelperSession& session);

    BrushTool brush;
    ToolChoice choice;                     ///< in the host's axes, as it was given
    std::optional<HelperStrokeHost> host;  ///< made anew around each groom that is opened
    Selection selection;
    std::set<std::string> hiddenGroups;
    /// The only guides drawn, after a solo pick; empty: all are.
    GuideIds solo;
    std::optional<ToolView> view;  ///< the last one given

    HoverCache hover;
    HoverHit hovered;
    BrushRing ring;  ///< at the last hover

    /// The middles of a shown Clump's clumps, as the last `display` found them.
    struct {
        StrandsPtr strands;
        std::string channel;
        std::shared_ptr<const std::vector<Vec3f>> places;
    } clumps;

    AnswerPool displayPool, overlayPool;
    DisplayBuilder display;
    Overlay overlay;
};

/// The session's tools, made if there are none yet.
ToolState& toolsOf(HelperSession& session);
/// The settings that tools work with: places on groom axes, what the tool prescribes filled in.
BrushToolSettings strokeSettings(const HelperSession& session, const ToolState& tools);

/// Before somebody else writes to the document: a stroke under way is committed first...
void finishStroke(HelperSession& session);
/// ...or thrown away, where the document it works on goes.
bool cancelStroke(HelperSession& session);

/// After another groom was opened into the session: tool and settings stay, all that speaks of the
/// old groom goes.
void rebindTools(HelperSession& session);

/// Tool, settings, selection and hidden groups, for a host to keep.
Json toolsJson(HelperSession& session);
/// Takes them back. What does not read is left out: a saved scene opens all the same.
void restoreTools(HelperSession& session, const Json& json);

Json toolJson(HelperSession& session);       ///< the answer of tool_get
Json selectionJson(HelperSession& session);  ///< the object of `selection`
Json undoJson(const GroomSession& groom);    ///< the answer of undo_state
/// The overlay as it is now, its arrays written if they changed.
Json overlayJson(HelperSession& session);

/// Applies one edit of the guides as an undo step, a running stroke committed first.
void editGuides(HelperSession& session, GuideHierarchy next, const std::string& label);

/// Throws code state, "the session has no scalp: set_scalp first".
void requireScalp(const HelperSession& session);

}  // namespace corvelle
