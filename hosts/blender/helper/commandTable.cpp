#include "hosts/blender/helper/command.h"
#include "hosts/blender/helper/processCommands.h"

namespace corvelle {
namespace {

constexpr bool kSession = true;  // the row's command works on the session that the request names

constexpr Command kCommands[] = {
    {"hello", false, helloCommand},
    {"ping", false, pingCommand},
    {"shutdown", false, shutdownCommand},
    {"new_session"},
    {"close_session", kSession},
    {"set_options", kSession},
    {"set_space", kSession},
    {"load_groom", kSession},
    {"save_groom", kSession},
    {"groom_info", kSession},
    {"set_scalp", kSession},
    {"update_scalp", kSession},
    {"get_scalp", kSession},
    {"get_guides", kSession},
    {"set_guides", kSession},
    {"set_time", kSession},
    {"evaluate", kSession},
    {"stats", kSession},
    {"node_status", kSession},
    {"operator_specs"},
    {"default_graph"},
    {"get_graph", kSession},
    {"set_graph", kSession},
    {"list_nodes", kSession},
    {"node_spec", kSession},
    {"get_param", kSession},
    {"set_param", kSession},
    {"edit_graph", kSession},
    {"list_presets"},
    {"apply_preset", kSession},
    {"insert_preset", kSession},
    {"export_open", kSession},
    {"export_frame", kSession},
    {"export_close", kSession},
    {"export", kSession},
    {"new_groom", kSession},
    {"get_state", kSession},
    {"set_state", kSession},
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
