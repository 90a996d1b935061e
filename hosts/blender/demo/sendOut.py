"""Hair out of the demo: the groom as a file, and frames of it for renderers and engines."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np

from .head import Mesh

FRAMES = 10
STRANDS = 10_000  #: about as many go out: text layers of all of them would be large
DEGREES = 2.0  #: that the mesh turns from frame to frame
FORMATS = {"alembic": ".abc", "usd": ".usda"}


def turned(points: np.ndarray, degrees: float) -> np.ndarray:
    """The points turned about the vertical through the origin."""
    c, s = np.cos(np.radians(degrees)), np.sin(np.radians(degrees))
    return (points @ np.array([[c, s, 0], [-s, c, 0], [0, 0, 1]])).astype(np.float32)


def send_out(session: Any, mesh: Mesh, strands: int, stem: Path) -> None:
    """Saves the groom, then exports the hair as it follows the turning mesh, to every format at once."""
    print(f"  {session.save_groom(f'{stem}.groom')['path']}")
    session.set_options(followScalp=True)
    jobs = [session.export_open(f"{stem}{ending}", format=name, guides=name == "alembic")
            for name, ending in FORMATS.items()]
    for frame in range(FRAMES):
        session.update_scalp(turned(mesh.points, DEGREES * frame), restPoints=mesh.points)
        for job in jobs:
            session.export_frame(job, frame=1 + frame, density=min(1.0, STRANDS / max(1, strands)))
    for job in jobs:
        done = session.export_close(job)
        print(f"  {done['path']}: {done['frames']} frames")
        for text in done["warnings"]:
            print("  warning:", text)
