"""Draws hair and a mesh into a PNG with numpy alone: points of the curves splatted through a depth
buffer, lit as thin cylinders, shadowed by a map of the hair's depth towards the light."""

from __future__ import annotations

import struct
import zlib
from dataclasses import dataclass
from typing import List, Optional, Tuple

import numpy as np

from .guides import vertex_normals

STRANDS_AT_ONCE = 4000  # what fits the caches, more or less
PICTURE_WIDTH, PICTURE_HEIGHT = 720, 860  # pixels of one view
PICTURE_ASPECT = PICTURE_WIDTH / PICTURE_HEIGHT


@dataclass
class View:
    """An orthographic look at the origin's surroundings. Vectors in the scene's own space."""

    toward: Tuple[float, float, float]  # from the eye into the scene
    up: Tuple[float, float, float]
    center: np.ndarray
    height: float  # of what is seen, in scene units

    def axes(self) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
        forward = np.asarray(self.toward, np.float64)
        forward /= np.linalg.norm(forward)
        right = np.cross(forward, self.up)
        right /= np.linalg.norm(right)
        return right, np.cross(right, forward), forward


@dataclass
class Hair:
    """Curves as an answer brings them. Colours are linear RGB per strand."""

    positions: np.ndarray
    offsets: np.ndarray
    colors: np.ndarray


class Canvas:
    """Colour and depth at a multiple of the picture's size, averaged down at the end."""

    def __init__(self, width: int, height: int, samples: int) -> None:
        self.samples = samples
        self.shape = (height * samples, width * samples)
        self.color = np.full((*self.shape, 3), 0.82, np.float32)
        self.color *= np.linspace(1.06, 0.9, self.shape[0], dtype=np.float32)[:, None, None]
        self.depth = np.full(self.shape[0] * self.shape[1], np.inf, np.float32)

    def splat(self, points: np.ndarray, colors: np.ndarray, view: View) -> None:
        """Draws points, nearest last."""
        right, up, forward = view.axes()
        p = points - view.center
        rows, columns = self.shape
        scale = rows / view.height
        x = (p @ right * scale + columns / 2).astype(np.int64)
        y = (rows / 2 - p @ up * scale).astype(np.int64)
        depth = (p @ forward).astype(np.float32)
        seen = (x >= 0) & (x < columns) & (y >= 0) & (y < rows)
        pixel = y[seen] * columns + x[seen]
        depth, colors = depth[seen], colors[seen]
        order = np.argsort(-depth, kind="stable")
        pixel, depth, colors = pixel[order], depth[order], colors[order]
        nearer = depth < self.depth[pixel]
        pixel, depth, colors = pixel[nearer], depth[nearer], colors[nearer]
        self.depth[pixel] = depth
        self.color.reshape(-1, 3)[pixel] = colors

    def image(self) -> np.ndarray:
        s = self.samples
        rows, columns = self.shape
        linear = self.color.reshape(rows // s, s, columns // s, s, 3).mean(axis=(1, 3))
        return (np.clip(linear, 0.0, 1.0) ** (1.0 / 2.2) * 255.0 + 0.5).astype(np.uint8)


class LightMap:
    """How much light reaches points: a shadow map with the share of each cell that is covered, so that
    a lone strand in front of a cheek does not put it into the dark."""

    CELLS = 640
    FULL = 3.0  # points of hair in a cell that leave a third of the light

    def __init__(self, toward: np.ndarray, center: np.ndarray, size: float) -> None:
        self._axes = View(tuple(toward), (0.1, 0.2, 1.0), center, size).axes()
        self._center, self._size = center, size
        self.cell = size / self.CELLS
        self._first = np.full(self.CELLS * self.CELLS, np.inf)
        self._covered = np.zeros(self.CELLS * self.CELLS)

    def _place(self, points: np.ndarray) -> Tuple[np.ndarray, np.ndarray]:
        p = points - self._center
        x, y = (np.clip((p @ axis / self._size + 0.5) * self.CELLS, 0, self.CELLS - 1).astype(np.int64)
                for axis in self._axes[:2])
        return y * self.CELLS + x, p @ self._axes[2]

    def add(self, points: np.ndarray, solid: bool) -> None:
        cell, depth = self._place(points)
        if solid:
            self._covered[cell] = np.inf
        else:
            self._covered += np.bincount(cell, minlength=len(self._covered))
        order = np.argsort(-depth, kind="stable")  # nearest written last
        cell, depth = cell[order], depth[order]
        nearer = depth < self._first[cell]
        self._first[cell[nearer]] = depth[nearer]

    def reaches(self, points: np.ndarray, fade: float) -> np.ndarray:
        """1 for what the light meets first, less behind it, over `fade` in scene units."""
        cell, depth = self._place(points)
        behind = np.maximum(depth - np.minimum(self._first[cell], 1e9), 0.0)
        return 1.0 - (1.0 - np.exp(-behind / fade)) * (1.0 - np.exp(-self._covered[cell] / self.FULL))


def _shade_hair(points: np.ndarray, tangents: np.ndarray, colors: np.ndarray, view: View, light: np.ndarray,
                shadow: np.ndarray) -> np.ndarray:
    """Kajiya and Kay's thin cylinder: diffuse by the sine to the light, a highlight along the strand."""
    eye = -view.axes()[2]
    to_light = -light
    along_light = tangents @ to_light
    along_eye = tangents @ eye
    sine_light = np.sqrt(np.clip(1.0 - along_light**2, 0.0, 1.0))
    sine_eye = np.sqrt(np.clip(1.0 - along_eye**2, 0.0, 1.0))
    highlight = np.clip(sine_light * sine_eye - along_light * along_eye, 0.0, 1.0)
    lit = shadow * sine_light
    body = colors * (0.28 + 1.15 * lit)[:, None]
    gloss = 0.07 * shadow * highlight**36
    sheen = 0.45 * shadow * highlight**10
    return (body + gloss[:, None] + colors * sheen[:, None]).astype(np.float32)


def _some_strands(hair: Hair, most: int) -> Hair:
    """At most so many strands, evenly picked: more of them only hide one another."""
    offsets = np.asarray(hair.offsets, np.int64)
    count = len(offsets) - 1
    if count <= most:
        return hair
    picked = (np.arange(most) * count) // most
    lengths = np.diff(offsets)[picked]
    start = np.repeat(offsets[picked] - (np.cumsum(lengths) - lengths), lengths)
    return Hair(np.asarray(hair.positions)[start + np.arange(len(start))], np.concatenate([[0], np.cumsum(lengths)]),
                np.asarray(hair.colors)[picked])


def _hair_points(hair: Hair, spacing: float) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Points along all strands no farther apart than `spacing`, their tangents and colours."""
    positions = np.asarray(hair.positions, np.float32)
    offsets = np.asarray(hair.offsets, np.int64)
    strand = np.repeat(np.arange(len(offsets) - 1), np.diff(offsets))
    start = np.flatnonzero(strand[1:] == strand[:-1])
    segment = positions[start + 1] - positions[start]
    length = np.linalg.norm(segment, axis=1)
    pieces = np.clip(np.ceil(length / spacing), 1, 80).astype(np.int64)
    index = np.repeat(np.arange(len(start)), pieces)
    within = np.arange(len(index)) - np.repeat(np.cumsum(pieces) - pieces, pieces)
    share = (within + 0.5) / pieces[index]
    points = positions[start[index]] + segment[index] * share[:, None]
    tangents = (segment / np.maximum(length, 1e-12)[:, None])[index]
    return points, tangents, np.asarray(hair.colors, np.float32)[strand[start[index]]]


def _mesh_points(points: np.ndarray, triangles: np.ndarray, spacing: float) -> Tuple[np.ndarray, np.ndarray]:
    """Points over all triangles about `spacing` apart, and their normals."""
    a, b, c = (points[triangles[:, k]].astype(np.float64) for k in range(3))
    normal = np.cross(b - a, c - a)
    area = np.linalg.norm(normal, axis=1) / 2
    count = np.clip(np.ceil(2.0 * area / spacing**2), 1, 4000).astype(np.int64)
    index = np.repeat(np.arange(len(a)), count)
    k = np.arange(len(index)) + 0.5
    u, v = (k * 0.7548776662466927) % 1.0, (k * 0.5698402909980532) % 1.0  # an even sequence (R2)
    fold = u + v > 1.0
    u, v = np.where(fold, 1.0 - u, u), np.where(fold, 1.0 - v, v)
    places = a[index] + (b - a)[index] * u[:, None] + (c - a)[index] * v[:, None]
    smooth = vertex_normals(points, triangles)
    na, nb, nc = (smooth[triangles[:, j]] for j in range(3))
    n = na[index] * (1 - u - v)[:, None] + nb[index] * u[:, None] + nc[index] * v[:, None]
    return places, n / np.maximum(np.linalg.norm(n, axis=1, keepdims=True), 1e-12)


def draw(hair: Hair, mesh: Optional[Tuple[np.ndarray, np.ndarray]], views: List[View],
         width: int = PICTURE_WIDTH, height: int = PICTURE_HEIGHT, samples: int = 2,
         skin: Tuple[float, float, float] = (0.62, 0.46, 0.38), most: int = 40_000) -> np.ndarray:
    """One picture of all views side by side: (height, width * views, 3) bytes. `mesh` is (points, triangles)."""
    pictures = []
    for view in views:
        canvas = Canvas(width, height, samples)
        spacing = view.height / (height * samples)
        right, up, forward = view.axes()
        light = forward * 0.75 - up * 0.75 + right * 0.55
        light /= np.linalg.norm(light)
        drawn = _some_strands(hair, most)
        shadows = LightMap(light, view.center, view.height * 1.6)
        places, normals = _mesh_points(*mesh, 0.75 * spacing) if mesh is not None else (np.zeros((0, 3)), np.zeros((0, 3)))
        shadows.add(places, solid=True)
        shadows.add(_hair_points(drawn, shadows.cell)[0], solid=False)
        facing, seen = (np.clip(normals @ -axis, 0.0, 1.0) for axis in (light, forward))
        lit = 0.14 + 0.22 * seen + 0.75 * facing * shadows.reaches(places, 0.03 * view.height)
        canvas.splat(places, (lit[:, None] * np.asarray(skin)).astype(np.float32), view)
        for first in range(0, len(drawn.offsets) - 1, STRANDS_AT_ONCE):
            offsets = np.asarray(drawn.offsets)[first : first + STRANDS_AT_ONCE + 1]
            part = Hair(drawn.positions[offsets[0] : offsets[-1]], offsets - offsets[0],
                        drawn.colors[first : first + STRANDS_AT_ONCE])
            points, tangents, colors = _hair_points(part, 1.6 * spacing)
            shadow = 0.25 + 0.75 * shadows.reaches(points, 0.035 * view.height)
            canvas.splat(points, _shade_hair(points, tangents, colors, view, light, shadow), view)
        pictures.append(canvas.image())
    return np.concatenate(pictures, axis=1)


def write_png(path: str, image: np.ndarray) -> None:
    """8-bit RGB."""
    rows, columns, _ = image.shape
    raw = np.concatenate([np.zeros((rows, 1), np.uint8), image.reshape(rows, columns * 3)], axis=1).tobytes()

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    with open(path, "wb") as file:
        file.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", columns, rows, 8, 2, 0, 0, 0)))
        file.write(chunk(b"IDAT", zlib.compress(raw, 6)) + chunk(b"IEND", b""))
