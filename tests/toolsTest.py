"""Sculpting over the wire: tools, strokes, undo, selection, guides, maps and the viewport."""

import json
import os
import tempfile
import unittest

import numpy as np
from demo import head as demo_head
from sculpting import BAD, COUNTS, HEAD, HEIGHT, LINE, VIEW, WIDTH, Sculpting, plain
from support import Groom, array_of, failure


class ToolsTest(Sculpting):
    def test_the_catalogue(self):
        catalog = self.helper.ask(cmd="tool_catalog")["result"]
        self.assertEqual(len(catalog["tools"]), 23)
        self.assertEqual(catalog["categories"], ["Create", "Shape", "Trim", "Paint", "Guides"])
        known = {setting["id"] for setting in catalog["settings"]}
        for order, tool in enumerate(catalog["tools"]):
            self.assertEqual(tool["order"], order)
            self.assertEqual(tool["icon"], tool["id"])
            self.assertLessEqual(set(tool["settings"]), known)

    def test_settings_are_taken_all_or_none(self):
        state = self.groom.do("tool_get")
        self.assertEqual(state["tool"], "comb")
        self.assertEqual(state["ringColor"], state["ringColor"])
        answer = self.tool("comb", falloff=0.25, radius=0.5, segments=0, paintResolution=3, targets="guides, flow")
        settings = answer["settings"]
        self.assertEqual((settings["hardness"], settings["falloff"]), (0.75, 0.25))
        self.assertEqual((settings["radius"], settings["segments"], settings["paintResolution"]), (1, 1, 4))
        before = self.groom.do("tool_get")
        for settings, expected in [
            ({"radius": 9, "nonsense": 1}, "bad_request: no tool setting 'nonsense'"),
            ({"collide": 1}, "bad_request: setting collide is true or false"),
            ({"segments": 1.5}, "bad_request: setting segments is a whole number"),
            ({"radius": "9"}, "bad_request: setting radius is a number"),
            ({"group": 1}, "bad_request: setting group is a string"),
            ({"paintKind": "walls"}, "bad_request: paintKind is guides, vertices or texture"),
            ({"paintColor": [1, 2]}, "bad_request: paintColor is [r, g, b] or [r, g, b, a]"),
            ({"symmetry": "w"}, "bad_request: -symmetry takes x, y, z, topology or none"),
            ({"targets": "all"}, "bad_request: -targets takes guides, parts, flow (comma separated) or none"),
            ({"paintChannels": ""}, "bad_request: name at least one channel of rgba"),
        ]:
            self.assertEqual(failure(self.groom.ask("tool_set", tool="cut", settings=settings)), expected)
            self.assertEqual(self.groom.do("tool_get"), before)
        self.assertEqual(failure(self.groom.ask("tool_set", tool="saw")), "not_found: no tool 'saw'")
        self.assertEqual(failure(self.groom.ask("selection_set", softSelectRadius=1e39)),
                         'bad_request: "softSelectRadius" must be finite')
        self.assertEqual(failure(self.groom.ask("tool_set", settings=[])), "bad_request: settings is an object")

    def test_views_and_points_say_what_is_wrong(self):
        good = {"view": VIEW, "x": 1, "y": 1}
        flat = [0.0] * 16
        identity = np.eye(4).reshape(16).tolist()
        about = "view is an object: viewMatrix, projectionMatrix (or perspectiveMatrix), width, height"
        shape = " is a 4x4 matrix (4 rows of 4, or 16 numbers rows first)"
        size = {"width": 4, "height": 4}
        bad = [
            (5, about),
            ({}, "view.viewMatrix" + shape),
            ({"viewMatrix": identity}, "view.projectionMatrix" + shape),
            ({"perspectiveMatrix": [1] * 15}, "view.perspectiveMatrix" + shape),
            ({"perspectiveMatrix": ["a"] * 16}, "view.perspectiveMatrix holds something that is not a number"),
            ({"perspectiveMatrix": identity}, "view.width and view.height are the region's size in pixels"),
            ({"perspectiveMatrix": identity, **size, "objectMatrix": 3}, "view.objectMatrix" + shape),
            ({"perspectiveMatrix": identity, **size, "target": [1, 2]}, "view.target is a point [x, y, z]"),
            ({"perspectiveMatrix": flat, **size}, "the view's matrix cannot be inverted: no camera to brush from"),
            ({"viewMatrix": flat, "projectionMatrix": flat, **size},
             "the view's matrix cannot be inverted: no camera to brush from"),
        ]
        self.check([("stroke_begin", {**good, "view": view}, "bad_request: " + text) for view, text in bad])
        self.check(
            [
                ("stroke_begin", {"x": 1, "y": 1}, 'state: no view: give "view" (the region\'s matrices and size)'),
                ("stroke_begin", {"view": VIEW, "x": 1}, 'bad_request: missing "y"'),
                ("stroke_drag", {"points": []}, "state: no stroke: stroke_begin first"),
                ("stroke_end", {}, "state: no stroke: stroke_begin first"),
            ]
        )
        self.groom.do("tool_set", tool="select")
        text = "state: the Select tool picks guides (select), it does not stroke"
        self.check([("stroke_begin", good, text)])
        self.tool("comb")
        bare = Groom(self.helper)
        none = "state: the session has no scalp: set_scalp first"
        self.assertEqual(failure(bare.ask("stroke_begin", **good)), none)
        self.assertEqual(failure(bare.ask("hover", **good)), none)
        self.assertEqual(failure(bare.ask("select", view=VIEW, lasso=[[1, 1]])), none)
        self.groom.do("stroke_begin", view=VIEW, x=300, y=300)
        for points, text in [
            (5, "points is a list of [x, y] or [x, y, pressure]"),
            ([[1]], "a point is [x, y] or [x, y, pressure]"),
            ([[1, 2, 3, 4]], "a point is [x, y] or [x, y, pressure]"),
            ([[1, "2"]], "a point holds numbers"),
        ]:
            self.assertEqual(failure(self.groom.ask("stroke_drag", points=points)), "bad_request: " + text)
        answer = self.groom.do("stroke_drag", points=[])
        self.assertEqual((answer["drag"], answer["changed"], answer["stroking"]), (False, False, True))
        self.assertTrue(self.groom.do("stroke_cancel")["cancelled"])
        self.assertFalse(self.groom.do("stroke_cancel")["cancelled"])

    def test_what_the_settings_name_must_be_there(self):
        self.groom.do("guides_edit", op="add_group", name="top")
        self.groom.do("guides_edit", op="add_group", name="below", parent="top")
        for tool, settings, expected in [
            ("place", {"group": "nobody"}, "not_found: no group named 'nobody'"),
            ("draw", {"group": "below"}, "state: the group 'below' has no parents to hang a guide on"),
            ("paint", {"paintKind": "vertices", "attribute": "x"}, "not_found: this groom has no vertex map named x"),
            ("paint", {"paintKind": "texture", "paintTexture": "x"}, "not_found: this groom has no texture map named x"),
        ]:
            self.tool(tool, **settings)
            self.check([("stroke_begin", {"view": VIEW, "x": 320, "y": 300}, expected)])
            self.assertFalse(self.groom.do("stroke_cancel")["cancelled"])

    def test_what_fails_leaves_a_stroke_going(self):
        self.tool("comb", radius=80)
        self.groom.do("stroke_begin", view=VIEW, x=LINE[0][0], y=LINE[0][1])
        self.groom.do("stroke_drag", points=LINE[1:3])
        for cmd, fields in BAD:
            if fields.get("name") != "v":
                self.assertFalse(self.groom.ask(cmd, **fields)["ok"], (cmd, fields))
        self.assertTrue(self.groom.do("stroke_drag", points=LINE[3:])["changed"])
        self.groom.do("stroke_end")
        disturbed = self.document()
        self.groom = self.new_groom()
        self.tool("comb", radius=80)
        self.stroke()
        self.assertEqual(self.document(), disturbed)

    def test_a_stroke_too_weak_for_a_byte_is_no_step(self):
        self.groom.do("map_create", name="t", kind="texture", resolution=64, value=0)
        self.tool("paint", paintKind="texture", paintTexture="t", radius=40, strength=0.0001)
        state, before = self.groom.do("undo_state"), self.document()
        answer = self.stroke(LINE[:2])
        self.assertEqual((answer["committed"], answer["stroke"], answer["undo"]), (False, [], state))
        self.assertEqual(self.document(), before)

    def test_a_view_is_read_in_the_space_of_the_host(self):
        answer = self.groom.do("stroke_begin", view=VIEW, x=300, y=300)
        view = answer["view"]
        self.assertFalse(view["orthographic"])
        self.assertEqual((view["width"], view["height"]), (WIDTH, HEIGHT))
        look = np.array([-0.25, 0.7, -0.33])
        look /= np.linalg.norm(look)
        np.testing.assert_allclose(view["viewDirection"], [look[0], look[2], -look[1]], atol=1e-6)
        self.groom.do("stroke_cancel")

    def test_each_tool_strokes_and_undo_takes_it_back_to_the_byte(self):
        touched = {}
        for tool in self.helper.ask(cmd="tool_catalog")["result"]["tools"]:
            name = tool["id"]
            if name == "select":
                continue
            with self.subTest(tool=name):
                self.groom = self.new_groom()
                settings = {"radius": 60}
                if name == "paint":
                    self.groom.do("map_create", name="m", kind="vertices", value=0)
                    settings.update(paintKind="vertices", attribute="m")
                self.tool(name, **settings)
                before = self.document()
                depth = self.groom.do("undo_state")["undoDepth"]
                self.groom.do("stroke_begin", view=VIEW, x=LINE[0][0], y=LINE[0][1])
                self.groom.do("stroke_drag", points=LINE[1:])
                evaluated = self.groom.do("evaluate")
                self.assertEqual(evaluated["errors"], [])
                self.groom.do("stroke_cancel")
                self.assertEqual(self.document(), before, "cancelled")
                # A map begins white: painting it white would change nothing.
                answer = self.stroke(ctrl=name in ("width", "density"))
                self.assertTrue(answer["committed"], answer)
                self.assertEqual(answer["undo"]["undoLabel"], tool["label"].lower())
                self.assertEqual(answer["undo"]["undoDepth"], depth + 1)
                touched[name] = answer["stroke"]
                after = self.document()
                self.assertNotEqual(after, before)
                for _ in range(2):
                    self.assertTrue(self.groom.do("undo")["done"])
                    self.assertEqual(self.document(), before)
                    self.assertTrue(self.groom.do("redo")["done"])
                    self.assertEqual(self.document(), after)
        self.assertEqual(touched["comb"], ["guideData"])
        self.assertEqual(touched["part"], ["partData"])
        self.assertEqual(touched["flow"], ["flowData"])
        self.assertEqual(touched["width"], ["scalpMaps", "graph"])

    def test_shift_picks_and_smooths(self):
        self.tool("comb", radius=60)
        places = ([x, y] for y in range(240, 360, 6) for x in range(220, 420, 6))
        guides = (p for p in places if (self.groom.do("hover", view=VIEW, x=p[0], y=p[1])["over"] or {}).get("kind") == "guide")
        answer = self.stroke([next(guides)], shift=True)
        self.assertEqual((answer["committed"], answer["shift_click"]), (False, "pick"))
        self.assertEqual(answer["group"], "guides")
        answer = self.stroke(shift=True)
        self.assertEqual((answer["shift_click"], answer["undo"]["undoLabel"]), ("none", "smooth"))

    def test_others_commit_or_end_a_stroke(self):
        self.tool("comb", radius=80)
        for cmd, fields in [("undo", {}), ("guides_edit", {"op": "lock", "ids": [1]}), ("stroke_begin", {"x": 1, "y": 1})]:
            self.groom.do("stroke_begin", view=VIEW, x=LINE[0][0], y=LINE[0][1])
            self.groom.do("stroke_drag", points=LINE[1:])
            depth = self.groom.do("undo_state")["undoDepth"]
            self.groom.do(cmd, **fields)
            state = self.groom.do("undo_state")
            self.assertGreaterEqual(state["undoDepth"] + state["redoDepth"], depth + 1, cmd)
            self.groom.do("stroke_cancel")
        self.groom.do("stroke_begin", view=VIEW, x=LINE[0][0], y=LINE[0][1])
        mesh = demo_head.make_head(12, 20)
        self.groom.do("set_scalp", points=plain(mesh.points), faceCounts=mesh.faceCounts.tolist(),
                      faceIndices=mesh.faceIndices.tolist())
        self.assertEqual(failure(self.groom.ask("stroke_end")), "state: no stroke: stroke_begin first")
        self.assertFalse(self.groom.do("undo")["done"])

    def test_hover_tells_what_is_under_the_pointer_and_moves_nothing(self):
        before = self.document()
        answer = self.groom.do("hover", view=VIEW, x=320, y=280)
        overlay = answer["overlay"]
        self.assertTrue(overlay["valid"])
        positions = array_of(overlay["arrays"]["positions"])
        self.assertEqual(len(positions), overlay["vertexCount"])
        again = self.groom.do("hover", view=VIEW, x=320, y=280)["overlay"]
        self.assertEqual(again["version"], overlay["version"])
        kinds = set()
        for x in range(200, 440, 12):
            over = self.groom.do("hover", x=x, y=280)["over"]
            kinds.add(over and over["kind"])
        self.assertIn("guide", kinds)
        cleared = self.groom.do("hover_clear")
        self.assertEqual(cleared["overlay"]["vertexCount"], 0)
        self.assertNotIn("arrays", cleared["overlay"])
        self.assertEqual(self.document(), before)


class SelectionTest(Sculpting):
    def selection(self):
        return self.groom.do("selection_get")["selection"]

    def test_lasso_box_click_and_modes(self):
        self.check(
            [
                ("select", {"view": VIEW, "lasso": []}, "bad_request: lasso holds a point (a click), two (a box) or more"),
                ("select", {"view": VIEW, "lasso": [[1, 1]], "mode": "Replace"},
                 "bad_request: a selection mode is replace, add, toggle or deselect, not Replace"),
                ("selection_set", {"ids": 4}, "bad_request: ids is a list of guide IDs"),
                ("selection_set", {"ids": [0]}, "bad_request: a guide ID is a positive integer"),
                ("selection_set", {"group": "nobody"}, "not_found: no group named 'nobody'"),
                ("set_hidden_groups", {"groups": "guides"}, "bad_request: groups is a list of group names"),
                ("set_hidden_groups", {}, "bad_request: groups is a list of group names"),
            ]
        )
        everything = [[-9, -9], [WIDTH + 9, HEIGHT + 9]]
        answer = self.groom.do("select", view=VIEW, lasso=everything)
        visible = answer["picked"]
        self.assertGreater(visible, 5)
        self.assertEqual(answer["selection"]["count"], visible)
        self.assertEqual(answer["froze"], len(COUNTS) - visible)
        ids = answer["selection"]["ids"]
        self.assertEqual(self.groom.do("select", lasso=everything, mode="toggle")["selection"]["ids"], [])
        self.groom.do("selection_set", ids=ids[:2])
        self.assertEqual(self.groom.do("selection_set", ids=ids[1:3], mode="add")["selection"]["ids"], ids[:3])
        self.assertEqual(self.groom.do("selection_set", ids=ids[:1], mode="deselect")["selection"]["ids"], ids[1:3])
        answer = self.groom.do("select", lasso=[[1, 1]])
        self.assertEqual((answer["picked"], answer["froze"], answer["selection"]["ids"]), (0, 0, []))
        self.groom.do("set_hidden_groups", groups=["guides"])
        self.assertEqual(self.groom.do("select", lasso=everything)["picked"], 0)

    def test_frozen_guides_stay_and_solo_is_a_step(self):
        answer = self.groom.do("select", view=VIEW, lasso=[[200, 100], [330, 470]])
        picked = set(answer["selection"]["ids"])
        before = self.groom.do("get_guides", source="hierarchy")
        points = array_of(before["arrays"]["points"])
        ids = array_of(before["arrays"]["ids"])
        self.tool("comb", radius=300)
        self.assertTrue(self.stroke()["committed"])
        moved = array_of(self.groom.do("get_guides", source="hierarchy")["arrays"]["points"])
        changed = {int(i) for i, a, b in zip(ids, points.reshape(len(ids), -1), moved.reshape(len(ids), -1)) if (a != b).any()}
        self.assertTrue(changed)
        self.assertLessEqual(changed, picked)
        answer = self.groom.do("select", lasso=[[200, 100], [330, 470]], solo=True)
        self.assertEqual(self.groom.do("undo_state")["undoLabel"], "solo selection")
        shown = [i for i in self.groom.do("display")["items"] if i["name"] == "guides"][0]["vertexCount"]
        self.groom.do("undo")
        full = [i for i in self.groom.do("display")["items"] if i["name"] == "guides"][0]["vertexCount"]
        self.assertLess(shown, full)

    def test_levels(self):
        answer = self.groom.do("pick_level", level=0, group="guides")
        self.assertEqual((answer["level"], answer["group"]), (0, "guides"))
        self.assertEqual(self.groom.do("pick_level", view=VIEW, pick=[1, 1])["group"], "guides")
        self.assertEqual(failure(self.groom.ask("pick_level", group="x")), "not_found: no group named 'x'")


class GuidesEditTest(Sculpting):
    OPS = ("op is add_group, remove_group, rename_group, generate_children, delete_guides, lock, unlock, "
           "set_attribute, freeze, unfreeze, unfreeze_all, remove_layer, mirror_all, mirror_group, promote_group, "
           "demote_group or reparent")

    def test_what_fails_changes_nothing(self):
        def edit(op, text, **fields):
            return ("guides_edit", {"op": op, **fields}, text)

        self.check(
            [
                edit("shave", "bad_request: " + self.OPS),
                edit("lock", "state: lock: no guides given and none selected"),
                edit("lock", "bad_request: ids is a list of guide IDs", ids=3),
                edit("lock", "bad_request: a guide ID is a positive integer", ids=[-1]),
                edit("add_group", "bad_request: a group named 'guides' is there already", name="guides"),
                edit("add_group", "bad_request: parent is a guide ID", name="n", parent=1.5),
                edit("add_group", "not_found: no group named 'x'", name="n", parent="x"),
                edit("remove_group", "not_found: no group named 'x'", group="x"),
                edit("generate_children", "not_found: no group named 'x'", group="x"),
                edit("generate_children", "state: none of the selected guides is in that group", group="guides",
                     selected=True),
                edit("remove_layer", "not_found: no guide carries the layer 'x'", name="x"),
                edit("mirror_all", "bad_request: axis is x, y or z", axis="w"),
                edit("mirror_all", "bad_request: center is a point [x, y, z]", center=[1]),
            ]
        )
        self.groom.do("guides_edit", op="add_group", name="empty")
        self.check([edit("generate_children", "state: the group has no guides to be parents", group="empty")])
        bare = self.new_groom(guides=False)
        self.assertEqual(failure(bare.ask("guides_edit", op="generate_children", group="x")),
                         "state: the groom has no guides yet")
        self.assertEqual(failure(bare.ask("guides_edit", op="freeze", ids=[1])),
                         "state: no primary guides to carry the layer: place some first")

    def test_each_edit_is_a_step_with_its_label(self):
        steps = [
            (dict(op="add_group", name="more"), "add group more"),
            (dict(op="rename_group", group="more", name="rest"), "rename group more"),
            (dict(op="generate_children", group="guides", count=3), "generate children"),
            (dict(op="promote_group", group="guides_children"), "promote group guides_children"),
            (dict(op="demote_group", group="guides_children", parent="guides"), "demote group guides_children"),
            (dict(op="lock", ids=[1, 2]), None),
            (dict(op="set_attribute", ids=[1], attribute="clump", value=2.5), "set clump"),
            (dict(op="freeze", ids=[1, 2, 3]), "freeze 3 guides"),
            (dict(op="unfreeze", ids=[1]), "unfreeze 1 guides"),
            (dict(op="unfreeze_all"), "unfreeze all"),
            (dict(op="remove_layer", name="clump"), "remove layer clump"),
            (dict(op="mirror_all"), "mirror all"),
            (dict(op="mirror_group", group="guides", fromPositive=False), "mirror group"),
            (dict(op="delete_guides", ids=[1]), None),
            (dict(op="remove_group", group="rest"), "remove group rest"),
        ]
        documents = [self.document()]
        kept = []
        for fields, label in steps:
            with self.subTest(**fields):
                answer = self.groom.do("guides_edit", **fields)
                self.assertEqual("added" in answer, fields["op"] in ("generate_children", "mirror_all", "mirror_group"))
                now = self.document()
                if now == documents[-1]:
                    continue
                if label:
                    self.assertEqual(self.groom.do("undo_state")["undoLabel"], label)
                documents.append(now)
                kept.append(fields)
        self.assertGreater(len(kept), 10)
        for document in reversed(documents[:-1]):
            self.assertTrue(self.groom.do("undo")["done"])
            self.assertEqual(self.document(), document)
        for document in documents[1:]:
            self.groom.do("redo")
            self.assertEqual(self.document(), document)

    def test_info(self):
        self.groom.do("guides_edit", op="generate_children", group="guides", count=2)
        info = self.groom.do("guides_info")
        self.assertEqual([(g["name"], g["parent"], g["level"], g["guides"]) for g in info["groups"]],
                         [("guides", "", 0, len(COUNTS)), ("guides_children", "guides", 1, 2 * len(COUNTS))])
        self.assertEqual((info["levels"], info["guides"]), (2, 3 * len(COUNTS)))


class MapsTest(Sculpting):
    def test_what_fails_changes_nothing(self):
        kind = {"name": "m", "kind": "vertices"}
        self.groom.do("map_create", name="taken", kind="guides")
        path = "bad_request: a map's name cannot be a path"
        self.check(
            [
                ("map_create", {**kind, "kind": "wall"}, "bad_request: a map's kind is vertices, texture or guides, not 'wall'"),
                ("map_create", {**kind, "name": "taken"}, "bad_request: the groom already has a map named 'taken'"),
                ("map_create", {**kind, "fill": [1]}, "bad_request: fill is [r, g, b] or [r, g, b, a]"),
                ("map_create", {**kind, "kind": "guides", "color": True},
                 "bad_request: a guide layer is gray: make a color map on the scalp's vertices or as a texture"),
                ("map_remove", {"name": "x"}, "not_found: no map named 'x'"),
                *[("map_create", {**kind, "name": name}, path) for name in ("", "../up", "a/b", ".hidden", "x" * 101)],
            ]
        )
        bare = Groom(self.helper)
        self.assertEqual(failure(bare.ask("map_create", **kind)), "state: no scalp to paint on: set_scalp first")
        bare.do("set_scalp", points=plain(HEAD.points), faceCounts=HEAD.faceCounts.tolist(),
                faceIndices=HEAD.faceIndices.tolist())
        self.assertEqual(failure(bare.ask("map_create", name="t", kind="texture")),
                         "state: the scalp has no UVs to paint a texture map on")

    def test_paint_says_why_a_file_does_not_serve(self):
        self.groom.do("map_create", name="m", kind="texture", resolution=8)
        state = json.loads(self.groom.do("get_state")["groom"])
        with tempfile.TemporaryDirectory() as folder:
            text, broken = os.path.join(folder, "a.txt"), os.path.join(folder, "a.png")
            for path, content in ((text, b"hello"), (broken, b"\x89PNG\r\n\x1a\n" + bytes(60))):
                with open(path, "wb") as file:
                    file.write(content)
            missing = os.path.join(folder, "b.png")
            for path, expected in [
                (text, text + " is not a PNG, and painting writes PNG"),
                (os.path.join(folder, "a.<UDIM>.png"), "a scalp map is one image over UVs 0-1"),
                (missing, "cannot read '%s': file not found" % missing),
                (broken, "cannot read '%s': " % broken),
            ]:
                state["maps"]["m"]["texture"] = path
                self.groom.do("set_state", groom=json.dumps(state))
                self.tool("paint", paintKind="texture", paintTexture="m")
                answer = failure(self.groom.ask("stroke_begin", view=VIEW, x=320, y=300))
                self.assertTrue(answer.startswith("bad_request: " + expected), answer)
                self.assertEqual([m["resolution"] for m in self.groom.do("maps_list")["maps"]], [0])
                self.assertFalse(self.groom.do("stroke_cancel")["cancelled"])

    def test_maps_come_and_go_with_undo(self):
        for fields in ({"kind": "vertices"}, {"kind": "texture", "resolution": 64, "color": True}, {"kind": "guides"}):
            with self.subTest(**fields):
                before = self.document()
                made = self.groom.do("map_create", name="m", **fields)
                self.assertEqual(self.groom.do("maps_list")["maps"], [made])
                self.assertEqual(self.groom.do("undo_state")["undoLabel"], "create map m")
                if fields["kind"] == "texture":
                    self.assertEqual((made["texture"], made["resolution"], made["channels"]), ("m.png", 64, 4))
                    with open(made["file"], "rb") as png:
                        self.assertEqual(png.read(8), b"\x89PNG\r\n\x1a\n")
                after = self.document()
                self.groom.do("undo")
                self.assertEqual(self.document()["texts"], before["texts"])
                self.assertEqual(self.groom.do("maps_list")["maps"], [])
                self.groom.do("redo")
                self.assertEqual(self.document(), after)
                self.assertEqual(self.groom.do("map_remove", name="m")["maps"], [])
                self.groom.do("undo")
                self.assertEqual(self.document(), after)
                self.groom.do("map_remove", name="m")


class DisplayTest(Sculpting):
    def test_settings_and_colours_say_what_is_wrong(self):
        def set_to(settings, text):
            return ("display", {"settings": settings}, "bad_request: " + text)

        self.check(
            [
                set_to({"shine": 1}, "no display setting 'shine'"),
                set_to([], "settings is an object"),
                set_to({"guideColorMode": "x"}, "guideColorMode is level, layer or group"),
                set_to({"guidePoints": 3}, "guidePoints is off, ends or all"),
                set_to({"theme": 1}, "theme is an object"),
                set_to({"theme": {"levels": 1}}, "theme.levels is a list of [r, g, b]"),
                set_to({"theme": {"shine": [1, 1, 1]}}, "no theme color 'shine'"),
                set_to({"theme": {"frozen": [1, 1]}}, "frozen is [r, g, b]"),
                ("display", {"strandColors": {"mode": "x"}},
                 "bad_request: colorMode is solid, colorSet, attribute, random, clump or density"),
                ("display", {"strandColors": {"mode": 6}}, "bad_request: colorMode is 0-5"),
            ]
        )

    def test_only_what_changed_is_sent(self):
        first = self.groom.do("display", settings={"tubes": True})
        names = [item["name"] for item in first["items"]]
        have = {item["name"]: item["version"] for item in first["items"]}
        have["dots"] = first["dots"]["version"]
        for item in first["items"]:
            self.assertEqual(len(array_of(item["arrays"]["positions"])), item["vertexCount"], item["name"])
        generation = first["generation"]
        second = self.groom.do("display", have=have, generation=generation)
        self.assertFalse(any("arrays" in item or item["changed"] for item in second["items"]))
        self.assertFalse(second["dots"]["changed"])
        other = self.groom.do("display", have=have, generation=generation + 1)
        self.assertTrue(all("arrays" in item for item in other["items"]))
        self.groom.do("selection_set", ids=[1])
        third = self.groom.do("display", have=have, generation=generation)
        changed = [item["name"] for item in third["items"] if item["changed"]]
        self.assertIn("selection", changed)
        self.assertNotIn("parts", changed)
        self.assertIn("guides", names)
        self.groom.do("new_groom")
        self.assertGreater(self.groom.do("display")["generation"], generation)

    def test_strand_colours_in_every_mode(self):
        hair = self.groom.do("evaluate")
        strands, points = hair["strandCount"], hair["pointCount"]
        self.assertGreater(strands, 100)
        for number, mode in enumerate(["solid", "colorSet", "attribute", "random", "clump", "density"]):
            fields = {"mode": mode, "name": "scalp", "channel": "nothing", "clumpId": "nothing"}
            if mode in ("attribute", "clump"):
                self.assertEqual(failure(self.groom.ask("display", strandColors=fields)),
                                 "not_found: the strands have no attribute 'nothing'")
                continue
            for per_point in (False, True):
                answer = self.groom.do("display", strandColors={**fields, "mode": number, "perPoint": per_point})["strandColors"]
                self.assertEqual(answer["mode"], mode)
                self.assertEqual(answer["serial"], hair["serial"])
                self.assertEqual(answer["colors"]["shape"], [points if per_point else strands, 3])
        self.groom.do("map_create", name="m", kind="guides", value=1)
        answer = self.groom.do("display", strandColors={"mode": "attribute", "source": "map", "name": "m"})
        np.testing.assert_allclose(array_of(answer["strandColors"]["colors"])[0], [1, 0, 0], atol=1e-5)


if __name__ == "__main__":
    unittest.main()
