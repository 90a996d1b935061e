"""Recorded strokes on the demo head: every tool once, with a picture before and after it."""

from __future__ import annotations

from pathlib import Path
from typing import Any, Dict, List, Tuple

import numpy as np

from corvelle_client import Session, keep, make_view

from .guides import head_guides
from .head import make_head
from .picture import Hair, View, draw, write_png
from .stage import grown_area, stage

WIDTH, HEIGHT = 480, 560
STRANDS = 12_000
LOOK = View((0.35, 1.0, -0.25), (0, 0, 1), np.array([0.0, 0.0, -0.03]), 0.42)

#: A line across the fringe and one down the side, as shares of the picture from the lower left.
ACROSS = [(0.32 + 0.04 * i, 0.72 - 0.004 * i * i) for i in range(9)]
DOWN = [(0.62 + 0.012 * i, 0.70 - 0.045 * i) for i in range(9)]
#: Over the crown, where hair grows, and from there to the forehead.
CROWN = [(0.34 + 0.04 * i, 0.80 - 0.002 * (i - 4) ** 2) for i in range(9)]
PARTING = [(0.545 + 0.003 * i, 0.86 - 0.02 * i) for i in range(9)]

#: What shows on the hair only by a node: put in after "length" for the tool's pictures, which keeps
#: this share of the hair.
NODES: Dict[str, Tuple[str, Dict[str, Any], float]] = {
    "part": ("Part", {"width": 2.5}, 1.0),
    "flow": ("Flow", {}, 0.15),
}

#: tool, its settings, the line, and what is held down.
RECORDED: List[Tuple[str, Dict[str, Any], List[Tuple[float, float]], Dict[str, bool]]] = [
    ("place", {"spacing": 1.0, "matchNeighbors": False, "length": 6.0}, CROWN, {}),
    ("draw", {}, [(0.5, 0.74), (0.56, 0.8), (0.64, 0.84), (0.74, 0.84)], {}),
    ("part", {"partName": "middle"}, PARTING, {}),
    ("flow", {"radius": 60}, CROWN, {}),
    ("comb", {"radius": 90}, ACROSS, {}),
    ("slide", {"radius": 60}, CROWN[:5], {}),
    ("smooth", {"radius": 120}, DOWN, {}),
    ("straighten", {"radius": 120}, DOWN, {}),
    ("lift", {"radius": 90}, ACROSS, {}),
    ("twist", {"radius": 120, "strength": 1.0}, DOWN, {}),
    ("curl", {"radius": 120, "strength": 1.0}, DOWN, {}),
    ("attract", {"radius": 120, "strength": 1.0}, DOWN, {}),
    ("direction", {"radius": 90, "strength": 1.0}, ACROSS[::-1], {}),
    ("noise", {"radius": 120, "strength": 1.0}, DOWN, {}),
    ("tube", {"radius": 90}, DOWN, {}),
    ("cut", {"radius": 25}, [(0.25 + 0.05 * i, 0.42) for i in range(11)], {}),
    ("length", {"radius": 90, "strength": -1.0}, DOWN, {}),
    ("erase", {"radius": 30}, ACROSS[3:6], {}),
    ("paint", {"radius": 90, "attribute": "painted", "paintKind": "vertices", "value": 0.0}, CROWN, {}),
    ("width", {"radius": 90, "strength": 1.0, "value": 1.0}, CROWN, {"ctrl": True}),
    ("density", {"radius": 60, "strength": 1.0, "value": 1.0}, DOWN, {"ctrl": True}),
    ("freeze", {"radius": 60}, DOWN, {}),
]


def _camera() -> Dict[str, Any]:
    """The picture's own look as a view for strokes."""
    right, up, forward = LOOK.axes()
    height = LOOK.height / 2
    scale = np.array([1 / (height * WIDTH / HEIGHT), 1 / height, 1.0])
    rows = np.stack([right, up, forward]) * scale[:, None]
    matrix = np.eye(4)
    matrix[:3, :3] = rows
    matrix[:3, 3] = -rows @ LOOK.center
    return make_view(np.eye(4), matrix, WIDTH, HEIGHT)


def _insert(session: Session, tool: str) -> None:
    """Puts the node in that shows what the tool draws."""
    kind, params, keep_share = NODES[tool]
    session.set_param("length", "keep", keep_share)
    name = session.edit_graph("add_node", type=kind)["name"]
    for param, value in params.items():
        session.set_param(name, param, value)
    session.edit_graph("connect", **{"from": "length", "to": name, "input": "strands"})
    session.edit_graph("connect", **{"from": name, "to": "noise", "input": "strands"})


def _hair_colors(session: Session, tool: str, arrays: Dict[str, Any]) -> np.ndarray:
    """By the map for the painted one, darker where hair is thin for the width, else the hair's own."""
    colors = np.array(arrays["attributes"]["color"]["array"])
    if tool == "paint":
        asked = {"mode": "attribute", "source": "map", "name": "painted"}
        return np.array(keep(session.display(strandColors=asked))["strandColors"]["colors"])
    if tool == "width":
        thick = np.array(arrays["widths"])[arrays["offsets"][:-1].astype(np.int64)]
        return colors * (thick / thick.max())[:, None] * 2.0
    return colors


def _seen(session: Session, tool: str) -> Hair:
    """The hair, and the lines that a viewport would draw over it."""
    answer = keep(session.evaluate(mode="render", attributes=["color"]))
    for text in answer["errors"]:
        print("  error:", text)
    arrays = answer["arrays"]
    positions, colors = [arrays["positions"]], [_hair_colors(session, tool, arrays)]
    offsets = arrays["offsets"].astype(np.int64)
    for item in keep(session.display(settings={"guideSmoothing": True}))["items"]:
        if item["primitive"] != "lines" or not item["vertexCount"]:
            continue
        points = item["arrays"]["positions"]
        each = item["arrays"]["colors"] if item["perVertexColors"] else np.tile(item["color"], (len(points), 1))
        positions.append(points)
        colors.append(each[::2].astype(np.float32))
        offsets = np.concatenate([offsets, offsets[-1] + 2 * np.arange(1, len(points) // 2 + 1)])
    return Hair(np.concatenate(positions), offsets, np.concatenate(colors))


def _same(a: Hair, b: Hair) -> bool:
    return all(np.array_equal(x, y) for x, y in ((a.positions, b.positions), (a.offsets, b.offsets), (a.colors, b.colors)))


def sculpt(helper_path: str, folder: str) -> int:
    """Writes "<nn>_<tool>.png" into `folder`: before the stroke on the left, after it on the right."""
    Path(folder).mkdir(parents=True, exist_ok=True)
    mesh = make_head()
    points, counts = head_guides(120)
    failed = 0
    with stage(helper_path, mesh, (points[:0], counts[:0])) as session:
        session.set_guides(points, counts, target="hierarchy")
        session.set_graph(session.get_graph())
        session.set_param("scatter", "density", {"colorSet": "scalp", "high": STRANDS / grown_area(mesh)})
        session.set_param("noise", "frequency", 2.0)
        session.map_create("painted", "vertices")
        view = _camera()
        for number, (tool, settings, line, held) in enumerate(RECORDED, 1):
            if tool == "density":  # a colour set drives it so far, and that cannot be painted
                session.set_param("scatter", "density", STRANDS / 1400.0)
            graph = session.get_graph()
            if tool in NODES:
                _insert(session, tool)
            before = _seen(session, tool)
            session.tool_set(tool, **settings)
            pixels = [[x * WIDTH, y * HEIGHT] for x, y in line]
            answer = session.stroke(pixels, view=view, **held)
            failed += not answer.get("committed")
            after = _seen(session, tool)
            surface = (mesh.points, mesh.triangles())
            path = str(Path(folder) / f"{number:02}_{tool}.png")
            write_png(path, np.concatenate([draw(hair, surface, [LOOK], WIDTH, HEIGHT) for hair in (before, after)], axis=1))
            told = ", ".join(answer.get("stroke", [])) or "nothing"
            print(f"  {path}: changed {told}" + "".join("; " + text for text in answer["warnings"]))
            session.undo()
            if not _same(_seen(session, tool), before):
                print(f"  {tool}: undo left something behind")
                failed += 1
            if tool in NODES:
                session.set_graph(graph)
    return 1 if failed else 0
