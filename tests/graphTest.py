"""The node graph over the wire: reading, writing and editing it."""

import json
import unittest

from support import ABSENT, Groom, Pipes, check_bad_inputs, failure

NODES = "scalp guides scatter interpolate length noise color width resample output".split()
OPS = (
    "bad_request: op is add_node, remove_node, rename_node, connect, disconnect, set_output, "
    "upgrade_node, set_positions, set_bypass or set_evaluation"
)


class GraphTest(unittest.TestCase):
    def setUp(self):
        self.helper = Pipes()
        self.addCleanup(self.helper.__exit__)
        self.groom = Groom(self.helper)

    def edit(self, op, **fields):
        return self.groom.do("edit_graph", op=op, **fields)

    def node(self, name):
        nodes = self.groom.do("get_graph")["graph"]["nodes"]
        return next((node for node in nodes if node["name"] == name), None)

    def connections(self):
        return [(c["from"], c["to"], c["input"]) for c in self.groom.do("get_graph")["graph"]["connections"]]

    def test_a_new_session_offers_the_default_graph_and_has_none(self):
        default = self.helper.ask(cmd="default_graph")["result"]["graph"]
        self.assertEqual(self.groom.do("get_graph")["graph"], default)
        listed = self.groom.do("list_nodes")
        self.assertEqual([node["name"] for node in listed["nodes"]], NODES)
        self.assertEqual(set(listed["nodes"][0]), {"name", "type", "version"})
        self.assertEqual(listed["output"], "output")
        answer = self.groom.do("evaluate")
        self.assertEqual((answer["errors"], answer["strandCount"], answer["serial"]), ([], 0, 0))
        self.assertEqual(self.groom.do("set_graph", graph=default), {"nodes": 10})
        self.assertEqual(self.groom.do("set_graph", graph="{ }"), {"nodes": 0})

    def test_specs_name_every_type_with_its_params(self):
        specs = {spec["type"]: spec for spec in self.helper.ask(cmd="operator_specs")["result"]["operators"]}
        for name in "Scalp Guides Scatter Interpolate Length Noise HairColor Width Resample Output".split():
            self.assertIn(name, specs)
        kinds = {"float", "bool", "string", "vec3", "ramp"}
        for spec in specs.values():
            for param in spec["params"]:
                self.assertIn(param["kind"], kinds)
                self.assertNotEqual(param["description"], "", (spec["type"], param["name"]))
                if param.get("whole"):
                    self.assertIsInstance(param["default"], int, (spec["type"], param["name"]))
        self.groom.do("set_param", node="scatter", param="seed", value=4)
        spec = self.groom.do("node_spec", node="scatter")["spec"]
        self.assertEqual((spec["name"], spec["type"], spec["outdated"]), ("scatter", "Scatter", False))
        values = {param["name"]: param["value"] for param in spec["params"]}
        self.assertEqual((values["seed"], values["density"]), (4, 200.0))

    def test_a_compound_is_edited_like_any_node(self):
        definition = {
            "graph": {
                "nodes": [
                    {"name": "in", "type": "Input", "params": {}},
                    {"name": "wide", "type": "Width", "params": {"width": 0.02}},
                ],
                "connections": [{"from": "in", "to": "wide", "input": "strands"}],
                "output": "wide",
            },
            "inputs": [{"name": "strands", "type": "Strands"}],
            "expose": {"thick": "wide.width"},
        }
        specs = {spec["type"]: spec for spec in self.helper.ask(cmd="operator_specs")["result"]["operators"]}
        self.assertEqual([param["name"] for param in specs["Compound"]["params"]], ["repeat"])
        self.groom.do("set_graph", graph=self.groom.do("get_graph")["graph"])
        added = self.edit("add_node", type="Compound", name="look", params={"definition": definition})
        self.assertEqual(added["name"], "look")
        self.edit("connect", to="look", **{"from": "resample"}, input="strands")
        self.edit("connect", to="output", **{"from": "look"}, input="strands")
        self.groom.do("set_param", node="look", param="thick", value=0.5)
        spec = self.groom.do("node_spec", node="look")["spec"]
        self.assertEqual(spec["inputs"], [{"name": "strands", "type": "Strands"}])
        shown = {param["name"]: param for param in spec["params"]}
        self.assertEqual(list(shown), ["thick", "repeat", "affect"])
        self.assertEqual((shown["thick"]["value"], shown["thick"]["default"]), (0.5, 0.02))
        self.assertIn(" (exposed wide.width)", shown["thick"]["description"])
        self.assertEqual(self.node("look")["params"]["definition"], definition)
        # A definition may come as text, and is a param like the others.
        definition["expose"] = {"seed": "wide.seed"}
        wrong = self.groom.ask("set_param", node="look", param="definition", value={"graph": {}, "inputs": 1})
        self.assertEqual(failure(wrong), "graph: node 'look': graph JSON has no 'output' node")
        wrong = self.groom.ask("set_param", node="look", param="definition", value=json.dumps(definition))
        self.assertEqual(failure(wrong), "graph: node 'look': unknown parameter 'thick'")
        self.edit("remove_node", name="look")
        self.edit("add_node", type="Compound", name="look", params={"definition": json.dumps(definition)})
        spec = self.groom.do("node_spec", node="look")["spec"]
        self.assertEqual([param["name"] for param in spec["params"]], ["seed", "repeat", "affect"])
        bad = self.groom.ask("set_param", node="look", param="definition", value={"graph": 3})
        self.assertEqual(failure(bad), "parse: node 'look': the definition has no graph")

    def test_bad_graphs_are_refused_whole(self):
        default = self.helper.ask(cmd="default_graph")["result"]["graph"]
        deep = '{"nodes": [{"name": "s", "type": "Scalp"}], "output": "s", "x": %s%s}' % ("[" * 200_000, "]" * 200_000)

        def changed(node_name, **keys):
            nodes = [{**node, **keys} if node["name"] == node_name else node for node in default["nodes"]]
            return {**default, "nodes": nodes}

        check_bad_inputs(
            self,
            self.groom,
            "set_graph",
            {"graph": json.dumps(default)},
            [
                ("graph", ABSENT, 'bad_request: missing "graph"'),
                ("graph", None, 'bad_request: missing "graph"'),
                ("graph", 5, "graph: graph JSON must be an object"),
                ("graph", [], "graph: graph JSON must be an object"),
                ("graph", True, "graph: graph JSON must be an object"),
                ("graph", "[1]", "graph: graph JSON must be an object"),
                ("graph", deep, "parse: graph: nested deeper than 512 levels"),
                ("graph", {"nodes": []}, "graph: graph JSON has no 'output' node"),
                ("graph", {"nodes": 1}, "graph: graph JSON: nodes is a list"),
                ("graph", {**default, "output": "nobody"}, "graph: graph JSON has no 'output' node"),
                (
                    "graph",
                    {**default, "version": 2},
                    "parse: graph version 2 is newer than this Corvelle supports (1); update Corvelle to open it",
                ),
                ("graph", {**default, "version": 1.5}, "parse: graph version 1.5 is not a whole number"),
                ("graph", {**default, "nodes": default["nodes"] * 2}, "graph: duplicate node name 'scalp'"),
                ("graph", changed("noise", type="Beard"), "graph: unknown operator type 'Beard'"),
                ("graph", changed("noise", name=""), "graph: a node needs a name"),
                ("graph", changed("noise", bypass=1), "graph: node 'noise': bypass is true or false"),
                ("graph", changed("noise", params=[]), "graph: node 'noise': a node's params are a JSON object"),
                (
                    "graph",
                    changed("noise", params={"amplitude": {"keys": 5}}),
                    "graph: node 'noise': ramp for param 'amplitude' needs keys [[position, value], ...]",
                ),
                (
                    "graph",
                    changed("noise", params={"amplitude": {"texture": "a", "guide": "b"}}),
                    "graph: node 'noise': map for param 'amplitude' needs exactly one of texture, colorSet, "
                    "attribute, expression, guide",
                ),
            ],
        )
        reply = self.groom.ask("set_graph", graph='{"nodes": [')
        self.assertEqual(reply["error"]["code"], "parse")
        self.assertTrue(reply["error"]["message"].startswith("graph: invalid JSON: "))

    def test_keys_of_hosts_survive_every_edit(self):
        graph = self.helper.ask(cmd="default_graph")["result"]["graph"]
        graph["backdrops"] = [{"title": "f\u00f6hn", "x": 1.5}]
        graph["nodes"][2]["note"] = {"deep": [1, None, True]}
        self.groom.do("set_graph", graph=graph)
        self.groom.do("set_param", node="scatter", param="density", value=3)
        self.edit("rename_node", name="scatter", newName="roots")
        self.edit("set_positions", positions={"roots": [10, -20.5]})
        now = self.groom.do("get_graph")["graph"]
        self.assertEqual(now["backdrops"], graph["backdrops"])
        self.assertEqual(self.node("roots")["note"], {"deep": [1, None, True]})
        self.assertEqual(self.node("roots")["position"], [10.0, -20.5])

    def test_params_are_read_from_the_node_else_from_its_spec(self):
        def get(node, param):
            return self.groom.do("get_param", node=node, param=param)

        self.assertEqual(get("scatter", "density"), {"param": "density", "value": 200.0, "default": True})
        self.assertEqual(get("length", "trimMax"), {"param": "trimMax", "value": 0.2})
        set_answer = self.groom.do("set_param", node="scatter", param="density", value=7)
        self.assertEqual(set_answer, {"param": "density", "value": 7})
        self.assertEqual(get("scatter", "density"), {"param": "density", "value": 7})
        for command, extra in (("get_param", {}), ("set_param", {"value": 1})):
            check_bad_inputs(
                self,
                self.groom,
                command,
                {"node": "scatter", "param": "seed", **extra},
                [
                    ("node", ABSENT, 'bad_request: missing "node"'),
                    ("node", None, 'bad_request: missing "node"'),
                    ("node", 1, 'bad_request: "node" must be a string'),
                    ("node", "nobody", "not_found: no node 'nobody'"),
                    ("param", ABSENT, 'bad_request: missing "param"'),
                    ("param", [], 'bad_request: "param" must be a string'),
                    ("param", "sead", "not_found: node 'scatter' has no param 'sead'"),
                ],
            )
        check_bad_inputs(
            self,
            self.groom,
            "node_spec",
            {"node": "scatter"},
            [
                ("node", None, 'bad_request: missing "node"'),
                ("node", {}, 'bad_request: "node" must be a string'),
                ("node", "", "not_found: no node ''"),
            ],
        )

    def test_params_take_values_of_their_kind(self):
        def mismatch(text):
            return "type_mismatch: " + text

        cases = [
            ("scatter", "seed", 3, [  # whole
                (ABSENT, 'bad_request: missing "value"'),
                (None, 'bad_request: missing "value"'),
                (2.0, mismatch("scatter.seed takes a int, not 2.0")),
                (2.5, mismatch("scatter.seed takes a int, not 2.5")),
                ("2", mismatch('scatter.seed takes a int, not "2"')),
                (True, mismatch("scatter.seed takes a int, not true")),
                ({"expression": "1"}, mismatch('scatter.seed takes a int, not {"expression":"1"}')),
            ]),
            ("scatter", "density", {"expression": "v * 2"}, [  # a number or a map
                ("12", mismatch('scatter.density takes a float or a map, not "12"')),
                ([1], mismatch("scatter.density takes a float or a map, not [1]")),
                (False, mismatch("scatter.density takes a float or a map, not false")),
                (
                    {"expression": 5},
                    "graph: node 'scatter': map for param 'density': expression must be a string",
                ),
                (
                    {"colorSet": "a", "component": "x"},
                    "graph: node 'scatter': map for param 'density': unknown component 'x'",
                ),
            ]),
            ("scatter", "randomness", 1, [  # a number alone
                ({"expression": "1"}, mismatch('scatter.randomness takes a float, not {"expression":"1"}')),
                ("1", mismatch('scatter.randomness takes a float, not "1"')),
            ]),
            ("scatter", "previewAll", True, [
                (1, mismatch("scatter.previewAll takes a bool, not 1")),
                ("true", mismatch('scatter.previewAll takes a bool, not "true"')),
            ]),
            ("color", "map", "a.png", [
                (5, mismatch("color.map takes a string, not 5")),
                ({}, mismatch("color.map takes a string, not {}")),
            ]),
            ("color", "tipColor", [1, 0.5, 0], [
                ([1, 2], mismatch("color.tipColor takes a vec3, not [1,2]")),
                (1, mismatch("color.tipColor takes a vec3, not 1")),
                # The right count passes here; what it holds is for the param's own reader.
                (["a", "b", "c"], "graph: node 'color': unsupported value for param 'tipColor'"),
                ([1e300, 0, 0], "graph: node 'color': param 'tipColor': a vector takes three finite numbers"),
            ]),
            ("width", "profile", {"keys": [[0, 1], [1, 0]], "linear": True}, [
                ({"keys": []}, "graph: node 'width': ramp for param 'profile' needs keys [[position, value], ...]"),
                ([[0, 1]], "graph: node 'width': unsupported value for param 'profile'"),
            ]),
        ]
        for node, param, good, bad in cases:
            check_bad_inputs(
                self,
                self.groom,
                "set_param",
                {"node": node, "param": param, "value": good},
                [("value", value, expected) for value, expected in bad],
            )
            self.assertEqual(self.groom.do("get_param", node=node, param=param)["value"], good)
        # Out of range is kept as it is; the node clamps.
        self.groom.do("set_param", node="scatter", param="randomness", value=1e300)
        self.assertEqual(self.groom.do("get_param", node="scatter", param="randomness")["value"], 1e300)

    def test_nodes_come_get_names_and_go(self):
        self.assertEqual(self.edit("add_node", type="Noise"), {"name": "noise2", "graphError": ""})
        self.assertEqual(self.edit("add_node", type="Noise")["name"], "noise3")
        added = self.edit("add_node", type="Width", name="fine", params={"width": 0.1}, x=3, y=-4)
        self.assertEqual(added["name"], "fine")
        self.assertEqual(self.node("fine")["params"], {"width": 0.1})
        self.assertEqual(self.node("fine")["position"], [3.0, -4.0])
        self.assertEqual(self.edit("add_node", type="Scatter")["name"], "scatter2")
        self.assertEqual(self.node("scatter2")["params"], {"seed": 1}, "two scatters of one seed coincide")
        self.edit("connect", **{"from": "scalp", "to": "scatter2", "input": "scalp"})
        warned = self.groom.do("edit_graph", op="add_node", type="Scatter", params={"seed": 0})
        self.edit("connect", **{"from": "scalp", "to": warned["name"], "input": "scalp"})
        warnings = self.edit("set_positions", positions={})["warnings"]
        self.assertEqual(
            warnings,
            ["scatter and scatter3: their strands coincide (same roots and IDs); give each its own seed"],
        )
        self.edit("remove_node", name="scatter3")
        self.assertIsNone(self.node("scatter3"))
        self.assertNotIn("scatter3", [name for c in self.connections() for name in c])
        self.edit("rename_node", name="scatter2", newName="stubble")
        self.assertIn(("scalp", "stubble", "scalp"), self.connections())
        self.edit("rename_node", name="output", newName="end")
        self.assertEqual(self.groom.do("list_nodes")["output"], "end")

    def test_connections_bypass_evaluation_output_and_version(self):
        link = {"from": "noise", "to": "output", "input": "strands"}
        self.assertEqual(self.edit("connect", **link), {"graphError": ""})
        into = [c for c in self.connections() if c[1] == "output"]
        self.assertEqual(into, [("noise", "output", "strands")], "the old one is replaced")
        self.assertTrue(self.edit("disconnect", to="output", input="strands")["disconnected"])
        self.assertFalse(self.edit("disconnect", to="output", input="strands")["disconnected"])
        self.edit("connect", **link)
        # A field into a param: as it is where the param has a number, scaled by 1 where that is 0.
        self.edit("add_node", type="FieldNoise", name="field")
        for param, entry in (("melanin", {"from": "field"}), ("grey", {"from": "field", "scale": 1})):
            self.edit("connect", **{"from": "field", "to": "color", "input": param})
            self.assertEqual(self.node("color")["paramInputs"][param], entry)
        self.assertTrue(self.edit("disconnect", to="color", input="grey")["disconnected"])
        self.edit("set_bypass", name="noise", bypass=True)
        self.assertIs(self.node("noise")["bypass"], True)
        self.edit("set_bypass", name="noise")
        self.assertNotIn("bypass", self.node("noise"))
        self.edit("set_evaluation", name="noise", mode="renderOnly")
        self.assertEqual(self.node("noise")["evaluation"], "renderOnly")
        self.edit("set_evaluation", name="noise", mode="always")
        self.assertNotIn("evaluation", self.node("noise"))
        self.edit("set_output", name="scatter")
        self.assertEqual(self.groom.do("list_nodes")["output"], "scatter")
        self.assertFalse(self.edit("upgrade_node", name="noise")["upgraded"])

    def test_bad_edits_are_refused_whole(self):
        def table(op, good, *cases):
            check_bad_inputs(self, self.groom, "edit_graph", {"op": op, **good}, cases)

        self.groom.do("set_graph", graph=self.helper.ask(cmd="default_graph")["result"]["graph"])
        for op, expected in ((ABSENT, 'bad_request: missing "op"'), (1, 'bad_request: "op" must be a string'), ("move", OPS), ("", OPS)):
            self.assertEqual(failure(self.groom.ask("edit_graph", op=op)), expected)
        name = [
            ("name", ABSENT, 'bad_request: missing "name"'),
            ("name", 3, 'bad_request: "name" must be a string'),
        ]
        unnamed = [*name, ("name", "nobody", "graph: no node named nobody")]
        unfound = [*name, ("name", "nobody", "not_found: no node 'nobody'")]
        table(
            "add_node",
            {"type": "Noise", "params": {"seed": 1}, "x": 1, "y": 2},
            ("type", ABSENT, 'bad_request: missing "type"'),
            ("type", 1, 'bad_request: "type" must be a string'),
            ("type", "Beard", "graph: unknown operator type 'Beard'"),
            ("type", "", "graph: unknown operator type ''"),
            ("name", 1, 'bad_request: "name" must be a string'),
            ("params", [], "graph: a node's params are a JSON object"),
            ("params", "x", "graph: a node's params are a JSON object"),
            ("params", {"nothing": 1}, "graph: node 'noise2': unknown parameter 'nothing'"),
            ("params", {"seed": None}, "graph: node 'noise2': unsupported value for param 'seed'"),
            ("x", "1", 'bad_request: "x" must be a number'),
            ("y", [], 'bad_request: "y" must be a number'),
        )
        table("remove_node", {"name": "noise2"}, *unnamed, ("name", "output", "graph: graph JSON has no 'output' node"))
        table(
            "rename_node",
            {"name": "noise", "newName": "wave"},
            *unnamed,
            ("newName", None, 'bad_request: missing "newName"'),
            ("newName", 1, 'bad_request: "newName" must be a string'),
            ("newName", "", "graph: a node needs a name"),
            ("newName", "scalp", "graph: a node named 'scalp' exists"),
        )
        table(
            "connect",
            {"from": "scatter", "output": "", "to": "wave", "input": "strands"},
            ("from", ABSENT, 'bad_request: missing "from"'),
            ("from", "nobody", "graph: no node named nobody"),
            ("from", "scalp", "graph: cannot connect scalp (it gives Mesh) to wave (it takes Strands)"),
            ("from", "output", "graph: connecting output to wave would create a cycle"),
            ("from", "wave", "graph: connecting wave to wave would create a cycle"),
            ("to", None, 'bad_request: missing "to"'),
            ("to", "nobody", "graph: no node named nobody"),
            ("input", ABSENT, 'bad_request: missing "input"'),
            ("input", 0, 'bad_request: "input" must be a string'),
            ("input", "hair", "graph: node 'wave' has no input 'hair'"),
            ("input", "seed", "graph: node 'wave' has no input 'seed'"),
            ("output", "hair", "graph: node 'scatter' has no output 'hair'"),
            ("output", 1, 'bad_request: "output" must be a string'),
        )
        table(
            "disconnect",
            {"to": "wave", "input": "strands"},
            ("to", ABSENT, 'bad_request: missing "to"'),
            ("to", "nobody", "graph: no node named nobody"),
            ("input", None, 'bad_request: missing "input"'),
        )
        table("set_output", {"name": "wave"}, *unnamed)
        table("upgrade_node", {"name": "wave"}, *unnamed)
        positions = "bad_request: positions is {node: [x, y]}"
        at = "bad_request: the position of 'wave' is [x, y]"
        table(
            "set_positions",
            {"positions": {"wave": [1, 2]}},
            ("positions", ABSENT, positions),
            ("positions", [], positions),
            ("positions", {"nobody": [1, 2]}, "not_found: no node 'nobody'"),
            ("positions", {"wave": [1]}, at),
            ("positions", {"wave": [1, "2"]}, at),
            ("positions", {"wave": None}, at),
            ("positions", {"scalp": [1, 2], "wave": [1, 2, 3]}, at),
        )
        table(
            "set_bypass",
            {"name": "wave", "bypass": True},
            *unfound,
            ("bypass", 1, 'bad_request: "bypass" must be true or false'),
        )
        table(
            "set_evaluation",
            {"name": "wave", "mode": "viewportOnly"},
            *unfound,
            ("mode", ABSENT, 'bad_request: missing "mode"'),
            ("mode", 1, 'bad_request: "mode" must be a string'),
            ("mode", "never", "graph: unknown evaluation 'never' (always, viewportOnly or renderOnly)"),
        )
