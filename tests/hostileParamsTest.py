"""Every param of every node with values that no one means: they are survived, and said when they
make no hair."""

import unittest

import numpy as np
from support import Groom, Pipes, array_of, failure

TEXTS = ["", "x" * 100_000, "\u00e9\0", "1/0", "((((", "rand * P", "/", "../..", "a.png", "%(UDIM)d", '{"a":' + "[" * 3000]
MAPS = [
    {"expression": "1 / 0"},
    {"expression": "3e38 * P.x + t"},
    {"expression": "[1, 2, 3]"},
    {"expression": "(" * 5000},
    {"colorSet": "none"},
    {"texture": "/no such file.png"},
    {"attribute": "none"},
    {"guide": "none"},
]
VALUES = {
    "float": [1e300, -1e300, 2**63, -(2**63), 1e-300, 0.5, 0, -1],
    "vec3": [[value] * 3 for value in (3e38, -3e38, 1e-40, 0)],
    "ramp": [{"keys": keys} for keys in ([[0, 3e38]], [[0.5, -3e38], [0.5, 3e38]], [[i % 7, i] for i in range(2000)])],
    "string": TEXTS,
    "bool": [True, False],
}


def values_of(param):
    return VALUES[param["kind"]] + (MAPS if param.get("mappable") else [])


def graph_with(spec, params):
    """A small groom with one more node, "it", of the type: in the way of the strands when it gives
    strands, behind the colour's melanin when it gives a field."""
    nodes = [
        {"name": "scalp", "type": "Scalp"},
        {"name": "guides", "type": "Guides"},
        {"name": "scatter", "type": "Scatter", "params": {"density": 30}},
        {"name": "interpolate", "type": "Interpolate"},
        {"name": "it", "type": spec["type"], "params": params},
        {"name": "field", "type": "FieldNoise"},
        {"name": "color", "type": "HairColor"},
        {"name": "output", "type": "Output"},
    ]
    links = [("scalp", "scatter", "scalp"), ("scatter", "interpolate", "strands"), ("guides", "interpolate", "guides")]
    source = {"Strands": "interpolate", "Guides": "guides", "Mesh": "scalp", "Field": "field"}
    links += [(source[port["type"]], "it", port["name"]) for port in spec["inputs"] if port["type"] in source]
    gives = (spec.get("outputs") or [spec["output"]])[0]["type"]
    links += [("it" if gives == "Strands" else "interpolate", "color", "strands"), ("color", "output", "strands")]
    if gives == "Field":
        nodes[6]["paramInputs"] = {"melanin": {"from": "it"}}
    connections = [{"from": a, "to": b, "input": port} for a, b, port in links]
    return {"nodes": nodes, "connections": connections, "output": "output"}


class HostileParams(unittest.TestCase):
    def test_are_survived(self):
        with Pipes() as helper:
            groom = Groom(helper)
            square = [[0, 0, 0], [0.02, 0, 0], [0.02, 0.02, 0], [0, 0.02, 0]]
            groom.do("set_scalp", points=square, faceCounts=[4], faceIndices=[0, 1, 2, 3], uvs=[0, 0, 1, 0, 1, 1, 0, 1])
            curves = [[0, 0, 0], [0, 0, 0.1], [0.02, 0.02, 0], [0.1, 0, 0.1]]
            groom.do("set_guides", points=curves, counts=[2, 2])
            tried = grown = 0
            for spec in helper.ask(cmd="operator_specs")["result"]["operators"]:
                for param in spec["params"]:
                    for value in values_of(param):
                        where = "%s.%s = %.60s" % (spec["type"], param["name"], value)
                        tried += 1
                        reply = groom.ask("set_graph", graph=graph_with(spec, {param["name"]: value}))
                        if not reply["ok"]:
                            self.assertIn(reply["error"]["code"], ("graph", "parse"), where)
                            continue
                        reply = groom.ask("evaluate", attributes="all", bounds=True)
                        self.assertEqual(failure(reply), "ok", where)
                        answer = reply["result"]
                        positions = array_of(answer["arrays"]["positions"])
                        self.assertTrue(answer["errors"] or np.isfinite(positions).all(), where)
                        grown += answer["strandCount"] > 0
            self.assertGreater(tried, 800)
            self.assertGreater(grown, 0.6 * tried, "too wild to prove anything")
