#include "hosts/blender/helper/guideEditCommands.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "hosts/blender/helper/requestError.h"
#include "hosts/blender/helper/toolState.h"
#include "hosts/blender/helper/viewReader.h"

namespace corvelle {
namespace {

constexpr char kFreeze[] = "freeze";
constexpr int kMostChildren = 1000;

/// One edit: what it works on, and what it leaves to tell.
struct GuideOp {
    const char* op;
    const Json& request;
    HelperSession& session;
    GuideHierarchy& guides;   ///< a copy, in the document's pose
    ScalpPtr pose;            ///< the scalp that `guides` lies on; null: none
    std::string label;        ///< of the undo step
    bool madeGuides = false;  ///< the answer tells how many
    bool thawed = false;      ///< the frozen set goes too

    const ScalpMesh* scalp() const { return pose.get(); }
    std::uint32_t group(const char* key = "group") const {
        return groupNamed(guides, requireString(request, key));
    }
    /// `ids`, else the selection; those that are there.
    std::vector<std::uint64_t> ids() const {
        std::vector<std::uint64_t> chosen;
        if (const Json* given = findField(request, "ids")) chosen = readGuideIds(*given, "ids");
        const bool named = !chosen.empty();
        if (!named) {
            const GuideIds& selected = toolsOf(session).selection.ids();
            chosen.assign(selected.begin(), selected.end());
        }
        std::set<std::uint64_t> seen;
        std::erase_if(
            chosen, [&](std::uint64_t id) { return !guides.guide(id) || !seen.insert(id).second; });
        if (chosen.empty() && !named)
            failRequest("state", std::string(op) + ": no guides given and none selected");
        return chosen;
    }
    void say(const std::string& verb, std::size_t count) {
        label = verb + " " + std::to_string(count) + " guides";
    }
};

double readNumber(const Json& request, const char* key, double otherwise, double least,
                  double most) {
    return std::clamp(optionalNumber(request, key, otherwise), least, most);
}

void addGroup(GuideOp& edit) {
    const std::string name = requireString(edit.request, "name");
    std::uint32_t parent = 0;
    if (const Json* given = findField(edit.request, "parent")) {
        if (given->is_string()) {
            if (!given->get_ref<const std::string&>().empty()) parent = edit.group("parent");
        } else if (given->is_number_integer() && given->get<std::int64_t>() > 0) {
            const GuidePtr guide = edit.guides.guide(given->get<std::uint64_t>());
            if (!guide) failRequest("not_found", "no guide " + given->dump());
            parent = guide->group;
        } else {
            failRequest("bad_request", "parent is a guide ID");
        }
    }
    if (edit.guides.groupNamed(name))
        failRequest("bad_request", "a group named '" + name + "' is there already");
    edit.guides.addGroup(name, parent);
    edit.label = "add group " + name;
}

void removeGroup(GuideOp& edit) {
    edit.guides.removeGroup(edit.group());
    edit.label = "remove group " + requireString(edit.request, "group");
}

void renameGroup(GuideOp& edit) {
    const std::uint32_t group = edit.group();
    const std::string& name = requireString(edit.request, "name");
    const GuideGroup* held = edit.guides.groupNamed(name);
    if (held && held->id != group)
        failRequest("bad_request", "a group named '" + name + "' is there already");
    if (!held) edit.guides.renameGroup(group, name);
    edit.label = "rename group " + requireString(edit.request, "group");
}

void generateChildren(GuideOp& edit) {
    const Json& request = edit.request;
    constexpr double kMost = std::numeric_limits<float>::max();
    const ChildSettings defaults;
    ChildSettings settings;
    const Json* count = findField(request, "count");
    if (count && !count->is_number_integer()) failRequest("bad_request", "count is a whole number");
    settings.count = int(readNumber(request, "count", defaults.count, 0, kMostChildren));
    settings.rootSpread = float(readNumber(request, "rootSpread", defaults.rootSpread, 0.0, kMost));
    settings.tipSpread = float(readNumber(request, "tipSpread", defaults.tipSpread, 0.0, kMost));
    settings.twist = float(readNumber(request, "twist", defaults.twist, -kMost, kMost));
    settings.jitter = float(readNumber(request, "jitter", defaults.jitter, 0.0, 1.0));
    settings.childTubeScale =
        float(readNumber(request, "childTubeScale", defaults.childTubeScale, 0.0, kMost));
    if (const Json* seed = findField(request, "seed")) {
        if (!seed->is_number_integer()) failRequest("bad_request", "seed is a whole number");
        settings.seed = seed->get<std::uint64_t>();
    }
    const std::string& name = requireString(request, "group");
    const bool selectedOnly = optionalBool(request, "selected", false);
    if (edit.guides.empty()) failRequest("state", "the groom has no guides yet");
    const std::uint32_t group = groupNamed(edit.guides, name);
    std::vector<std::uint64_t> parents;
    for (const GuidePtr& guide : edit.guides.guides())
        if (guide->group == group) parents.push_back(guide->id);
    if (parents.empty()) failRequest("state", "the group has no guides to be parents");
    if (selectedOnly) {
        const GuideIds& selected = toolsOf(edit.session).selection.ids();
        std::erase_if(parents, [&](std::uint64_t id) { return !selected.contains(id); });
        if (parents.empty()) failRequest("state", "none of the selected guides is in that group");
    }
    const std::string child =
        optionalString(request, "childGroup", edit.guides.childGroupName(group));
    if (const GuideGroup* held = edit.guides.groupNamed(child); held && held->parent != group)
        failRequest("bad_request", "a group named '" + child + "' is there already");
    edit.guides.generateChildren(group, child, settings, selectedOnly ? &parents : nullptr,
                                 edit.scalp());
    edit.label = "generate children";
    edit.madeGuides = true;
}

void deleteGuides(GuideOp& edit) {
    const std::vector<std::uint64_t> ids = edit.ids();
    if (!ids.empty()) edit.guides.removeGuides(ids);
    edit.say("delete", ids.size());
}

void setLocked(GuideOp& edit) {
    const bool lock = std::string_view(edit.op) == "lock";
    const std::vector<std::uint64_t> ids = edit.ids();
    for (const std::uint64_t id : ids) {
        const GuidePtr guide = edit.guides.guide(id);
        if (guide->parent != 0 && guide->locked != lock) edit.guides.setLocked(id, lock);
    }
    edit.say(lock ? "lock" : "unlock", ids.size());
}

void declare(GuideHierarchy& guides, const std::string& attribute) {
    if (!carriesLayer(guides, attribute)) guides.addAttribute(attribute, 0.0f);
}

void setAttribute(GuideOp& edit) {
    const std::string& attribute = requireString(edit.request, "attribute");
    if (attribute.empty()) failRequest("bad_request", "a guide attribute needs a name");
    requireField(edit.request, "value");
    const double value = optionalNumber(edit.request, "value", 0.0);
    if (!std::isfinite(float(value))) failRequest("bad_request", "\"value\" must be finite");
    const std::vector<std::uint64_t> ids = edit.ids();
    declare(edit.guides, attribute);
    for (const std::uint64_t id : ids) edit.guides.setAttribute(id, attribute, float(value));
    edit.label = "set " + attribute;
}

void setFrozen(GuideOp& edit) {
    const bool freeze = std::string_view(edit.op) == "freeze";
    requirePrimaryGuides(edit.guides);
    const std::vector<std::uint64_t> ids = edit.ids();
    if (freeze) declare(edit.guides, kFreeze);
    for (const std::uint64_t id : ids) {
        const auto& held = edit.guides.guide(id)->attributes;
        const auto mask = held.find(kFreeze);
        const float now = mask == held.end() ? 0.0f : mask->second;
        if (now != (freeze ? 1.0f : 0.0f))
            edit.guides.setAttribute(id, kFreeze, freeze ? 1.0f : 0.0f);
    }
    edit.say(freeze ? "freeze" : "unfreeze", ids.size());
}

void unfreezeAll(GuideOp& edit) {
    if (carriesLayer(edit.guides, kFreeze)) edit.guides.removeAttribute(kFreeze);
    edit.thawed = true;
    edit.label = "unfreeze all";
}

void removeLayer(GuideOp& edit) {
    const std::string& name = requireString(edit.request, "name");
    if (!carriesLayer(edit.guides, name))
        failRequest("not_found", "no guide carries the layer '" + name + "'");
    edit.guides.removeAttribute(name);
    edit.label = "remove layer " + name;
}

/// A plane of the host's space, in groom space.
struct Plane {
    int axis = 0;
    float at = 0.0f;
    bool fromPositive = true;
};

Plane readPlane(const GuideOp& edit) {
    const Json& request = edit.request;
    const std::string word = [&] {
        const Json* axis = findField(request, "axis");
        if (axis && !axis->is_string()) failRequest("bad_request", "axis is x, y or z");
        return axis ? axis->get<std::string>() : std::string("x");
    }();
    if (word != "x" && word != "y" && word != "z") failRequest("bad_request", "axis is x, y or z");
    Vec3f center;
    if (const Json* given = findField(request, "center")) center = readPoint(*given, "center");
    const bool fromPositive = optionalBool(request, "fromPositive", true);
    const SceneSpace& space = edit.session.space;
    Vec3f along;
    along[word[0] - 'x'] = 1.0f;
    along = space.directionToGroom(along);
    Plane plane;
    plane.axis = along.x != 0.0f ? 0 : along.y != 0.0f ? 1 : 2;
    plane.at = space.pointToGroom(center)[plane.axis];
    plane.fromPositive = fromPositive == (along[plane.axis] > 0.0f);  // host y runs against groom z
    return plane;
}

void mirrorAll(GuideOp& edit) {
    const Plane plane = readPlane(edit);
    edit.guides.mirrorAll(plane.axis, plane.at, plane.fromPositive, edit.scalp());
    edit.label = "mirror all";
    edit.madeGuides = true;
}

void mirrorGroup(GuideOp& edit) {
    const Plane plane = readPlane(edit);
    const std::uint32_t group = edit.group();
    if (edit.guides.group(group)->parent != 0)
        failRequest("bad_request", "mirror a root group: its children follow");
    edit.guides.mirrorGroup(group, plane.axis, plane.at, plane.fromPositive, edit.scalp());
    edit.label = "mirror group";
    edit.madeGuides = true;
}

void promoteGroup(GuideOp& edit) {
    edit.guides.promoteGroup(edit.group());
    edit.label = "promote group " + requireString(edit.request, "group");
}

/// The root group before this one, else the one behind it.
std::uint32_t neighborRoot(const GuideHierarchy& guides, std::uint32_t group) {
    std::uint32_t before = 0;
    bool passed = false;
    for (const GuideGroup& other : guides.groups()) {
        if (other.id == group) {
            passed = true;
            if (before != 0) break;
        } else if (other.parent == 0) {
            if (passed) return other.id;
            before = other.id;
        }
    }
    return before;
}

void demoteGroup(GuideOp& edit) {
    const std::uint32_t group = edit.group();
    const std::uint32_t parent =
        findField(edit.request, "parent") ? edit.group("parent") : neighborRoot(edit.guides, group);
    if (parent == 0) failRequest("bad_request", "demote_group: no other root group to go under");
    edit.guides.demoteGroup(group, parent);
    edit.label = "demote group " + requireString(edit.request, "group");
}

void reparent(GuideOp& edit) {
    const Json& given = requireField(edit.request, "parent");
    const std::uint64_t parent = readGuideIds(Json::array({given}), "parent").front();
    const std::vector<std::uint64_t> ids = edit.ids();
    if (!edit.guides.guide(parent)) failRequest("not_found", "no guide " + std::to_string(parent));
    if (!ids.empty()) edit.guides.reparent(ids, parent);
    edit.say("reparent", ids.size());
}

struct OpRow {
    const char* op;
    void (*apply)(GuideOp&);
};
constexpr OpRow kOps[] = {
    {"add_group", addGroup},         {"remove_group", removeGroup},
    {"rename_group", renameGroup},   {"generate_children", generateChildren},
    {"delete_guides", deleteGuides}, {"lock", setLocked},
    {"unlock", setLocked},           {"set_attribute", setAttribute},
    {"freeze", setFrozen},           {"unfreeze", setFrozen},
    {"unfreeze_all", unfreezeAll},   {"remove_layer", removeLayer},
    {"mirror_all", mirrorAll},       {"mirror_group", mirrorGroup},
    {"promote_group", promoteGroup}, {"demote_group", demoteGroup},
    {"reparent", reparent},
};

const OpRow& opOf(const Json& request) {
    const Json& given = requireField(request, "op");
    std::string names;
    for (const OpRow& row : kOps) {
        if (given.is_string() && given.get_ref<const std::string&>() == row.op) return row;
        if (!names.empty()) names += &row == std::end(kOps) - 1 ? " or " : ", ";
        names += row.op;
    }
    failRequest("bad_request", "op is " + names);
}

}  // namespace

std::vector<std::uint64_t> readGuideIds(const Json& value, std::string_view key) {
    if (!value.is_array()) failRequest("bad_request", std::string(key) + " is a list of guide IDs");
    std::vector<std::uint64_t> ids;
    for (const Json& id : value) {
        if (!id.is_number_unsigned() || id.get<std::uint64_t>() == 0)
            failRequest("bad_request", "a guide ID is a positive integer");
        ids.push_back(id.get<std::uint64_t>());
    }
    return ids;
}

std::uint32_t groupNamed(const GuideHierarchy& hierarchy, const std::string& name) {
    const GuideGroup* group = hierarchy.groupNamed(name);
    if (!group) failRequest("not_found", "no group named '" + name + "'");
    return group->id;
}

bool carriesLayer(const GuideHierarchy& hierarchy, const std::string& layer) {
    return hierarchy.declaredAttributes().contains(layer) ||
           std::ranges::any_of(hierarchy.guides(), [&](const GuidePtr& guide) {
               return guide->attributes.contains(layer) || guide->pointAttributes.contains(layer);
           });
}

void requirePrimaryGuides(const GuideHierarchy& hierarchy) {
    for (const GuidePtr& guide : hierarchy.guides())
        if (guide->parent == 0) return;
    failRequest("state", "no primary guides to carry the layer: place some first");
}

Json guidesInfoCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    ToolState& tools = toolsOf(session);
    const std::shared_ptr<const GuideHierarchy> hierarchy = session.groom->shownHierarchy();
    const std::shared_ptr<const GuideWeights> weights = tools.host->selectionWeights();
    const std::shared_ptr<const GuideIds>& frozenSet = tools.selection.frozen();
    struct Counts {
        std::size_t guides = 0, selected = 0, frozen = 0, locked = 0;
    };
    std::map<std::uint32_t, Counts> counts;
    std::set<std::string> attributes;
    for (const auto& [name, value] : hierarchy->declaredAttributes()) attributes.insert(name);
    Counts total;
    for (const GuidePtr& guide : hierarchy->guides()) {
        const auto mask = guide->attributes.find(kFreeze);
        const bool frozen = (frozenSet && frozenSet->contains(guide->id)) ||
                            (mask != guide->attributes.end() && mask->second >= 1.0f);
        for (Counts* count : {&counts[guide->group], &total}) {
            ++count->guides;
            count->selected += tools.selection.ids().contains(guide->id);
            count->frozen += frozen;
            count->locked += guide->locked;
        }
        for (const auto& [name, value] : guide->attributes) attributes.insert(name);
        for (const auto& [name, values] : guide->pointAttributes) attributes.insert(name);
    }
    Json groups = Json::array();
    for (const GuideGroup& group : hierarchy->groups()) {
        const Counts& count = counts[group.id];
        const GuideGroup* parent = hierarchy->group(group.parent);
        groups.push_back({{"id", group.id},
                          {"name", group.name},
                          {"parent", parent ? parent->name : ""},
                          {"level", hierarchy->depthOf(group.id)},
                          {"guides", count.guides},
                          {"hidden", tools.hiddenGroups.contains(group.name)},
                          {"selected", count.selected},
                          {"frozen", count.frozen},
                          {"locked", count.locked}});
    }
    return {{"groups", std::move(groups)},
            {"levels", hierarchy->groups().empty() ? 0 : hierarchy->deepestLevel() + 1},
            {"guides", total.guides},
            {"selected", total.selected},
            {"frozen", total.frozen},
            {"attributes", attributes}};
}

Json guidesEditCommand(const CommandContext& context) {
    HelperSession& session = context.session();
    const OpRow& row = opOf(context.request);
    GroomSession& groom = *session.groom;
    ToolState& tools = toolsOf(session);
    if (tools.brush.dragging()) {
        // An edit that fails leaves the stroke going, so it is tried on what the stroke shows.
        GuideHierarchy tried = *groom.shownHierarchy();
        GuideOp trial{row.op, context.request, session, tried, groom.scalp()};
        row.apply(trial);
        finishStroke(session);
    }
    // Edits happen on the scalp as it is shown, where mirror planes and ids of the host speak of
    // it.
    const std::shared_ptr<const GuideHierarchy> shown = groom.activeHierarchy();
    GuideHierarchy next = *shown;
    GuideOp edit{row.op, context.request, session, next, groom.scalp()};
    row.apply(edit);
    std::size_t added = 0;
    if (edit.madeGuides)
        for (const GuidePtr& guide : next.guides()) added += !shown->guide(guide->id);
    DocumentState state;
    state.hierarchy = groom.toDocumentPose(std::make_shared<const GuideHierarchy>(std::move(next)));
    groom.edit(std::move(state), edit.label);
    if (edit.thawed) {
        tools.selection.freeze({});
        tools.solo.clear();
    }
    Json answer = guidesInfoCommand(context);
    if (edit.madeGuides) answer["added"] = added;
    return answer;
}

}  // namespace corvelle
