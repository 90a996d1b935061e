"""Grows hair on a head, or on any .obj, through corvelle-helper, and draws it. Then saves the groom and
exports ten frames of the head turning, to Alembic and to USD, beside the picture.

    scripts/demo [--scalp FILE.obj] [--strands N] [--picture FILE.png]
    scripts/demo --look NAME [--picture FILE.png]
    scripts/demo --sculpt [FOLDER]
"""

from __future__ import annotations

import argparse
import sys
from pathlib import Path
from typing import Any, Tuple

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "client"))

from .guides import head_guides, mesh_guides  # noqa: E402  (the client stands beside the demo)
from .head import Mesh, make_head, read_obj  # noqa: E402
from .looks import LOOKS, dress  # noqa: E402
from .picture import Hair, draw, write_png  # noqa: E402
from .sendOut import send_out  # noqa: E402
from .sculpt import sculpt  # noqa: E402
from .stage import Guides, grown_area, stage, take_hair, timed, views_of  # noqa: E402

SEGMENTS = 15


def groom(helper_path: str, mesh: Mesh, guides: Guides, strands: int, short: bool, stem: Path) -> Tuple[Hair, Any]:
    """Sends the mesh and guides, sets up the graph, and takes the hair. Host space throughout."""
    with stage(helper_path, mesh, guides) as session:
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
        _, first = timed(f"evaluate, {SEGMENTS} segments", lambda: take_hair(session))
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
        hair, answer = take_hair(session)
        timed("save the groom, export its frames", lambda: send_out(session, mesh, answer["strandCount"], stem))
        return hair, answer


def show_look(helper_path: str, name: str, picture: str) -> int:
    """One graph of docs/looks on the head. Fails when a node has something to complain of."""
    print(f"  {name}: {LOOKS[name].about}")
    mesh = make_head()
    with stage(helper_path, mesh, head_guides()) as session:
        timed("set_graph and what it reads", lambda: dress(session, name))
        hair, answer = timed("evaluate", lambda: take_hair(session))
    print(f"  {answer['strandCount']} strands, {answer['pointCount']} points")
    image = timed("draw the picture", lambda: draw(hair, (mesh.points, mesh.triangles()), views_of(mesh, True, hair)))
    write_png(picture, image)
    print(f"  {picture}")
    return 1 if answer["errors"] or not answer["strandCount"] else 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="demo", description=__doc__.split("\n")[0])
    parser.add_argument("--helper", required=True, help="the program corvelle-helper")
    parser.add_argument("--scalp", help="an .obj to grow on, instead of the head")
    parser.add_argument("--strands", type=int, default=100_000)
    parser.add_argument("--picture", default="hair.png")
    parser.add_argument("--look", choices=sorted(LOOKS), help="a graph of docs/looks, on the head")
    parser.add_argument("--sculpt", nargs="?", const="", metavar="FOLDER", help="recorded strokes of every tool, pictures into FOLDER")
    options = parser.parse_args()
    if options.sculpt is not None:
        return sculpt(options.helper, options.sculpt or str(Path(options.picture).parent / "sculpt"))
    if options.look:
        return show_look(options.helper, options.look, options.picture)

    mesh = timed("make the mesh", lambda: read_obj(options.scalp) if options.scalp else make_head())
    guides = timed("make the guides", lambda: mesh_guides(mesh) if options.scalp else head_guides())
    hair, answer = groom(options.helper, mesh, guides, options.strands, bool(options.scalp),
                         Path(options.picture).resolve().with_suffix(""))
    if not answer["strandCount"]:
        print("no hair grew")
        return 1
    views = views_of(mesh, not options.scalp, hair)
    image = timed("draw the picture", lambda: draw(hair, (mesh.points, mesh.triangles()), views))
    write_png(options.picture, image)
    print(f"  {options.picture}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
