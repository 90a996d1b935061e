"""Grooms in files: what is saved comes back, and a save that fails leaves the old file."""

import json
import os
import random
import resource
import shutil
import subprocess
import tempfile
import unittest

import numpy as np
from support import ABSENT, Groom, Pipes, check_bad_inputs, contents, failure

QUAD = {
    "points": [[0, 0, 0], [0.1, 0, 0], [0.1, 0.1, 0], [0, 0.1, 0]],
    "faceCounts": [4],
    "faceIndices": [0, 1, 2, 3],
    "uvs": [[0, 0], [1, 0], [1, 1], [0, 1]],
    "colorSets": {"mask": [[1, 0, 0, 1]] * 4},
    "restPoints": [[0, 0, 0.01], [0.1, 0, 0], [0.1, 0.1, 0], [0, 0.1, 0]],
}
GUIDES = {
    "points": [[x, y, z] for x in (0.02, 0.08) for y in (0.02, 0.08) for z in (0, 0.02, 0.041)],
    "counts": [3, 3, 3, 3],
}
EMPTY = {"format": "corvelle.groom", "version": 1}


def hair(groom):
    """The strands of the groom, arrays and all."""
    answer = groom.do("evaluate", mode="render", attributes="all")
    return contents({key: answer[key] for key in ("arrays", "strandCount", "errors")})


class Folder(unittest.TestCase):
    """A helper, a session with a small groom, and a folder for files."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="corvelle grooms å ")
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.helper = Pipes()
        self.addCleanup(self.helper.__exit__)
        self.groom = self.made()

    def made(self):
        groom = Groom(self.helper)
        groom.do("set_scalp", **QUAD)
        groom.do("set_guides", **GUIDES)
        groom.do("set_graph", graph=groom.result(self.helper.ask(cmd="default_graph"))["graph"])
        groom.do("set_param", node="scatter", param="density", value=20)
        return groom

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, value):
        text = value if isinstance(value, str) else json.dumps(value)
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()


class GroomTest(Folder):
    def test_a_saved_groom_comes_back_and_is_saved_the_same(self):
        before = hair(self.groom)
        self.assertGreater(before["strandCount"], 1000)
        saved = self.groom.do("save_groom", path=self.path("a.groom"))
        self.assertEqual(saved, {"path": self.path("a.groom"), "upAxis": "Y", "units": "cm"})
        other = Groom(self.helper)
        other.do("set_time", seconds=3)
        info = other.do("load_groom", path=self.path("a.groom"))
        self.assertEqual(other.do("set_time")["seconds"], 0)
        self.assertEqual(hair(other), before)
        self.assertEqual(info.pop("fileUpAxis"), "Y")
        self.assertEqual(info, other.do("groom_info"))
        self.assertEqual({**info, "source": ""}, self.groom.do("groom_info"))
        other.do("save_groom", path=self.path("b.groom"))
        self.assertEqual(self.read("a.groom"), self.read("b.groom"))
        self.assertEqual(sorted(os.listdir(self.folder)), ["a.groom", "b.groom"])

    def test_groom_info_tells_what_is_there(self):
        info = self.groom.do("groom_info")
        self.assertEqual(
            {key: info[key] for key in ("flatGuides", "hierarchyGuides", "nodes", "output", "fps")},
            {"flatGuides": 4, "hierarchyGuides": 0, "nodes": 10, "output": "output", "fps": 24},
        )
        topology = self.groom.do("get_scalp")["scalp"]["topology"]
        self.assertEqual(
            info["scalp"],
            {
                "points": 4,
                "triangles": 2,
                "polygons": 1,
                "uvs": True,
                "rest": True,
                "colorSets": ["mask"],
                "topology": topology,
            },
        )
        empty = Groom(self.helper).do("groom_info")
        self.assertEqual(
            empty,
            {
                "units": "cm",
                "upAxis": "Y",
                "fps": 24,
                "scalp": None,
                "flatGuides": 0,
                "hierarchyGuides": 0,
                "nodes": 0,
                "output": "",
                "followScalp": False,
                "source": "",
                "notes": [],
                "inputErrors": [],
                "space": {"upAxis": "Z", "metersPerUnit": 1.0, "centimetersPerUnit": 100.0},
            },
        )

    def test_a_file_with_z_up_is_the_same_groom(self):
        before = hair(self.groom)
        self.groom.do("save_groom", path=self.path("z.groom"), upAxis="Z")
        self.assertEqual(hair(self.groom), before)
        other = Groom(self.helper)
        info = other.do("load_groom", path=self.path("z.groom"))
        self.assertEqual((info["fileUpAxis"], info["upAxis"]), ("Z", "Y"))
        self.assertEqual(hair(other), before)
        self.groom.do("save_groom", path=self.path("y.groom"))
        y, z = (json.loads(self.read(name)) for name in ("y.groom", "z.groom"))
        self.assertEqual(z["upAxis"], "Z")
        points = [np.reshape(file["scalp"]["points"], (-1, 3)) for file in (y, z)]
        np.testing.assert_array_equal(points[1], points[0][:, [0, 2, 1]] * [1, -1, 1])

    def test_bad_fields_fail_and_change_nothing(self):
        folder = self.path("folder.groom")
        os.mkdir(folder)
        good = self.write("good.groom", EMPTY)
        inches = self.write("inches.groom", {**EMPTY, "units": "in"})
        check_bad_inputs(
            self,
            self.groom,
            "load_groom",
            {"path": good},
            [
                ("path", ABSENT, 'bad_request: missing "path"'),
                ("path", 5, 'bad_request: "path" must be a string'),
                ("path", "", "not_found: no groom file ''"),
                ("path", folder, "not_found: no groom file '%s'" % folder),
                ("path", good + "x", "not_found: no groom file '%sx'" % good),
                ("path", self.write("a", "{}"), "parse: not a Corvelle groom file"),
                (
                    "path",
                    self.write("b", {**EMPTY, "version": 2}),
                    "parse: groom file version 2 is newer than this Corvelle supports (1); update "
                    "Corvelle to open it",
                ),
                (
                    "path",
                    self.write("c", {**EMPTY, "graph": {"nodes": [], "output": "x"}}),
                    "graph: graph JSON has no 'output' node",
                ),
                (
                    "path",
                    self.write("d", "[" * 10**6),
                    "parse: groom file: invalid JSON: nested deeper than 512",
                ),
                ("path", inches + "\0b", "bad_request: a path holds a NUL character"),
                (
                    "path",
                    inches,
                    "unsupported: %s: its units are in; Corvelle reads grooms in centimeters "
                    "(Maya's own unit)" % inches,
                ),
            ],
        )
        none = self.path("none/a.groom")
        check_bad_inputs(
            self,
            self.groom,
            "save_groom",
            {"path": self.path("out.groom"), "upAxis": "Z"},
            [
                ("path", ABSENT, 'bad_request: missing "path"'),
                ("path", none, "io: cannot write '%s'" % none),
                ("path", none + "\0b", "bad_request: a path holds a NUL character"),
                ("path", folder, "io: cannot write '%s'" % folder),
                ("upAxis", "X", 'bad_request: upAxis is "Y" or "Z"'),
                ("upAxis", 5, 'bad_request: "upAxis" must be a string'),
            ],
        )
        self.assertFalse(os.path.exists(self.path("none")))

    def test_a_picture_beside_the_groom_is_still_found_when_it_is_saved_elsewhere(self):
        self.groom.do("set_options", mapsDir=self.folder)
        self.groom.do("map_create", name="wet", kind="texture", resolution=4)
        file = json.loads(self.groom.do("get_state")["groom"])
        file["maps"]["wet"]["texture"] = "wet.png"
        file["maps"]["far"] = {"kind": "texture", "texture": "far.png"}
        file["maps"]["none"] = {"kind": "texture", "texture": "no\0path.png"}
        os.mkdir(self.path("shots"))
        before = self.write("near.groom", file)
        after = self.path("shots/moved.groom")
        self.groom.do("load_groom", path=before)
        self.groom.do("save_groom", path=after)
        maps = json.loads(self.read("shots/moved.groom"))["maps"]
        self.assertEqual(
            {name: entry["texture"] for name, entry in maps.items()},
            {"far": "far.png", "none": "no\0path.png", "wet": "../wet.png"},
        )
        for path in (before, after):
            self.groom.do("load_groom", path=path)
            wet = self.groom.do("maps_list")["maps"][2]
            self.assertEqual((wet["name"], wet["resolution"]), ("wet", 4))
            self.assertEqual(
                [sorted(entry) for entry in self.groom.do("get_state")["textures"]],
                [["name", "stored"], ["name", "stored"], ["name", "png"]],
            )

    def test_a_save_tells_of_files_that_it_leaves_behind(self):
        for folder in ("show", "show/textures", "show/shot", "textures"):
            os.mkdir(self.path(folder))
        for name in ("show/beside.abc", "show/textures/d.png", "show/textures/skin.png", "show/both.abc"):
            self.write(name, "")
        os.mkdir(self.path("other"))
        self.write("other/both.abc", "")

        def curves(name, path):
            return {"name": name, "type": "ImportCurves", "params": {"path": path}}

        nodes = [
            curves("near", "beside.abc"),
            curves("there too", "both.abc"),
            curves("whole", self.path("show/beside.abc")),
            curves("never", "never.abc"),
            curves("long", "no/such/" + "x" * 300),
            curves("odd", "beside.abc\0"),
            {"name": "width", "type": "Width", "params": {"width": {"texture": "d.png"}}},
            {"name": "color", "type": "Width", "params": {"width": {"expression": "0.1"}}},
        ]
        inner = {"graph": {"nodes": [curves("in it", "beside.abc")], "connections": [], "output": "in it"}}
        nodes.append({"name": "box", "type": "Compound", "params": {"definition": inner}})
        file = {
            **EMPTY,
            "graph": {"nodes": nodes, "connections": [], "output": "width"},
            "maps": {"skin": {"kind": "texture", "texture": "skin.png"}},
            "searchPaths": ["textures"],
        }
        self.groom.do("load_groom", path=self.write("show/a.groom", file))
        for path in ("show/b.groom", "show/shot/../c.groom"):
            self.assertNotIn("warnings", self.groom.do("save_groom", path=self.path(path)))
        folder = self.path("other")
        texts = self.groom.do("save_groom", path=self.path("other/a.groom"))["warnings"]
        end = ", which is not found from '%s': give its full path, or copy it there" % folder
        self.assertEqual(
            sorted(texts),
            sorted(
                start + end
                for start in (
                    "node 'near': path names 'beside.abc'",
                    "node 'width': width names 'd.png'",
                    "node 'box/in it': path names 'beside.abc'",
                    "map 'skin' names 'skin.png'",
                )
            ),
        )

    def test_a_mirror_means_the_same_in_a_file_with_z_up(self):
        graph = self.groom.do("get_graph")["graph"]
        graph["nodes"].append({"name": "mirror", "type": "Mirror", "params": {"axis": "z", "reattach": False}})
        for link in graph["connections"]:
            if link["to"] == "length":
                link["to"], link["input"] = "mirror", "strands"
        graph["connections"].append({"from": "mirror", "to": "length", "input": "strands"})
        self.groom.do("set_graph", graph=graph)
        before = hair(self.groom)
        self.groom.do("save_groom", path=self.path("z.groom"), upAxis="Z")
        self.groom.do("load_groom", path=self.path("z.groom"))
        self.assertEqual(hair(self.groom), before)

    def test_what_a_file_holds_beside_the_graph_is_kept(self):
        file = {
            **EMPTY,
            "graph": {},
            "hierarchy": {"version": 99, "later": [1.5]},
            "parts": "not parts at all",
            "flow": {"pins": 7},
            "correctives": [1, 2],
            "controls": {"curl": 0.5},
            "maps": {
                "density": {"kind": "vertices", "texture": "", "values": [0.25, 1, 0], "vertices": 3},
                "skin": {"kind": "texture", "texture": "maps/skin.png"},
            },
            "scalpCache": {"file": "caches/head.abc", "object": "/head"},
            "searchPaths": ["textures"],
            "source": "another host",
        }
        info = self.groom.do("load_groom", path=self.write("a.groom", file))
        self.assertEqual(info["source"], "another host")
        self.assertEqual(info["scalpCache"]["file"], self.path("caches/head.abc"))
        self.assertIn("the scalp cache is the host's to play", info["notes"][0])
        prefixes = {text.partition(":")[0] for text in info["inputErrors"]}
        self.assertLessEqual({"guideData", "partData"}, prefixes)
        self.groom.do("save_groom", path=self.path("b.groom"))
        saved = json.loads(self.read("b.groom"))
        file["scalpCache"]["file"] = self.path("caches/head.abc")
        self.assertEqual({key: saved[key] for key in file}, file)

    def test_hair_grows_on_the_surface_that_renders_draw(self):
        self.groom.do("save_groom", path=self.path("a.groom"))
        file = json.loads(self.read("a.groom"))
        file["scalp"].update(subdivision=2, subdivisionFrom="the render's own")
        self.groom.do("load_groom", path=self.write("b.groom", file))
        self.groom.do("set_scalp", **QUAD)
        self.assertEqual(hair(self.groom)["errors"], [])
        self.assertEqual(
            self.groom.do("node_status")["notes"]["scalp"],
            "Catmull-Clark x2: 32 triangles from 1 faces (match render: the render's own)",
        )
        self.groom.do("save_groom", path=self.path("c.groom"))
        self.assertEqual(json.loads(self.read("c.groom"))["scalp"], file["scalp"])

    def test_a_new_groom_starts_over_on_the_scalp(self):
        self.groom.do("set_options", followScalp=True)
        self.groom.do("set_time", fps=30)
        answer = self.groom.do("new_groom")
        info = answer["groom"]
        self.assertEqual(answer["guides"], "hierarchy")
        self.assertEqual((info["fps"], info["followScalp"], info["flatGuides"]), (30, True, 0))
        self.assertEqual((info["nodes"], info["output"], info["scalp"]["points"]), (10, "output", 4))
        default = self.groom.result(self.helper.ask(cmd="default_graph"))["graph"]
        self.assertNotEqual(self.groom.do("get_graph")["graph"], default, "made for 10 cm, not 20")
        bald = Groom(self.helper)
        self.assertFalse(bald.do("new_groom", followScalp=False)["groom"]["followScalp"])
        self.assertEqual(bald.do("get_graph")["graph"], default)
        before = bald.do("groom_info")
        self.assertEqual(
            failure(bald.ask("new_groom", followScalp=1)),
            'bad_request: "followScalp" must be true or false',
        )
        self.assertEqual(bald.do("groom_info"), before)

    def test_broken_files_leave_the_session_alone(self):
        self.groom.do("save_groom", path=self.path("good.groom"))
        good = self.read("good.groom").decode()
        before, passed = self.groom.state(), 0
        for seed in range(300):
            draw = random.Random(seed)
            text = list(good)
            for _ in range(draw.randrange(1, 4)):
                at = draw.randrange(len(text))
                text[at : at + draw.randrange(3)] = draw.choice(
                    ['"', "[", "]", "{", "}", ",", "1e39", "-1", "null", "é", "\0", good[:40], ""]
                )
            other = Groom(self.helper)
            reply = other.ask("load_groom", path=self.write("bad.groom", "".join(text)))
            passed += reply["ok"]
            if not reply["ok"]:
                self.assertIn(reply["error"]["code"], ("parse", "graph"), reply)
                self.assertIsNone(other.do("groom_info")["scalp"])
            other.do("close_session")
        self.assertLess(passed, 200)
        self.assertEqual(self.groom.state(), before)


class SaveTest(Folder):
    """Saves that are cut short."""

    def setUp(self):
        super().setUp()
        # Two grooms of some size, alike but for one name.
        points = np.random.default_rng(1).normal(size=(60_000, 3)).round(3)
        collider = {"points": points.ravel().tolist(), "triangles": []}
        for name in "ab":
            self.write(name, {**EMPTY, "source": name, "colliders": {"body": collider}})
            self.groom.do("load_groom", path=self.path(name))
            self.groom.do("save_groom", path=self.path(name))
        self.whole = {name: self.read(name) for name in "ab"}
        self.assertNotEqual(self.whole["a"], self.whole["b"])

    def strays(self):
        return sorted(set(os.listdir(self.folder)) - {"a", "b", "x.groom"})

    def test_a_killed_save_leaves_the_old_file_or_the_new_one(self):
        path = self.path("x.groom")
        shutil.copy(self.path("a"), path)
        draw = random.Random(7)
        old = left = new = 0
        for kill in range(200):
            name = "ba"[kill % 2]
            with Pipes() as helper:
                groom = Groom(helper)
                groom.do("load_groom", path=self.path(name))
                before = self.read("x.groom")
                helper.send(
                    json.dumps({"cmd": "save_groom", "session": 1, "path": path}).encode() + b"\n"
                )
                # A busy wait: sleeping would miss the short steps.
                for _ in range(int(10 ** draw.uniform(1, 4.5))):
                    pass
                helper.process.kill()
                helper.process.wait()
            now = self.read("x.groom")
            self.assertIn(now, (before, self.whole[name]), "kill %d" % kill)
            old += now == before != self.whole[name]
            new += now == self.whole[name] != before
            left += bool(self.strays())
        self.assertGreater(old, 20)
        self.groom.do("save_groom", path=path)
        self.assertEqual(self.strays(), [])

    def check_full(self, save):
        """`save` cannot: the old file stays, and nothing beside it."""
        path = self.path("x.groom")
        shutil.copy(self.path("a"), path)
        self.assertEqual(failure(save(path)), "io: cannot write '%s'" % path)
        self.assertEqual(self.read("x.groom"), self.whole["a"])
        self.assertEqual(self.strays(), [])

    def test_a_file_that_may_not_grow_stays_as_it_was(self):
        limit = len(self.whole["a"]) // 2
        with Pipes(
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        ) as helper:
            groom = Groom(helper)
            groom.do("load_groom", path=self.path("b"))
            self.check_full(lambda path: groom.ask("save_groom", path=path))
            self.assertEqual(groom.do("groom_info")["source"], "b")

    def test_a_full_disk_keeps_the_old_file(self):
        folder = os.path.join(self.folder, "disk")
        os.mkdir(folder)
        size = len(self.whole["a"]) * 3 // 2
        mount = ["mount", "-t", "tmpfs", "-o", "size=%d" % size, "corvelle", folder]
        if subprocess.run(mount, capture_output=True).returncode != 0:
            self.skipTest("cannot mount a tmpfs here")
        self.addCleanup(subprocess.run, ["umount", folder], check=True)
        path = os.path.join(folder, "x.groom")
        shutil.copy(self.path("a"), path)
        self.groom.do("load_groom", path=self.path("b"))
        reply = self.groom.ask("save_groom", path=path)
        self.assertEqual(failure(reply), "io: cannot write '%s'" % path)
        self.assertEqual(os.listdir(folder), ["x.groom"])
        with open(path, "rb") as file:
            self.assertEqual(file.read(), self.whole["a"])


if __name__ == "__main__":
    unittest.main()
