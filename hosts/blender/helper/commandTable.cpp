#include "hosts/blender/helper/command.h"
#include "hosts/blender/helper/evaluateCommands.h"
#include "hosts/blender/helper/exportCommands.h"
#include "hosts/blender/helper/graphCommands.h"
#include "hosts/blender/helper/groomCommands.h"
#include "hosts/blender/helper/guideCommands.h"
#include "hosts/blender/helper/processCommands.h"
#include "hosts/blender/helper/scalpCommands.h"
#include "hosts/blender/helper/sessionCommands.h"
#include "hosts/blender/helper/stateCommands.h"

namespace corvelle {
namespace {

constexpr bool kSession = true;  // the row's command works on the session that the request names

constexpr Command kCommands[] = {
    {"hello", false, helloCommand},
    {"ping", false, pingCommand},
    {"shutdown", false, shutdownCommand},
    {"new_session", false, newSessionCommand},
    {"close_session", kSession, closeSessionCommand},
    {"set_options", kSession, setOptionsCommand},
    {"set_space", kSession, setSpaceCommand},
    {"load_groom", kSession, loadGroomCommand},
    {"save_groom", kSession, saveGroomCommand},
    {"groom_info", kSession, groomInfoCommand},
    {"set_scalp", kSession, setScalpCommand},
    {"update_scalp", kSession, updateScalpCommand},
    {"get_scalp", kSession, getScalpCommand},
    {"get_guides", kSession, getGuidesCommand},
    {"set_guides", kSession, setGuidesCommand},
    {"set_time", kSession, setTimeCommand},
    {"evaluate", kSession, evaluateCommand},
    {"stats", kSession, statsCommand},
    {"node_status", kSession, nodeStatusCommand},
    {"operator_specs", false, operatorSpecsCommand},
    {"default_graph", false, defaultGraphCommand},
    {"get_graph", kSession, getGraphCommand},
    {"set_graph", kSession, setGraphCommand},
    {"list_nodes", kSession, listNodesCommand},
    {"node_spec", kSession, nodeSpecCommand},
    {"get_param", kSession, getParamCommand},
    {"set_param", kSession, setParamCommand},
    {"edit_graph", kSession, editGraphCommand},
    {"list_presets"},
    {"apply_preset", kSession},
    {"insert_preset", kSession},
    {"export_open", kSession, exportOpenCommand},
    {"export_frame", kSession, exportFrameCommand},
    {"export_close", kSession, exportCloseCommand},
    {"export", kSession, exportCommand},
    {"new_groom", kSession, newGroomCommand},
    {"get_state", kSession, getStateCommand},
    {"set_state", kSession, setStateCommand},
    {"tool_catalog"},
    // The tools.
    {"tool_set", kSession},
    {"tool_get", kSession},
    {"stroke_begin", kSession},
    {"stroke_drag", kSession},
    {"stroke_end", kSession},
    {"stroke_cancel", kSession},
    {"hover", kSession},
    {"hover_clear", kSession},
    {"select", kSession},
    {"selection_get", kSession},
    {"selection_set", kSession},
    {"pick_level", kSession},
    {"set_hidden_groups", kSession},
    {"guides_info", kSession},
    {"guides_edit", kSession},
    {"maps_list", kSession},
    {"map_create", kSession},
    {"map_remove", kSession},
    {"undo", kSession},
    {"redo", kSession},
    {"undo_state", kSession},
    {"display", kSession},
};

}  // namespace

std::span<const Command> commandTable() { return kCommands; }

}  // namespace corvelle
