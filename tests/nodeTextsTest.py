"""What nodes say of a wiring or a param that cannot work, as hosts show it."""

import json
import unittest

from support import Groom, Pipes

SCATTER = {"density": 30}


def note(text):
    return {"notes": text}


def error(text):
    return {"errors": text}


def details(text):
    """Told by `stats`, and nothing to warn of."""
    return {"details": text, "notes": None}


# (type, params, links to "it" beside its strands (None: nothing at all), what is said, and "parts" for
# a groom with a part drawn).
CASES = [
    # Nothing at the input.
    *[
        (kind, {}, None, error("%s: strands input not connected" % kind))
        for kind in (
            "Bend", "BlendNeighbors", "Clump", "Collide", "Comb", "Cull", "Curl", "Direction", "Displace", "Flow",
            "Flyaway", "Gravity", "HairColor", "Interpolate", "Length", "MeshCut", "Mirror", "Noise", "Part", "Resample",
            "RestoreLength", "Smooth", "Straighten", "Tangle", "ToGuides", "Transform", "Twist", "Width",
        )
    ],
    ("ToStrands", {}, None, error("ToStrands: guides input not connected")),
    # Clump.
    ("Clump", {"count": 0}, [], note("no clumps: set a count or size above 0 (or centersFrom inputPoints with centers connected); the strands pass through")),
    ("Clump", {"clumpBy": "size", "size": 0}, [], note("no clumps: set a count or size above 0 (or centersFrom inputPoints with centers connected); the strands pass through")),
    ("Clump", {"centersFrom": "inputCurves"}, [], note("no clumps: connect centers (guides or strands) or set centersFrom to pick; the strands pass through")),
    ("Clump", {"centersFrom": "inputPoints"}, [], note("no clumps: connect centers (guides or strands) or set centersFrom to pick; the strands pass through")),
    ("Clump", {}, [("guides", "centers")], note("centers are connected but centersFrom is pick (it picks its own): set centersFrom to inputPoints or inputCurves to clump by them")),
    ("Clump", {"centersFrom": "inputPoints", "strength": -0.5}, [("guides", "centers")], details("parts the strands around the strands nearest its centers (centersFrom inputPoints); inputCurves parts them around the center curves themselves (whiskers, horns)")),
    # Interpolate.
    ("Interpolate", {}, [], note("no guides: place some with the guide tools; the strands keep their incoming shape")),
    ("Interpolate", {"keepClearance": False}, [("guides", "guides"), ("scalp", "scalp")], details("it does not keep clearance")),
    ("Interpolate", {}, [("guides", "guides"), ("scalp", "scalp")], details(None)),
    # Curl.
    ("Curl", {"coherence": "clump"}, [], error("Curl: coherence clump needs a Clump before it (no 'clumpId' channel to find the clumps)")),
    ("Curl", {"coherence": "clump", "clumpChannel": "lockId"}, [], error("Curl: coherence clump needs a Clump before it (no 'lockId' channel to find the clumps)")),
    ("Curl", {"shape": "coil", "tolerance": 0}, [], note("coil reads the strands' widths, and these have none set (1 everywhere): put a Width node before it")),
    ("Curl", {"frequency": 2, "affect": 0.5}, [], note("added points to 120 strands too few a turn for the tolerance (more Resample segments keep the GPU preview); affect is not applied: this node changes how many strands or points there are")),
    # Deformers.
    ("Part", {"part": "fringe"}, [], note("no part named 'fringe'; the strands pass through"), "parts"),
    ("Part", {}, [], note("no parts drawn: draw some with the Part tool; the strands pass through")),
    ("Flow", {}, [], note("no flow arrows: draw some with the Flow tool; strands lie along their own direction")),
    ("Twist", {}, [], error("Twist: connect axes (guides), or put a Clump before it (no 'clumpId' channel to find the clumps)")),
    ("Twist", {"clumpChannel": "lockId"}, [], error("Twist: connect axes (guides), or put a Clump before it (no 'lockId' channel to find the clumps)")),
    ("Collide", {}, [], note("nothing to collide with: connect the scalp or a collider")),
    # Strand form.
    ("RestoreLength", {}, [], error("RestoreLength: input reference is not connected")),
    ("RestoreLength", {"mode": "scale"}, [], error("RestoreLength: input reference is not connected")),
    ("MeshCut", {}, [], error("MeshCut: input mesh is not connected")),
]


def graph_of(kind, params, links):
    nodes = [
        {"name": "scalp", "type": "Scalp"},
        {"name": "guides", "type": "Guides"},
        {"name": "scatter", "type": "Scatter", "params": SCATTER},
        {"name": "interpolate", "type": "Interpolate"},
        {"name": "it", "type": kind, "params": params},
        {"name": "output", "type": "Output"},
    ]
    wires = [("scalp", "scatter", "scalp"), ("scatter", "interpolate", "strands"), ("guides", "interpolate", "guides")]
    last = "it"
    if kind == "ToGuides":  # its guides are shown as strands
        nodes.append({"name": "back", "type": "ToStrands"})
        wires.append(("it", "back", "guides"))
        last = "back"
    wires.append((last, "output", "strands"))
    if links is not None:
        wires.append(("interpolate", "it", "strands"))
        wires += [(source, "it", port) for source, port in links]
    return {
        "nodes": nodes,
        "connections": [{"from": a, "to": b, "input": port} for a, b, port in wires],
        "output": "output",
    }


class NodeTexts(unittest.TestCase):
    def test_say_what_to_do(self):
        with Pipes() as helper:
            groom = Groom(helper)
            square = [[0, 0, 0], [0.02, 0, 0], [0.02, 0.02, 0], [0, 0.02, 0]]
            groom.do("set_scalp", points=square, faceCounts=[4], faceIndices=[0, 1, 2, 3], uvs=[0, 0, 1, 0, 1, 1, 0, 1])
            groom.do("set_guides", points=[[0, 0, 0], [0, 0, 0.1], [0.02, 0.02, 0], [0.1, 0, 0.1]], counts=[2, 2])
            state = groom.do("get_state")
            document = json.loads(state["groom"])
            document["parts"] = {"version": 1, "parts": [{"name": "middle", "points": [[0, 1, 0], [0, 0, 1]]}]}
            drawn = {"groom": json.dumps(document), "textures": state["textures"]}
            for kind, params, links, said, *drawing in CASES:
                with self.subTest(kind=kind, params=params, links=links):
                    groom.do("set_state", **(drawn if drawing else {"groom": state["groom"]}))
                    groom.do("set_graph", graph=graph_of(kind, params, links))
                    answer = groom.do("evaluate", mode="render")
                    if "notes" in said:
                        self.assertEqual(answer["notes"].get("it"), said["notes"])
                        self.assertEqual(answer["errors"], [])
                        self.assertGreater(answer["strandCount"], 0)
                        self.assertEqual(groom.do("stats")["details"].get("it"), said.get("details"))
                    else:
                        self.assertIn(said["errors"], " ".join(answer["errors"]))
                        self.assertEqual(answer["strandCount"], 0)


if __name__ == "__main__":
    unittest.main()
