"""The looks of docs/looks: each a graph, on the guides, parts, flow and scissors it needs."""

from __future__ import annotations

import json
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple

import numpy as np

from corvelle_client import Session

from .head import head_radius

FOLDER = Path(__file__).resolve().parents[3] / "docs" / "looks"


@dataclass(frozen=True)
class Look:
    about: str
    part: bool = False  # a parting drawn over the crown
    flow: bool = False  # arrows over the whole head, and a whorl
    scissors: bool = False  # a collider in front of the forehead
    everywhere: bool = False  # hair on the face too: an animal's


LOOKS: Dict[str, Look] = {
    "straight": Look("long straight hair"),
    "wavy": Look("waves that locks of hair share"),
    "ringlets": Look("round locks that wind as one"),
    "coily": Look("short tight coils that stand out"),
    "dreads": Look("ropes: a lock radius, then a twist"),
    "wet": Look("flat locks that stick to one another"),
    "fur": Look("short fur laid along flow arrows", flow=True, everywhere=True),
    "parting": Look("a parting that the hair falls from", part=True),
    "flyaways": Look("strays and frizz over smooth hair"),
    "fringe": Look("a fringe cut along a mesh", scissors=True),
}


def look_graph(name: str) -> Any:
    with open(FOLDER / f"{name}.json", encoding="utf-8") as file:
        return json.load(file)


def dress(session: Session, name: str) -> None:
    """Gives the session the look's graph, and what it reads beside guides and scalp."""
    look = LOOKS[name]
    if look.part or look.flow or look.scissors:
        state = session.get_state(textures=False)
        groom = json.loads(state["groom"])
        scalp = _Surface(groom["scalp"])
        if look.part:
            groom["parts"] = {"version": 1, "parts": [{"name": "middle", "points": _parting(scalp)}]}
        if look.flow:
            groom["flow"] = _flow(scalp)
        if look.scissors:
            groom["colliders"] = {"scissors": _scissors()}
        session.set_state({**state, "groom": json.dumps(groom)})
    session.set_graph(look_graph(name))


class _Surface:
    """The scalp as a groom file holds it: Y up, centimetres, triangles."""

    def __init__(self, scalp: Dict[str, Any]) -> None:
        self.points = np.asarray(scalp["points"], np.float64).reshape(-1, 3)
        self.triangles = np.asarray(scalp["triangles"], np.int64).reshape(-1, 3)
        self._middles = self.points[self.triangles].mean(axis=1)

    def closest(self, place: np.ndarray) -> Tuple[int, float, float]:
        """A triangle and barycentric coordinates: u of the first corner, v of the second."""
        near = np.argsort(np.sum((self._middles - place) ** 2, axis=1))[:12]
        best: Optional[Tuple[float, int, float, float]] = None
        for triangle in near:
            a, b, c = self.points[self.triangles[triangle]]
            basis = np.stack([a - c, b - c], axis=1)
            u, v = np.linalg.lstsq(basis, place - c, rcond=None)[0]
            u, v = max(u, 0.0), max(v, 0.0)
            u, v = u / max(u + v, 1.0), v / max(u + v, 1.0)
            distance = float(np.linalg.norm(c + basis @ np.array([u, v]) - place))
            if best is None or distance < best[0]:
                best = (distance, int(triangle), float(u), float(v))
        assert best is not None
        return best[1:]

    def frame(self, triangle: int) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
        """First edge, normal x edge, normal: unit."""
        a, b, c = self.points[self.triangles[triangle]]
        edge = (b - a) / np.linalg.norm(b - a)
        normal = np.cross(b - a, c - a)
        normal /= np.linalg.norm(normal)
        return edge, np.cross(normal, edge), normal


def _on_head(directions: np.ndarray) -> np.ndarray:
    """Places on the head, groom space, for directions in the host's (Z up, face towards -Y)."""
    directions = directions / np.linalg.norm(directions, axis=1, keepdims=True)
    places = 100.0 * directions * head_radius(directions)[:, None]
    return np.stack([places[:, 0], places[:, 2], -places[:, 1]], axis=1)


def _parting(scalp: _Surface) -> List[List[float]]:
    angle = np.radians(np.linspace(35.0, 105.0, 24))  # from the hairline to the crown
    line = np.stack([np.full(24, 0.28), -np.cos(angle), np.sin(angle)], axis=1)
    return [list(scalp.closest(place)) for place in _on_head(line)]


def _flow(scalp: _Surface) -> Dict[str, Any]:
    """From the nose up over the brow and back, down the cheeks and the neck."""
    n = 240
    i = np.arange(n) + 0.5
    z = 1.0 - 2.0 * i / n
    phi = np.pi * (1.0 + np.sqrt(5.0)) * i
    directions = np.stack([np.sqrt(1 - z * z) * np.cos(phi), np.sqrt(1 - z * z) * np.sin(phi), z], axis=1)
    nose = np.array([0.0, -5.4, 9.6])
    pins = []
    for place in _on_head(directions):
        triangle, u, v = scalp.closest(place)
        edge, across, normal = scalp.frame(triangle)
        away = place - np.array([nose[0], nose[1] + 3.0, nose[2]])
        away = away / np.linalg.norm(away) + np.array([0.0, -0.35, -0.5])
        away -= normal * (away @ normal)
        if np.linalg.norm(away) < 0.1:
            continue
        away /= np.linalg.norm(away)
        pins.append({"face": triangle, "u": u, "v": v, "dir": [float(away @ edge), float(away @ across), 0.0]})
    triangle, u, v = scalp.closest(_on_head(np.array([[0.15, 0.35, 1.0]]))[0])
    return {"version": 1, "pins": pins,
            "sinks": [{"face": triangle, "u": u, "v": v, "angle": 70.0, "radius": 4.0}]}


def _scissors() -> Dict[str, Any]:
    """A bent sheet level with the brows, from one temple to the other: what falls through it is cut there."""
    angle = np.radians(np.linspace(-52.0, 52.0, 25))
    inner = np.stack([8.0 * np.sin(angle), np.full(25, 2.2) - 0.9 * (angle / angle[-1]) ** 2, 8.0 * np.cos(angle)], axis=1)
    outer = np.stack([16.0 * np.sin(angle), inner[:, 1], 18.0 * np.cos(angle)], axis=1)
    points = np.concatenate([inner, outer])
    k = np.arange(24)
    quads = np.stack([k, k + 1, k + 26, k + 25], axis=1)
    triangles = np.concatenate([quads[:, [0, 1, 2]], quads[:, [0, 2, 3]]])
    return {"points": [float(x) for x in points.reshape(-1)], "triangles": [int(x) for x in triangles.reshape(-1)]}
