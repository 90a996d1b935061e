#include "hosts/blender/helper/command.h"
#include "hosts/blender/helper/displayCommand.h"
#include "hosts/blender/helper/evaluateCommands.h"
#include "hosts/blender/helper/exportCommands.h"
#include "hosts/blender/helper/graphCommands.h"
#include "hosts/blender/helper/groomCommands.h"
#include "hosts/blender/helper/guideCommands.h"
#include "hosts/blender/helper/guideEditCommands.h"
#include "hosts/blender/helper/mapCommands.h"
#include "hosts/blender/helper/processCommands.h"
#include "hosts/blender/helper/scalpCommands.h"
#include "hosts/blender/helper/selectionCommands.h"
#include "hosts/blender/helper/sessionCommands.h"
#include "hosts/blender/helper/stateCommands.h"
#include "hosts/blender/helper/strokeCommands.h"

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
    {"tool_catalog", false, toolCatalogCommand},
    // The tools.
    {"tool_set", kSession, toolSetCommand},
    {"tool_get", kSession, toolGetCommand},
    {"stroke_begin", kSession, strokeBeginCommand},
    {"stroke_drag", kSession, strokeDragCommand},
    {"stroke_end", kSession, strokeEndCommand},
    {"stroke_cancel", kSession, strokeCancelCommand},
    {"hover", kSession, hoverCommand},
    {"hover_clear", kSession, hoverClearCommand},
    {"select", kSession, selectCommand},
    {"selection_get", kSession, selectionGetCommand},
    {"selection_set", kSession, selectionSetCommand},
    {"pick_level", kSession, pickLevelCommand},
    {"set_hidden_groups", kSession, setHiddenGroupsCommand},
    {"guides_info", kSession, guidesInfoCommand},
    {"guides_edit", kSession, guidesEditCommand},
    {"maps_list", kSession, mapsListCommand},
    {"map_create", kSession, mapCreateCommand},
    {"map_remove", kSession, mapRemoveCommand},
    {"undo", kSession, undoCommand},
    {"redo", kSession, undoCommand},
    {"undo_state", kSession, undoStateCommand},
    {"display", kSession, displayCommand},
};

}  // namespace

std::span<const Command> commandTable() { return kCommands; }

}  // namespace corvelle
