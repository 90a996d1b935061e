"""The catalogue of node types: what grooms and hosts rely on."""

import pathlib
import re
import unittest

from support import Pipes

AFFECT = (
    "Where the node works, 0-1 per strand (mappable, per point): 1 its whole result, 0 the strands as they came in, "
    "between a mix of the two. Map it to a Group node's group (an attribute map of the group's name), a painted map or "
    "an expression. IDs (clumpId...) switch at 0.5. A node that adds, removes or resamples strands leaves it alone"
)

# Category: types that take strands and give strands, at the ports "strands" and "out".
PLAIN = {
    "shape": "Bend BlendNeighbors Comb Cull Direction Displace Gravity Length Part Resample Smooth Straighten "
    "Transform Width",
    "look": "Curl Flyaway Noise Tangle",
    "grow": "Flow",
    "color": "HairColor",
    "utility": "Output",
}
# Type: category, inputs (a ? for those that may stay open) and outputs.
OTHERS = {
    "Clump": ("look", "strands:Strands centers:Curves?", "out:Strands"),
    "Collide": ("shape", "strands:Strands scalp:Mesh? collider:Mesh?", "out:Strands"),
    "ColliderMesh": ("source", "", "mesh:Mesh"),
    "Compound": ("utility", "", "out:Strands"),
    "Control": ("field", "", "field:Field"),
    "Curve": ("field", "", "curve:Curve"),
    "Expression": ("field", "", "field:Field"),
    "FieldCombine": ("field", "a:Field b:Field?", "field:Field"),
    "FieldNoise": ("field", "", "field:Field"),
    "FieldRemap": ("field", "field:Field", "field:Field"),
    "Guides": ("source", "", "guides:Guides"),
    "ImportCurves": ("source", "scalp:Mesh?", "out:Curves"),
    "Input": ("source", "", "out:Strands"),
    "Interpolate": ("grow", "strands:Strands guides:Guides? scalp:Mesh?", "out:Strands"),
    "Map": ("field", "", "luminance:Field r:Field g:Field b:Field a:Field"),
    "MeshCut": ("shape", "strands:Strands mesh:Mesh", "out:Strands"),
    "Mirror": ("shape", "strands:Curves", "out:Curves"),
    "RestoreLength": ("shape", "strands:Strands reference:Strands?", "out:Strands"),
    "Scalp": ("source", "", "scalp:Mesh"),
    "Scatter": ("grow", "scalp:Mesh guides:Guides?", "out:Strands"),
    "ToGuides": ("grow", "strands:Strands", "guides:Guides"),
    "ToStrands": ("grow", "guides:Guides", "out:Strands"),
    "Twist": ("shape", "strands:Strands axes:Guides?", "out:Strands"),
}
KINDS = {"bool": bool, "float": (int, float), "string": str, "vec3": list, "ramp": dict}


def ports(listed):
    return " ".join("%s:%s%s" % (p["name"], p["type"], "?" if p.get("optional") else "") for p in listed)


class Catalogue(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with Pipes() as helper:
            cls.specs = {spec["type"]: spec for spec in helper.ask(cmd="operator_specs")["result"]["operators"]}

    def test_types_keep_their_category_and_ports(self):
        table = {kind: (category, "strands:Strands", "out:Strands") for category, kinds in PLAIN.items() for kind in kinds.split()}
        for kind, row in {**table, **OTHERS}.items():
            spec = self.specs[kind]
            outputs = spec["outputs"] if "outputs" in spec else [spec["output"]]
            with self.subTest(type=kind):
                self.assertEqual((spec["category"], ports(spec["inputs"]), ports(outputs)), row)

    def test_affect_is_where_strands_go_in_and_come_out(self):
        for kind, spec in self.specs.items():
            first = (spec["inputs"] or [{"type": ""}])[0]["type"], (spec.get("outputs") or [spec["output"]])[0]["type"]
            shown = [p for p in spec["params"] if p["name"] == "affect"]
            with self.subTest(type=kind):
                self.assertEqual(len(shown), 1 if first == ("Strands", "Strands") else 0)
                for affect in shown:
                    self.assertEqual(spec["params"][-1], affect, "it stands last")
                    self.assertEqual(
                        affect,
                        {"name": "affect", "kind": "float", "default": 1.0, "description": AFFECT, "mappable": True,
                         "unit": "fraction", "animatable": True, "group": "Common", "softMin": 0.0, "softMax": 1.0},
                    )

    def test_params_say_what_hosts_can_show(self):
        for kind, spec in self.specs.items():
            params = {p["name"]: p for p in spec["params"]}
            self.assertEqual(len(params), len(spec["params"]), kind)
            for name, p in params.items():
                with self.subTest(param="%s.%s" % (kind, name)):
                    self.check_param(p, params)

    def check_param(self, p, params):
        self.assertTrue(p["description"])
        default = p["default"]
        self.assertIsInstance(default, KINDS[p["kind"]])
        if p["kind"] == "float":
            self.assertNotIsInstance(default, bool)
            self.assertLessEqual(p.get("min", default), default)
            self.assertGreaterEqual(p.get("max", default), default)
            self.assertLess(p.get("softMin", 0), p.get("softMax", 1e30))
            # A slider may start at 0 where only 0 itself is left out.
            self.assertGreaterEqual(p.get("softMin", 1e30), p.get("min", -1e30) - 1e-6)
            self.assertLessEqual(p.get("softMax", -1e30), p.get("max", 1e30))
        if p.get("whole"):
            self.assertIsInstance(default, int)
            self.assertNotIn("animatable", p)
        if "choices" in p:
            self.assertEqual(default, p["choices"][0], "the first word is the default")
        if "(mappable" in p["description"]:
            self.assertTrue(p.get("mappable"))
        if p["name"] == "seed":
            self.assertEqual((default, p.get("whole"), p.get("group")), (0, True, None))
        if p["name"].endswith("Random"):
            self.assertEqual(p.get("group"), "Random")
        for condition in p.get("showWhen", []) + p.get("unitWhen", []):
            other = params[condition["param"]]
            for value in condition["values"]:
                if "choices" in other:
                    self.assertIn(value, other["choices"])
                elif other["kind"] == "bool":
                    self.assertIn(value, ("true", "false"))

    def test_the_protocol_page_lists_every_type(self):
        page = (pathlib.Path(__file__).parent.parent / "docs" / "BLENDER.md").read_text(encoding="utf-8")
        table = page[page.index("## Node types") : page.index("## Expressions")]
        listed = dict(re.findall(r"^\| `(\w+)` \| (\w+) \|", table, re.M))
        self.assertEqual(listed, {kind: spec["category"] for kind, spec in self.specs.items()})


if __name__ == "__main__":
    unittest.main()
