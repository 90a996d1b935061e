"""The demo's head: a smooth closed mesh with a face, ears and a scalp area, made of nothing.

Every vertex lies on a ray from the middle of the head, so that the shape is one function of the
direction, and anything can be tested against it. Host space: Z up, metres, the face towards -Y.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Dict, Optional, Tuple

import numpy as np


@dataclass
class Mesh:
    """Polygons as a host has them. UVs and colour sets are per face corner."""

    points: np.ndarray  # (n, 3) float32
    faceCounts: np.ndarray  # (f,) int32
    faceIndices: np.ndarray  # (corners,) int32
    uvs: Optional[np.ndarray] = None  # (corners, 2) float32
    colorSets: Optional[Dict[str, np.ndarray]] = None  # name to (corners, 4) float32

    def triangles(self) -> np.ndarray:
        """Fans of the polygons: (t, 3) vertex indices."""
        starts = np.concatenate([[0], np.cumsum(self.faceCounts)[:-1]])
        fans = []
        for corners in np.unique(self.faceCounts):
            first = starts[self.faceCounts == corners]
            for k in range(1, corners - 1):
                fans.append(np.stack([first, first + k, first + k + 1], axis=1))
        return self.faceIndices[np.concatenate(fans)] if fans else np.zeros((0, 3), np.int32)


def _bump(directions: np.ndarray, at: Tuple[float, float, float], width: float) -> np.ndarray:
    """A smooth hill of height 1 around a direction; width in radians."""
    toward = np.asarray(at, np.float64)
    toward = toward / np.linalg.norm(toward)
    angle = np.arccos(np.clip(directions @ toward, -1.0, 1.0))
    return np.exp(-((angle / width) ** 2))


def head_radius(directions: np.ndarray) -> np.ndarray:
    """Distance from the middle of the head to its surface, in metres; directions are unit, (n, 3)."""
    d = np.asarray(directions, np.float64)
    x, y, z = d[:, 0], d[:, 1], d[:, 2]
    # The skull: wider behind, narrower at the temples, longer than wide.
    front = np.clip(-y, 0.0, 1.0)
    width = 0.078 - 0.008 * front + 0.004 * np.clip(y, 0.0, 1.0)
    low = np.clip(-z, 0.0, 1.0)
    width = width - 0.020 * low**2
    depth = np.where(y < 0.0, 0.096, 0.100)
    height = np.where(z > 0.0, 0.112, 0.118)
    r = 1.0 / np.sqrt((x / width) ** 2 + (y / depth) ** 2 + (z / height) ** 2)
    # The face.
    r = r + 0.017 * _bump(d, (0.0, -1.0, -0.30), 0.17)  # nose, its tip
    r = r + 0.007 * _bump(d, (0.0, -1.0, -0.02), 0.14)  # nose, its bridge
    r = r + 0.007 * (_bump(d, (0.32, -1.0, 0.16), 0.22) + _bump(d, (-0.32, -1.0, 0.16), 0.22))  # brow
    r = r - 0.010 * (_bump(d, (0.36, -1.0, -0.05), 0.18) + _bump(d, (-0.36, -1.0, -0.05), 0.18))  # eyes
    r = r + 0.004 * (_bump(d, (0.36, -1.0, -0.05), 0.09) + _bump(d, (-0.36, -1.0, -0.05), 0.09))
    r = r + 0.006 * (_bump(d, (0.55, -1.0, -0.35), 0.26) + _bump(d, (-0.55, -1.0, -0.35), 0.26))  # cheeks
    r = r + 0.006 * _bump(d, (0.0, -1.0, -0.72), 0.16)  # mouth
    r = r - 0.004 * _bump(d, (0.0, -1.0, -0.73), 0.05)
    r = r + 0.016 * _bump(d, (0.0, -1.0, -1.10), 0.26)  # chin
    # The neck, and the ears with their hollows.
    r = r + 0.050 * _bump(d, (0.0, 0.25, -1.0), 0.36)
    for side in (1.0, -1.0):
        r = r + 0.021 * _bump(d, (side, 0.10, -0.12), 0.17)
        r = r + 0.010 * _bump(d, (side, 0.16, 0.06), 0.12)
        r = r - 0.016 * _bump(d, (side, 0.00, -0.10), 0.09)
    return r


def scalp_mask(directions: np.ndarray, bare: float = 0.47) -> np.ndarray:
    """Where hair grows, 0 to 1: above a hairline that runs over the ears to the nape. `bare` is how wide
    the skin round the ears is left free, in radians: the skull bends outward there."""
    d = np.asarray(directions, np.float64)
    d = d / np.linalg.norm(d, axis=1, keepdims=True)
    azimuth = np.abs(np.arctan2(d[:, 0], -d[:, 1]))  # 0 in front, pi behind
    line = np.interp(azimuth, [0.0, 0.5, 0.9, 1.25, 1.55, 1.9, 2.4, np.pi],
                     [0.58, 0.62, 0.50, 0.24, 0.22, -0.10, -0.34, -0.36])
    ears = sum(_bump(d, (side, 0.10, -0.04), bare) for side in (1.0, -1.0))
    above = np.clip((d[:, 2] - line) / 0.09, 0.0, 1.0)
    return above * above * (3.0 - 2.0 * above) * np.clip(1.0 - 1.6 * ears, 0.0, 1.0)


def make_head(rings: int = 64, segments: int = 96) -> Mesh:
    """A head of about 2 * rings * segments triangles, with UVs and the colour set "scalp"."""
    polar = np.pi * np.arange(1, rings) / rings
    around = 2.0 * np.pi * np.arange(segments) / segments
    theta, phi = np.meshgrid(polar, around, indexing="ij")
    grid = np.stack([np.sin(theta) * np.sin(phi), np.sin(theta) * np.cos(phi), np.cos(theta)], axis=-1)
    directions = np.concatenate([[[0.0, 0.0, 1.0]], grid.reshape(-1, 3), [[0.0, 0.0, -1.0]]])
    points = (directions * head_radius(directions)[:, None]).astype(np.float32)

    def vertex(ring: int, column: np.ndarray) -> np.ndarray:
        return 1 + (ring - 1) * segments + column % segments

    columns = np.arange(segments)
    last = len(directions) - 1
    counts, indices, uvs = [], [], []
    u0, u1 = columns / segments, (columns + 1) / segments

    def add(corners: list, us: list, vs: list) -> None:
        counts.append(np.full(segments, len(corners), np.int32))
        indices.append(np.stack(corners, axis=1).reshape(-1))
        uvs.append(np.stack([np.stack(us, axis=1), np.broadcast_to(vs, (segments, len(vs)))], axis=2).reshape(-1, 2))

    add([np.zeros(segments, np.int64), vertex(1, columns + 1), vertex(1, columns)],
        [(u0 + u1) / 2, u1, u0], [1.0, 1.0 - 1.0 / rings, 1.0 - 1.0 / rings])
    for ring in range(1, rings - 1):
        v0, v1 = 1.0 - ring / rings, 1.0 - (ring + 1) / rings
        add([vertex(ring, columns), vertex(ring, columns + 1), vertex(ring + 1, columns + 1), vertex(ring + 1, columns)],
            [u0, u1, u1, u0], [v0, v0, v1, v1])
    add([vertex(rings - 1, columns), vertex(rings - 1, columns + 1), np.full(segments, last)],
        [u0, u1, (u0 + u1) / 2], [1.0 / rings, 1.0 / rings, 0.0])

    faceIndices = np.concatenate(indices).astype(np.int32)
    # A hairline, but no lone hairs below it.
    mask = np.clip(1.4 * scalp_mask(directions) - 0.4, 0.0, 1.0).astype(np.float32)[faceIndices]
    color = np.stack([mask, mask, mask, np.ones_like(mask)], axis=1)
    return Mesh(points, np.concatenate(counts), faceIndices, np.concatenate(uvs).astype(np.float32), {"scalp": color})


def read_obj(path: str, size: float = 0.25) -> Mesh:
    """A Wavefront .obj, turned to Z up, scaled to `size` metres along its longest side. Faces of any
    number of corners; UVs where every corner has one."""
    points, texture, counts, corners, corner_uvs = [], [], [], [], []
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            word, *rest = line.split() or [""]
            if word == "v":
                points.append([float(v) for v in rest[:3]])
            elif word == "vt":
                texture.append([float(v) for v in rest[:2]])
            elif word == "f":
                counts.append(len(rest))
                for corner in rest:
                    parts = corner.split("/")
                    corners.append(int(parts[0]))
                    corner_uvs.append(int(parts[1]) if len(parts) > 1 and parts[1] else 0)
    xyz = np.asarray(points, np.float64)
    if not len(xyz) or not counts:
        raise ValueError(f"{path}: no mesh in it (give an .obj with v and f lines)")
    xyz = np.stack([xyz[:, 0], -xyz[:, 2], xyz[:, 1]], axis=1)
    xyz -= (xyz.min(axis=0) + xyz.max(axis=0)) / 2
    xyz *= size / (xyz.max(axis=0) - xyz.min(axis=0)).max()

    def zero_based(given: list, total: int) -> np.ndarray:
        index = np.asarray(given, np.int64)
        return np.where(index < 0, index + total, index - 1)

    mesh = Mesh(xyz.astype(np.float32), np.asarray(counts, np.int32), zero_based(corners, len(xyz)).astype(np.int32))
    if texture and all(corner_uvs):
        mesh.uvs = np.asarray(texture, np.float32)[zero_based(corner_uvs, len(texture))]
    return mesh
