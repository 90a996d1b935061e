"""What every run of the demo stands on: a mesh and guides in a session, views of them, and the hair taken."""

from __future__ import annotations

import time
from contextlib import contextmanager
from typing import Any, Callable, Iterator, List, Tuple

import numpy as np

from corvelle_client import Helper, Session, keep

from .head import Mesh
from .picture import PICTURE_ASPECT, Hair, View

Guides = Tuple[np.ndarray, np.ndarray]  # points of all, and the points of each


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


def views_of(mesh: Mesh, head: bool, hair: Hair) -> List[View]:
    """Two looks at the mesh and all its hair but the last stray, at one scale."""
    toward = [(0.55, 1.0, -0.12), (-1.0, 0.35, -0.1)] if head else [(0.6, 1.0, -0.25), (-1.0, 0.3, -0.2)]
    views, height = [], 0.0
    for direction in toward:
        axes = View(direction, (0, 0, 1), np.zeros(3), 1.0).axes()
        center, size = np.zeros(3), []
        for axis in axes[:2]:
            along_mesh, along_hair = mesh.points @ axis, np.asarray(hair.positions) @ axis
            strays = np.percentile(along_hair, [0.05, 99.95]) if len(along_hair) else along_mesh[:2]
            lo, hi = min(along_mesh.min(), strays[0]), max(along_mesh.max(), strays[1])
            center = center + axis * ((lo + hi) / 2)
            size.append(hi - lo)
        height = max(height, 1.07 * size[1], 1.07 * size[0] / PICTURE_ASPECT)
        views.append((direction, center))
    return [View(direction, (0, 0, 1), center, height) for direction, center in views]


@contextmanager
def stage(helper_path: str, mesh: Mesh, guides: Guides) -> Iterator[Session]:
    """A session with the mesh and the guides, in metres and Z up."""
    with Helper(helper_path) as helper, helper.new_session(upAxis="Z", metersPerUnit=1.0) as session:
        timed("set_scalp", lambda: session.set_scalp(
            mesh.points, mesh.faceCounts, mesh.faceIndices, uvs=mesh.uvs, colorSets=mesh.colorSets))
        timed("set_guides", lambda: session.set_guides(*guides))
        yield session


def take_hair(session: Session, **options: Any) -> Tuple[Hair, Any]:
    """Evaluates for a render and copies the curves out. Prints what the nodes had to say."""
    answer = keep(session.evaluate(mode="render", attributes=["color"], **options))
    for text in answer["errors"]:
        print("  error:", text)
    for node, text in answer["notes"].items():
        print(f"  {node}: {text}")
    arrays = answer["arrays"]
    return Hair(arrays["positions"], arrays["offsets"], arrays["attributes"]["color"]["array"]), answer
