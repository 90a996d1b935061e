"""The state of a groom as one JSON value."""

import base64
import json
import os

from groomTest import EMPTY, GUIDES, QUAD, Folder, hair
from support import ABSENT, Groom, check_bad_inputs, failure

# A picture of one white pixel.
PNG = base64.b64decode(
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAAAAAA6fptVAAAACklEQVR4nGP4DwABAQEANl9ngAAAAABJRU5ErkJggg=="
)


class StateTest(Folder):
    def setUp(self):
        super().setUp()
        self.maps = self.path("maps")
        self.groom.do("set_options", mapsDir=self.maps)

    def open_with_maps(self):
        """The groom again, now with painted maps: one in the maps folder, one nowhere."""
        self.groom.do("save_groom", path=self.path("a.groom"))
        file = json.loads(self.read("a.groom"))
        values = [0.25, 1, 0.1, -0.0]
        file["maps"] = {
            "density": {"kind": "vertices", "texture": "", "values": values, "vertices": 4},
            "skin": {"kind": "texture", "texture": "maps/skin.png"},
            "gone": {"kind": "texture", "texture": "/nowhere/gone.png"},
            "layer": {"kind": "guides", "texture": "", "layer": "mask"},
        }
        os.makedirs(self.maps, exist_ok=True)
        with open(os.path.join(self.maps, "skin.png"), "wb") as png:
            png.write(PNG)
        self.groom.do("load_groom", path=self.write("a.groom", file))

    def test_the_state_goes_round_unchanged(self):
        self.open_with_maps()
        for fields in ({}, {"scalp": "maps"}, {"scalp": False}, {"texts": True, "textures": False}):
            before = hair(self.groom)
            state = self.groom.do("get_state", **fields)
            info = self.groom.do("groom_info")
            kept = {key: state[key] for key in ("groom", "textures", "tools") if key in state}
            answer = self.groom.do("set_state", **kept)
            self.assertEqual(self.groom.do("get_state", **fields), state, fields)
            self.assertEqual(answer, {**info, "source": "Blender"})
            self.assertEqual(hair(self.groom), before)

    def test_another_session_takes_the_state_with_its_pictures(self):
        self.open_with_maps()
        state = self.groom.do("get_state")
        self.assertEqual(state["format"], "corvelle.groom")
        self.assertEqual(
            state["textures"],
            [
                {"name": "gone", "stored": "/nowhere/gone.png"},
                {"name": "skin", "png": base64.b64encode(PNG).decode()},
            ],
        )
        other = Groom(self.helper)
        other.do("set_options", mapsDir=self.path("other"))
        other.do("set_state", groom=state["groom"], textures=state["textures"])
        self.assertEqual(self.read("other/skin.png"), PNG)
        self.assertEqual(os.listdir(self.path("other")), ["skin.png"])
        self.assertEqual(hair(other), hair(self.groom))
        again = json.loads(other.do("get_state")["groom"])
        self.assertEqual(again["maps"]["skin"]["texture"], self.path("other/skin.png"))

    def test_pictures_go_to_a_private_folder_when_the_host_gives_none(self):
        self.open_with_maps()
        state = self.groom.do("get_state")
        other = Groom(self.helper)
        folder = other.do("set_options")["mapsDir"]
        self.assertFalse(os.path.exists(folder))
        os.makedirs(os.path.join(folder, "of a process with this number"))
        other.do("set_state", groom=state["groom"], textures=state["textures"])
        self.addCleanup(os.rmdir, folder)
        self.addCleanup(os.remove, os.path.join(folder, "skin.png"))
        self.assertEqual(os.listdir(folder), ["skin.png"])
        self.assertEqual(os.stat(folder).st_mode & 0o777, 0o700)
        other.do("set_state", groom=state["groom"], textures=[{"name": "b", "png": ""}])
        self.assertEqual(sorted(os.listdir(folder)), ["b.png", "skin.png"])
        os.remove(os.path.join(folder, "b.png"))

    def test_the_scalp_is_carried_as_asked(self):
        self.open_with_maps()

        def groom(**fields):
            return json.loads(self.groom.do("get_state", textures=False, **fields)["groom"])

        everything, maps, nothing = groom(), groom(scalp="maps"), groom(scalp=False)
        self.assertEqual(len(everything["scalp"]["points"]), 12)
        self.assertIsNone(maps["scalp"])
        self.assertEqual(maps["maps"], everything["maps"])
        self.assertIsNone(nothing["scalp"])
        self.assertEqual(nothing["maps"]["density"], {"kind": "vertices", "texture": ""})
        other = Groom(self.helper)
        other.do("set_state", groom=json.dumps(nothing))
        self.assertIsNone(other.do("groom_info")["scalp"])
        other.do("set_scalp", **QUAD)
        started = json.loads(other.do("get_state")["groom"])["maps"]["density"]
        self.assertEqual((started["values"], started["vertices"]), ([1, 1, 1, 1], 4))

    def test_the_own_scalp_stays_unless_it_is_given_up(self):
        state = self.groom.do("get_state")
        other = Groom(self.helper)
        moved = [[x, y, z + 1] for x, y, z in QUAD["points"]]
        other.do("set_scalp", **{**QUAD, "points": moved})
        before = other.state()["scalp"]
        other.do("set_state", groom=state["groom"])
        self.assertEqual(other.state()["scalp"], before)
        other.do("set_state", groom=state["groom"], keepScalp=False)
        self.assertEqual(other.state()["scalp"], self.groom.state()["scalp"])

    def test_a_scalp_with_other_triangles_roots_the_hair_again_with_a_message(self):
        self.groom.do("set_guides", target="hierarchy", **GUIDES)
        for fields in ({}, {"scalp": False}):
            state = self.groom.do("get_state", **fields)
            other = Groom(self.helper)
            turned = {**QUAD, "faceCounts": [3, 3], "faceIndices": [1, 2, 3, 1, 3, 0]}
            del turned["uvs"], turned["colorSets"]
            other.do("set_scalp", **turned)
            other.do("set_state", groom=state["groom"])
            texts = [message["text"] for message in other.do("evaluate")["messages"]]
            self.assertEqual([text for text in texts if "rooted again by position" in text][:1], texts[:1])
            self.assertNotIn("stale", other.do("get_guides", source="hierarchy"))

    def test_texts_are_the_documents_own(self):
        file = {**EMPTY, "parts": "none", "hierarchy": {"version": 99}}
        self.groom.do("load_groom", path=self.write("a.groom", file))
        texts = self.groom.do("get_state", texts=True)["texts"]
        self.assertEqual(texts["partData"], '"none"')
        self.assertEqual(texts["guideData"], '{"version":99}')
        self.assertEqual((texts["flowData"], texts["correctiveData"]), ("", ""))

    def test_bad_states_change_nothing(self):
        self.open_with_maps()
        good = {"groom": json.dumps(EMPTY), "textures": [{"name": "skin", "png": "AAAA"}]}
        no_path = "bad_request: a map's name cannot be a path"
        units = json.dumps({**EMPTY, "units": "m"})
        graph = json.dumps({**EMPTY, "graph": {"nodes": [], "output": "x"}})

        def texture(**entry):
            return [{"name": "skin", "png": "AAAA"}, entry]

        check_bad_inputs(
            self,
            self.groom,
            "set_state",
            good,
            [
                ("groom", ABSENT, 'bad_request: missing "groom"'),
                ("groom", EMPTY, 'bad_request: "groom" must be a string'),
                ("groom", "{}", "parse: not a Corvelle groom file"),
                (
                    "groom",
                    units,
                    "unsupported: the state's units are m; Corvelle keeps grooms in centimeters",
                ),
                ("groom", graph, "graph: graph JSON has no 'output' node"),
                ("keepScalp", 1, 'bad_request: "keepScalp" must be true or false'),
                ("textures", {}, "bad_request: textures is a list of maps"),
                ("textures", [1], 'bad_request: missing "name"'),
                ("textures", texture(png="AAAA"), 'bad_request: missing "name"'),
                ("textures", texture(name="a"), 'bad_request: missing "png"'),
                ("textures", texture(name="a", png="A"), "bad_request: a texture's png is not base64"),
                ("textures", texture(name="../a", png="AAAA"), no_path),
                ("textures", texture(name="a/b", png="AAAA"), no_path),
                ("textures", texture(name="", png="AAAA"), no_path),
                ("textures", texture(name="a" * 101, png="AAAA"), no_path),
            ],
        )
        self.assertEqual(self.read("maps/skin.png"), b"\0\0\0", "only the good request wrote")
        self.assertEqual(
            failure(self.groom.ask("get_state", scalp="all")),
            'bad_request: scalp is true, false or "maps"',
        )

    def test_a_picture_that_cannot_be_written_brings_the_others_back(self):
        self.open_with_maps()
        os.mkdir(os.path.join(self.maps, "wall.png"))
        before = self.groom.state()
        entries = [{"name": name, "png": "AAAA"} for name in ("new", "skin", "wall")]
        reply = self.groom.ask("set_state", groom=json.dumps(EMPTY), textures=entries)
        self.assertEqual(failure(reply), "io: cannot write '%s/wall.png'" % self.maps)
        self.assertEqual(self.read("maps/skin.png"), PNG)
        self.assertEqual(sorted(os.listdir(self.maps)), ["skin.png", "wall.png"])
        self.assertEqual(self.groom.state(), before)
