"""Grows hair on a head, or on any .obj, through corvelle-helper, and draws it.

    scripts/demo [--scalp FILE.obj] [--strands N] [--picture FILE.png]
"""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path
from typing import Any, Callable, Tuple

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "client"))

from corvelle_client import Helper, keep  # noqa: E402  (the client stands beside the demo)

from .guides import head_guides, mesh_guides  # noqa: E402
from .head import Mesh, make_head, read_obj  # noqa: E402
from .picture import Hair, View, draw, write_png  # noqa: E402

SEGMENTS = 15


def timed(what: str, work: Callable[[], Any]) -> Any:
    """Runs `work` and tells how long it took."""
    start = time.perf_counter()
    result = work()
    print(f"  {what:<46}{(time.perf_counter() - start) * 1e3:10.1f} ms")
    return result


def grown_area(mesh: Mesh) -> float:
    """Square centimetres that hair grows on: the area, weighted by the colour set "scalp"."""
    starts = np.concatenate([[0], np.cumsum(mesh.faceCounts)[:-1]])
    total = 0.0
    for corners in np.unique(mesh.faceCounts):
        first = starts[mesh.faceCounts == corners]
        for k in range(1, corners - 1):
            at = np.stack([first, first + k, first + k + 1], axis=1)
            a, b, c = (mesh.points[mesh.faceIndices[at[:, j]]].astype(np.float64) for j in range(3))
            area = np.linalg.norm(np.cross(b - a, c - a), axis=1) / 2
            if mesh.colorSets:
                area = area * mesh.colorSets["scalp"][at, 0].mean(axis=1)
            total += float(area.sum())
    return total * 1e4


def views_of(mesh: Mesh, head: bool) -> list:
    """Two looks at the whole of it."""
    lo, hi = mesh.points.min(axis=0), mesh.points.max(axis=0)
    if head:
        center = np.array([0.0, 0.0, -0.05])
        return [View((0.55, 1.0, -0.12), (0, 0, 1), center, 0.46), View((-1.0, 0.35, -0.1), (0, 0, 1), center, 0.46)]
    center = (lo + hi) / 2
    height = 1.35 * float((hi - lo).max())
    return [View((0.6, 1.0, -0.25), (0, 0, 1), center, height), View((-1.0, 0.3, -0.2), (0, 0, 1), center, height)]


def groom(helper_path: str, mesh: Mesh, guides: Tuple[np.ndarray, np.ndarray], strands: int, short: bool) -> Tuple[Hair, Any]:
    """Sends the mesh and guides, sets up the graph, and takes the hair. Host space throughout."""
    with Helper(helper_path) as helper, helper.new_session(upAxis="Z", metersPerUnit=1.0) as session:
        timed("set_scalp", lambda: session.set_scalp(
            mesh.points, mesh.faceCounts, mesh.faceIndices, uvs=mesh.uvs, colorSets=mesh.colorSets))
        timed("set_guides", lambda: session.set_guides(*guides))
        session.set_graph(session.get_graph())
        density = strands / grown_area(mesh)
        session.set_param("scatter", "density", {"colorSet": "scalp", "high": density} if mesh.colorSets else density)
        session.set_param("scatter", "randomness", 0.0)
        session.set_param("resample", "segments", SEGMENTS)
        session.set_param("noise", "amplitude", 0.12 if short else 0.9)
        session.set_param("noise", "frequency", 2.0)
        session.set_param("length", "trimMax", 0.25)
        # Lighter on the crown, and every strand a little its own.
        session.set_param("color", "melanin", {"expression": "fit(ny, -0.4, 1, 0.5, 0.28) + 0.14 * (rand - 0.5) + 0.1 * noise(P * 0.4)"})
        session.set_param("color", "redness", 0.45)
        first = timed(f"evaluate, {SEGMENTS} segments", lambda: session.evaluate(mode="render", attributes=["color"]))
        for text in first["errors"]:
            print("  error:", text)
        for node, text in first["notes"].items():
            print(f"  {node}: {text}")
        print(f"  {first['strandCount']} strands, {first['pointCount']} points; nodes:")
        for node, milliseconds in session.node_status()["times"].items():
            print(f"    {node:<44}{milliseconds:10.1f} ms")
        timed("evaluate again, nothing changed", lambda: session.evaluate(mode="render", attributes=["color"]))
        moved = guides[0].copy()
        moved[: guides[1][0]] += np.linspace(0, 0.01, guides[1][0])[:, None]
        timed("set_guides, one guide moved", lambda: session.set_guides(moved, guides[1], ids=np.arange(1, len(guides[1]) + 1)))
        again = timed("evaluate", lambda: session.evaluate(mode="render"))
        print(f"  {again['changedStrands']} strands changed")
        timed("set_guides, back", lambda: session.set_guides(*guides, ids=np.arange(1, len(guides[1]) + 1)))
        hair = keep(session.evaluate(mode="render", attributes=["color"]))
        arrays = hair["arrays"]
        return Hair(arrays["positions"], arrays["offsets"], arrays["attributes"]["color"]["array"]), hair


def main() -> int:
    parser = argparse.ArgumentParser(prog="demo", description=__doc__.split("\n")[0])
    parser.add_argument("--helper", required=True, help="the program corvelle-helper")
    parser.add_argument("--scalp", help="an .obj to grow on, instead of the head")
    parser.add_argument("--strands", type=int, default=100_000)
    parser.add_argument("--picture", default="hair.png")
    options = parser.parse_args()

    mesh = timed("make the mesh", lambda: read_obj(options.scalp) if options.scalp else make_head())
    guides = timed("make the guides", lambda: mesh_guides(mesh) if options.scalp else head_guides())
    hair, answer = groom(options.helper, mesh, guides, options.strands, bool(options.scalp))
    if not answer["strandCount"]:
        print("no hair grew")
        return 1
    views = views_of(mesh, not options.scalp)
    image = timed("draw the picture", lambda: draw(hair, (mesh.points, mesh.triangles()), views))
    write_png(options.picture, image)
    print(f"  {options.picture}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
