"""Writes docs/NODES.md from what the helper says of its nodes, and a picture of each: before, after.

    scripts/nodePages [--only TYPE ...] [--text]
"""

from __future__ import annotations

import argparse
import json
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Dict, List, Tuple

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "client"))

from corvelle_client import Helper  # noqa: E402  (the client stands beside the demo)

from .guides import head_guides  # noqa: E402
from .head import make_head  # noqa: E402
from .looks import dress  # noqa: E402
from .picture import View, draw, write_png  # noqa: E402
from .stage import grown_area, stage, take_hair  # noqa: E402

DOCS = Path(__file__).resolve().parents[3] / "docs"
STRANDS = 16_000
SIZE = (220, 264)
SIDE = View((-0.75, 0.75, -0.1), (0, 0, 1), np.array([0.0, 0.0, -0.04]), 0.44)
TOP = View((-0.05, 0.75, -0.75), (0, 0, 1), np.array([0.0, 0.0, 0.0]), 0.34)

Node = Tuple[str, Dict[str, Any]]
LOCKS: Node = ("Clump", {"count": 160, "strength": 0.9})
FINE: Node = ("Resample", {"segments": 31})


@dataclass(frozen=True)
class Example:
    """How a node's picture is made: nodes before it, its params, and what is wired to it."""

    params: Dict[str, Any] = field(default_factory=dict)
    before: Tuple[Node, ...] = ()
    view: View = field(default_factory=lambda: SIDE)
    wires: Dict[str, Node] = field(default_factory=dict)  # input port to a node of its own
    drives: Optional[Tuple[str, str]] = None  # a field node: (a node of the chain, its param) that it feeds
    after: Tuple[Node, ...] = ()  # nodes behind it, where it is in the chain
    begins: bool = False  # takes the guides, in the place of scattered and interpolated hair
    dress: str = ""  # a look whose parts, flow or scissors are needed
    everywhere: bool = False


DARK = {"melanin": 0.75}
EXAMPLES: Dict[str, Example] = {
    "BlendNeighbors": Example({"strength": 1.0, "neighbors": 8}, (("Noise", {"amplitude": 2.0, "frequency": 2}),)),
    "Bend": Example({"angle": 75, "start": 0.3}),
    "Clump": Example({"count": 160, "strength": 0.9}),
    "Collide": Example({}, (("Gravity", {"strength": 0.9, "direction": [0.6, -0.4, 0.7]}),), wires={"scalp": ("Scalp", {})}),
    "Compound": Example({"definition": {
        "inputs": [{"name": "strands", "type": "Strands"}],
        "graph": {
            "nodes": [{"name": "in", "type": "Input", "params": {}},
                      {"name": "lock", "type": LOCKS[0], "params": LOCKS[1]},
                      {"name": "curl", "type": "Curl", "params": {"radius": 0.8, "frequency": 0.25, "coherence": "clump"}}],
            "connections": [{"from": "in", "to": "lock", "input": "strands"}, {"from": "lock", "to": "curl", "input": "strands"}],
            "output": "curl"}}}, (FINE,)),
    "Comb": Example({"direction": [0, 0, -1], "strength": 0.7}),
    "Cull": Example({"keep": {"expression": "x > 0 ? 1 : 0.25"}}),
    "Curl": Example({"radius": 0.8, "frequency": 0.25, "coherence": "clump"}, (FINE, LOCKS)),
    "Control": Example({"name": "darkness", "default": 0.9}, drives=("color", "melanin")),
    "Curve": Example({"curve": {"keys": [[0, 0], [0.3, 0], [0.5, 1], [1, 1]]}}, (("Noise", {"amplitude": 2.0, "frequency": 3}),),
                     drives=("before0", "profile")),
    "Direction": Example({"inclination": 15, "strength": 0.9}),
    "Displace": Example({"distance": 3.0}),
    "Expression": Example({"expression": "y > 4 ? 0.1 : 0.9"}, drives=("color", "melanin")),
    "FieldCombine": Example({"mode": "multiply"}, drives=("color", "melanin"),
                            wires={"a": ("FieldNoise", {"frequency": 0.5}), "b": ("Expression", {"expression": "fit(y, -8, 10, 1, 0)"})}),
    "FieldNoise": Example({"frequency": 0.4}, drives=("color", "melanin")),
    "FieldRemap": Example({"curve": {"keys": [[0, 0], [0.45, 0.1], [0.55, 0.9], [1, 1]]}}, drives=("color", "melanin"),
                          wires={"field": ("FieldNoise", {"frequency": 0.5})}),
    "Flow": Example({"lift": 15}, (("Length", {"keep": 0.12}),), view=TOP, dress="fur"),
    "Flyaway": Example({"fraction": 0.15, "stray": 6.0}, (LOCKS,)),
    "Gravity": Example({"strength": 0.8}, (("Direction", {"inclination": 20, "strength": 0.9}),)),
    "HairColor": Example({"melanin": {"expression": "fit(y, -8, 10, 0.9, 0.25)"}, "redness": 0.8}),
    "Length": Example({"keep": 0.6, "trimMax": 0.4}),
    "MeshCut": Example({"mode": "obstacle"}, wires={"mesh": ("ColliderMesh", {"name": "scissors"})}, dress="fringe"),
    "Mirror": Example({"axis": "x", "mode": "replace"}, (("Bend", {"angle": {"expression": "x > 0 ? 70 : 0"}}),),
                      view=View((0.0, 1.0, -0.15), (0, 0, 1), np.array([0.0, 0.0, -0.04]), 0.46)),
    "Noise": Example({"amplitude": 1.2, "frequency": 3}),
    "Part": Example({"width": 2.5}, view=TOP, dress="parting"),
    "Resample": Example({"segments": 3}),
    "RestoreLength": Example({"mode": "even"}, (("Displace", {"distance": 3.0}),)),
    "Smooth": Example({"strength": 1.0, "iterations": 20}, (FINE, ("Noise", {"amplitude": 1.2, "frequency": 8, "mode": "kinky"}))),
    "Straighten": Example({"strength": 0.9}),
    "Tangle": Example({"fraction": 1.0, "radius": 1.2, "strength": 1.0, "sameClump": False}),
    "ToGuides": Example({"fraction": 0.02}, after=(("ToStrands", {}),)),
    "ToStrands": Example({}, begins=True),
    "Transform": Example({"scale": 0.6, "rotateRandom": [20, 20, 20]}),
    "Twist": Example({"turn": 0.25}, (FINE, ("Clump", {"count": 90, "strength": 1.0, "lockRadius": 0.6}))),
    "Width": Example({"width": 0.05}),
}


def graph_of(kind: str, example: Example, density: Any, with_node: bool) -> Any:
    """The chain of the pictures, with the node in it or without."""
    middle: List[Tuple[str, str, Dict[str, Any]]] = [(f"before{k}", t, p) for k, (t, p) in enumerate(example.before)]
    extra: List[Tuple[str, str, Dict[str, Any]]] = []
    links: List[Dict[str, str]] = []
    if with_node:
        if example.drives is None:
            middle.append(("shown", kind, example.params))
            middle += [(f"after{k}", t, p) for k, (t, p) in enumerate(example.after)]
        for port, (wired, params) in example.wires.items():
            name = "scalp" if wired == "Scalp" else f"wired_{port}"
            if name != "scalp":
                extra.append((name, wired, params))
            links.append({"from": name, "to": "shown", "input": port})
    look: List[Tuple[str, str, Dict[str, Any]]] = [("color", "HairColor", {"melanin": 0.45, "redness": 0.4}), ("width", "Width", {}),
                                                   ("resample", "Resample", {"segments": 31 if FINE in example.before else 17})]
    if kind in ("HairColor", "Width", "Resample"):
        look = [step for step in look if step[1] != kind or not with_node]
    chain = [("scatter", "Scatter", {"density": density, "randomness": 0.0}), ("interpolate", "Interpolate", {}), *middle, *look,
             ("output", "Output", {})]
    if example.begins and with_node:
        chain = [("guides", "Guides", {}), *chain[2:]]
        connections = []
    else:
        connections = [{"from": "scalp", "to": "scatter", "input": "scalp"}, {"from": "guides", "to": "interpolate", "input": "guides"},
                       {"from": "scalp", "to": "interpolate", "input": "scalp"}]
    connections += [{"from": a[0], "to": b[0], "input": "guides" if b[1] == "ToStrands" else "strands"} for a, b in zip(chain, chain[1:])]
    nodes = [("scalp", "Scalp", {}), *([] if chain[0][0] == "guides" else [("guides", "Guides", {})]), *chain, *extra]
    graph: Dict[str, Any] = {"version": 1, "output": "output", "connections": connections + links}
    graph["nodes"] = [{"name": name, "type": t, "params": p} for name, t, p in nodes]
    if with_node and example.drives is not None:
        node, param = example.drives
        graph["nodes"].append({"name": "shown", "type": kind, "params": example.params})
        for entry in graph["nodes"]:
            if entry["name"] == node:
                entry["paramInputs"] = {param: {"from": "shown"}}
    return graph


def draw_example(helper_path: str, kind: str, path: Path) -> None:
    example = EXAMPLES[kind]
    mesh = make_head()
    dense = STRANDS / grown_area(mesh)
    density: Any = dense if example.everywhere else {"colorSet": "scalp", "high": dense}
    pictures = []
    with stage(helper_path, mesh, head_guides()) as session:
        if example.dress:
            dress(session, example.dress)
        for with_node in (False, True):
            session.set_graph(graph_of(kind, example, density, with_node))
            hair, _ = take_hair(session)
            pictures.append(draw(hair, (mesh.points, mesh.triangles()), [example.view], *SIZE))
    gap = np.full((SIZE[1], 6, 3), 255, np.uint8)
    write_png(str(path), np.concatenate([pictures[0], gap, pictures[1]], axis=1))


CATEGORIES = {"source": "Sources", "grow": "Grow", "shape": "Shape", "look": "Look", "color": "Color", "field": "Fields",
              "simulate": "Simulate", "feather": "Feathers", "utility": "Utility"}


def _default(param: Dict[str, Any]) -> str:
    value = param.get("default")
    if isinstance(value, dict):
        return "ramp " + " ".join(f"({x:g}, {y:g})" for x, y in value["keys"]) if "keys" in value else "curve"
    if isinstance(value, list):
        return ", ".join(f"{x:g}" for x in value)
    if isinstance(value, float):
        return f"{value:g}"
    return json.dumps(value) if isinstance(value, (bool, str)) else str(value)


def _range(param: Dict[str, Any]) -> str:
    if param.get("choices"):
        return ", ".join(param["choices"])
    low, high = (param.get(key) for key in ("min", "max"))
    if low is not None:
        return f"{low:g} to {high:g}" if high is not None else f"from {low:g}"
    if high is not None:
        return f"up to {high:g}"
    return f"(slider {param['softMin']:g} to {param['softMax']:g})" if {"softMin", "softMax"} <= set(param) else ""


def _port(port: Dict[str, Any]) -> str:
    return f"`{port['name']}` ({port['type']}{', optional' if port.get('optional') else ''})"


def page_text(specs: List[Dict[str, Any]], pictures: Path) -> str:
    """The whole of docs/NODES.md."""
    lines = ["# Nodes", "", "Every node of the graph, by category. Made by `scripts/nodePages` from the helper's own tables: edit those.",
             "Each picture shows the hair before the node on the left, and after it on the right. Lengths are centimetres.", ""]
    for category in [*CATEGORIES, *sorted({s["category"] for s in specs} - set(CATEGORIES))]:
        members = sorted((s for s in specs if s["category"] == category), key=lambda s: s["type"])
        if not members:
            continue
        lines += [f"## {CATEGORIES.get(category, category.capitalize())}", ""]
        for spec in members:
            lines += [f"### {spec['type']}", "", spec["description"], ""]
            if (pictures / f"{spec['type']}.png").exists():
                lines += [f"![{spec['type']}, before and after](images/nodes/{spec['type']}.png)", ""]
            ports = ", ".join(_port(port) for port in spec["inputs"]) or "none"
            outputs = spec.get("outputs") or [spec["output"]]
            gives = "s: " + ", ".join(_port(port) for port in outputs) if len(outputs) > 1 else f": {outputs[0]['type']}"
            lines += [f"Inputs: {ports}. Output{gives}.", ""]
            if spec["params"]:
                lines += ["| Param | Default | Range | |", "|---|---|---|---|"]
                for param in spec["params"]:
                    text = param.get("description", "").replace("|", "\\|").replace("\n", " ")
                    lines.append(f"| `{param['name']}` | {_default(param)} | {_range(param)} | {text} |")
                lines.append("")
    return "\n".join(lines)


def main() -> int:
    parser = argparse.ArgumentParser(prog="nodePages", description=__doc__.split("\n")[0])
    parser.add_argument("--helper", required=True, help="the program corvelle-helper")
    parser.add_argument("--only", nargs="*", help="draw the pictures of these nodes alone")
    parser.add_argument("--text", action="store_true", help="write the page, and draw nothing")
    options = parser.parse_args()
    with Helper(options.helper) as helper:
        specs = helper.operator_specs()
    pictures = DOCS / "images" / "nodes"
    pictures.mkdir(parents=True, exist_ok=True)
    kinds = [] if options.text else options.only or [s["type"] for s in specs if s["type"] in EXAMPLES]
    for kind in kinds:
        print(kind)
        draw_example(options.helper, kind, pictures / f"{kind}.png")
    (DOCS / "NODES.md").write_text(page_text(specs, pictures), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
