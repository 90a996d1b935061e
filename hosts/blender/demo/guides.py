"""The demo's guides: a few dozen curves that leave a mesh along its normal and fall."""

from __future__ import annotations

from typing import Tuple

import numpy as np

from .head import Mesh, head_radius, scalp_mask


def vertex_normals(points: np.ndarray, triangles: np.ndarray) -> np.ndarray:
    """Unit, area weighted: (n, 3)."""
    a, b, c = (points[triangles[:, k]].astype(np.float64) for k in range(3))
    face = np.cross(b - a, c - a)
    normals = np.zeros((len(points), 3))
    for k in range(3):
        np.add.at(normals, triangles[:, k], face)
    return normals / np.maximum(np.linalg.norm(normals, axis=1, keepdims=True), 1e-12)


def _spread(candidates: np.ndarray, count: int) -> np.ndarray:
    """Indices of `count` candidates far from one another: farthest point sampling."""
    chosen = [int(np.argmax(candidates[:, 2]))]
    nearest = np.linalg.norm(candidates - candidates[chosen[0]], axis=1)
    while len(chosen) < min(count, len(candidates)):
        chosen.append(int(np.argmax(nearest)))
        nearest = np.minimum(nearest, np.linalg.norm(candidates - candidates[chosen[-1]], axis=1))
    return np.asarray(chosen)


def fall(roots: np.ndarray, normals: np.ndarray, length: float, count: int, stiffness: float,
         swirl: np.ndarray) -> np.ndarray:
    """Curves (n, count, 3) that start along the normals and bend down (and by `swirl`) as they go."""
    step = length / (count - 1)
    curves = np.empty((len(roots), count, 3))
    curves[:, 0] = roots
    down = np.array([0.0, 0.0, -1.0])
    lean = down + swirl
    lean = lean - normals * np.sum(lean * normals, axis=1, keepdims=True)
    direction = normals + (1.0 - stiffness) * 2.4 * lean  # laid over the surface from the start
    direction /= np.linalg.norm(direction, axis=1, keepdims=True)
    for k in range(1, count):
        pull = (1.0 - stiffness) * (0.35 + k / count)
        direction = direction + pull * (down + swirl * max(0.0, 1.0 - 2.0 * k / count))
        direction /= np.maximum(np.linalg.norm(direction, axis=1, keepdims=True), 1e-12)
        curves[:, k] = curves[:, k - 1] + step * direction
    return curves


def head_guides(count: int = 60, points: int = 12) -> Tuple[np.ndarray, np.ndarray]:
    """Guides for the demo head: a parting to one side, hair that falls past the ears. Returns the
    points of all guides, one after the other, and the points of each."""
    # Fibonacci directions: even over the sphere.
    n = 4000
    i = np.arange(n) + 0.5
    z = 1.0 - 2.0 * i / n
    phi = np.pi * (1.0 + np.sqrt(5.0)) * i
    ring = np.sqrt(1.0 - z * z)
    directions = np.stack([ring * np.cos(phi), ring * np.sin(phi), z], axis=1)
    # Nearer to the ears than hair grows, so that strands there lie between guides.
    candidates = directions[scalp_mask(directions, bare=0.34) > 0.35]
    chosen = candidates[_spread(candidates, count)]
    roots = chosen * head_radius(chosen)[:, None]
    normals = _head_normals(chosen)

    part = 0.025  # metres from the middle: the parting
    side = np.where(roots[:, :1] > part, 1.0, -1.0)
    top = np.clip(chosen[:, 2:3], 0.0, 1.0)
    forehead = np.clip(-chosen[:, 1:2] - 0.2, 0.0, 1.0)
    swirl = np.concatenate([(0.8 * top + 1.6 * forehead) * side, 0.35 * top + 0.9 * forehead, 0.4 * forehead], axis=1)
    shortness = np.clip(-chosen[:, 1], 0.0, 1.0)  # shorter towards the face
    curves = np.concatenate([
        fall(roots[g : g + 1], normals[g : g + 1], 0.24 - 0.04 * shortness[g], points, 0.5, swirl[g : g + 1])
        for g in range(len(roots))
    ])
    # Off the face: what falls in front of it goes to its side, behind the cheek.
    share = np.linspace(0.0, 1.0, points)[None, :]
    front = np.clip((-0.02 - curves[:, :, 1]) / 0.03, 0.0, 1.0) * np.clip((0.075 - curves[:, :, 2]) / 0.06, 0.0, 1.0)
    away = np.where(curves[:, -1:, 0] > part, 1.0, -1.0) * 0.088 - curves[:, :, 0]
    toward = np.clip(front * np.minimum(1.0, 3.0 * share), 0.0, 1.0)
    curves[:, :, 0] += toward * away
    curves[:, :, 1] += toward * 0.035
    return keep_outside(curves).reshape(-1, 3).astype(np.float32), np.full(len(curves), points, np.int32)


def _head_normals(directions: np.ndarray) -> np.ndarray:
    step = 1e-3
    u = np.cross(directions, [0.0, 0.3, 1.0])
    u /= np.linalg.norm(u, axis=1, keepdims=True)
    v = np.cross(directions, u)

    def place(d: np.ndarray) -> np.ndarray:
        d = d / np.linalg.norm(d, axis=1, keepdims=True)
        return d * head_radius(d)[:, None]

    normal = np.cross(place(directions + step * u) - place(directions - step * u),
                      place(directions + step * v) - place(directions - step * v))
    normal /= np.linalg.norm(normal, axis=1, keepdims=True)
    return np.where(np.sum(normal * directions, axis=1, keepdims=True) < 0.0, -normal, normal)


def keep_outside(curves: np.ndarray, clearance: float = 0.006) -> np.ndarray:
    """Pushes points out of the head, segment lengths kept."""
    lengths = np.linalg.norm(np.diff(curves, axis=1), axis=2)
    for k in range(1, curves.shape[1]):
        p = curves[:, k]
        d = p / np.maximum(np.linalg.norm(p, axis=1, keepdims=True), 1e-12)
        lowest = head_radius(d) + clearance * min(1.0, k / 3.0)
        inside = np.linalg.norm(p, axis=1) < lowest
        p[inside] = d[inside] * lowest[inside, None]
        along = p - curves[:, k - 1]
        along /= np.maximum(np.linalg.norm(along, axis=1, keepdims=True), 1e-12)
        moved = curves[:, k - 1] + along * lengths[:, k - 1 : k] - curves[:, k]
        curves[:, k:] += moved[:, None]
    return curves


def mesh_guides(mesh: Mesh, count: int = 60, points: int = 8, length: float = 0.03) -> Tuple[np.ndarray, np.ndarray]:
    """Guides for any mesh: short fur that lies back over it."""
    normals = vertex_normals(mesh.points, mesh.triangles())
    chosen = _spread(mesh.points.astype(np.float64), count)
    n = normals[chosen]
    back = np.array([[0.0, 1.0, 0.0]])
    swirl = 0.8 * (back - n * np.sum(back * n, axis=1, keepdims=True))
    curves = fall(mesh.points[chosen].astype(np.float64), n, length, points, 0.7, swirl)
    return curves.reshape(-1, 3).astype(np.float32), np.full(len(curves), points, np.int32)
