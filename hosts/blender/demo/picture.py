"""Draws hair and a mesh into a PNG with numpy alone: points of the curves splatted through a depth
buffer, lit as thin cylinders, shadowed by a map of the hair's depth towards the light."""

from __future__ import annotations

import struct
import zlib
from dataclasses import dataclass
from typing import List, Optional, Tuple

import numpy as np


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


def _light_depth(points: np.ndarray, toward: np.ndarray, center: np.ndarray, size: float) -> np.ndarray:
    """How deep each point lies behind the first thing that the light meets, in scene units."""
    axes = View(tuple(toward), (0.1, 0.2, 1.0), center, size).axes()
    cells = 420
    p = points - center
    x = np.clip((p @ axes[0] / size + 0.5) * cells, 0, cells - 1).astype(np.int64)
    y = np.clip((p @ axes[1] / size + 0.5) * cells, 0, cells - 1).astype(np.int64)
    depth = p @ axes[2]
    cell = y * cells + x
    first = np.full(cells * cells, np.inf)
    np.minimum.at(first, cell, depth)
    return depth - first[cell]


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
    gloss = 0.10 * shadow * highlight**36
    sheen = 0.28 * shadow * highlight**10
    return (body + gloss[:, None] + colors * sheen[:, None]).astype(np.float32)


def _hair_points(hair: Hair, spacing: float) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Points along all strands no farther apart than `spacing`, their tangents and colours."""
    positions = np.asarray(hair.positions, np.float64)
    offsets = np.asarray(hair.offsets, np.int64)
    strand = np.repeat(np.arange(len(offsets) - 1), np.diff(offsets))
    start = np.flatnonzero(strand[1:] == strand[:-1])
    segment = positions[start + 1] - positions[start]
    length = np.linalg.norm(segment, axis=1)
    pieces = np.clip(np.ceil(length / spacing), 1, 40).astype(np.int64)
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
    from .guides import vertex_normals

    smooth = vertex_normals(points, triangles)
    na, nb, nc = (smooth[triangles[:, j]] for j in range(3))
    n = na[index] * (1 - u - v)[:, None] + nb[index] * u[:, None] + nc[index] * v[:, None]
    return places, n / np.maximum(np.linalg.norm(n, axis=1, keepdims=True), 1e-12)


def draw(hair: Hair, mesh: Optional[Tuple[np.ndarray, np.ndarray]], views: List[View], width: int = 720,
         height: int = 860, samples: int = 2, skin: Tuple[float, float, float] = (0.62, 0.46, 0.38)) -> np.ndarray:
    """One picture of all views side by side: (height, width * views, 3) bytes. `mesh` is (points, triangles)."""
    pictures = []
    for view in views:
        canvas = Canvas(width, height, samples)
        spacing = view.height / (height * samples)
        right, up, forward = view.axes()
        light = forward * 0.75 - up * 0.75 + right * 0.55
        light /= np.linalg.norm(light)
        points, tangents, colors = _hair_points(hair, spacing)
        shadow_points = points
        if mesh is not None:
            places, normals = _mesh_points(*mesh, spacing * 0.7)
            shadow_points = np.concatenate([points, places])
        behind = _light_depth(shadow_points, light, view.center, view.height * 1.6)
        if mesh is not None:
            facing = np.clip(normals @ -light, 0.0, 1.0)
            open_to_light = np.exp(-behind[len(points):] / (0.03 * view.height))
            lit = 0.30 + 0.75 * facing * open_to_light
            canvas.splat(places, (lit[:, None] * np.asarray(skin)).astype(np.float32), view)
        shadow = 0.25 + 0.75 * np.exp(-behind[: len(points)] / (0.035 * view.height))
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
