"""One groom in the helper, and the commands that work on it.

Field names are those of the protocol. Arrays are numpy arrays or plain lists. Every method returns
the command's answer with its arrays as views (see ``AnswerArray``).
"""

from __future__ import annotations

import os
from typing import TYPE_CHECKING, Any, Dict, Mapping, Optional, Sequence, Union

import numpy as np

from .tools import ToolCommands

if TYPE_CHECKING:
    from .helper import Helper

Array = Union[np.ndarray, Sequence[Any]]


class Session(ToolCommands):
    """A groom that the helper holds. ``close`` it, or use it in a ``with`` statement."""

    def __init__(self, helper: "Helper", number: int) -> None:
        self.helper = helper
        self.number = number

    def request(self, command: str, /, **fields: Any) -> Dict[str, Any]:
        """Any command on this session; see ``Helper.request``."""
        return self.helper.request(command, session=self.number, **fields)

    def close(self) -> None:
        """Ends the session and its shared memory. Arrays that are still held keep their memory."""
        self.request("close_session")

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, kind: Optional[type], *_: object) -> None:
        if kind is None:
            self.close()  # else the helper may be gone, and the first error is the one to show

    # ---- scene ---------------------------------------------------------------------------------

    def set_space(
        self, *, upAxis: Optional[str] = None, metersPerUnit: Optional[float] = None
    ) -> Dict[str, Any]:
        """The host's space. What is left out goes back to Z up and metres."""
        return self.request("set_space", upAxis=upAxis, metersPerUnit=metersPerUnit)

    def set_options(
        self, *, followScalp: Optional[bool] = None, mapsDir: Optional[str] = None
    ) -> Dict[str, Any]:
        """Sets what is given; answers both."""
        return self.request("set_options", followScalp=followScalp, mapsDir=mapsDir)

    def set_time(
        self,
        *,
        seconds: Optional[float] = None,
        frame: Optional[float] = None,
        fps: Optional[float] = None,
    ) -> Dict[str, Any]:
        """Moves to a time, in seconds or in frames."""
        return self.request("set_time", seconds=seconds, frame=frame, fps=fps)

    # ---- files and state -----------------------------------------------------------------------

    def load_groom(self, path: Union[str, "os.PathLike[str]"]) -> Dict[str, Any]:
        """Opens a ``.groom`` file in the place of the session's groom, at time 0. Answers what
        ``groom_info`` does, and ``fileUpAxis``."""
        return self.request("load_groom", path=os.fspath(path))

    def save_groom(
        self, path: Union[str, "os.PathLike[str]"], *, upAxis: Optional[str] = None
    ) -> Dict[str, Any]:
        """Writes the groom to a ``.groom`` file, with "Y" or "Z" up. Whatever goes wrong, the old
        file or the whole new one is there. ``warnings`` in the answer, where there are any, name
        files that nodes read and would not find from the new folder."""
        return self.request("save_groom", path=os.fspath(path), upAxis=upAxis)

    def groom_info(self) -> Dict[str, Any]:
        """What the groom consists of."""
        return self.request("groom_info")

    def new_groom(
        self, *, followScalp: Optional[bool] = None, preset: Optional[str] = None
    ) -> Dict[str, Any]:
        """Starts over on the scalp there is, with the default graph made to its size, or with a
        preset."""
        return self.request("new_groom", followScalp=followScalp, preset=preset)

    def get_state(
        self,
        *,
        scalp: Union[None, bool, str] = None,
        textures: Optional[bool] = None,
        texts: Optional[bool] = None,
    ) -> Dict[str, Any]:
        """The groom as one JSON value, to keep in a file of the host's. ``scalp`` False leaves the
        scalp out, "maps" its mesh but not the values painted on it."""
        return self.request("get_state", scalp=scalp, textures=textures, texts=texts)

    def set_state(
        self, state: Mapping[str, Any], *, keepScalp: Optional[bool] = None
    ) -> Dict[str, Any]:
        """Takes back what ``get_state`` gave. The session's scalp stays unless ``keepScalp`` is
        False."""
        return self.request(
            "set_state",
            groom=state["groom"],
            textures=state.get("textures"),
            tools=state.get("tools"),
            keepScalp=keepScalp,
        )

    # ---- scalp and guides ----------------------------------------------------------------------

    def set_scalp(
        self,
        points: Array,
        faceCounts: Array,
        faceIndices: Array,
        *,
        uvs: Optional[Array] = None,
        colorSets: Optional[Mapping[str, Array]] = None,
        restPoints: Optional[Array] = None,
    ) -> Dict[str, Any]:
        """The mesh that hair grows on: points (n, 3) in host space, corners of each face, vertex of
        each corner; UVs (2 floats) and colour sets (4 floats) per face corner."""
        return self.request(
            "set_scalp",
            points=points,
            faceCounts=faceCounts,
            faceIndices=faceIndices,
            uvs=uvs,
            colorSets=dict(colorSets) if colorSets is not None else None,
            restPoints=restPoints,
        )

    def update_scalp(self, points: Array, *, restPoints: Optional[Array] = None) -> Dict[str, Any]:
        """Moves the scalp's points; their number stays."""
        return self.request("update_scalp", points=points, restPoints=restPoints)

    def get_scalp(self, *, space: Optional[str] = None) -> Dict[str, Any]:
        """The scalp with its polygons, in space "host" or "groom"."""
        return self.request("get_scalp", space=space)

    def set_guides(
        self,
        points: Array,
        counts: Array,
        *,
        ids: Optional[Array] = None,
        target: Optional[str] = None,
        pose: Optional[str] = None,
        keepMissing: Optional[bool] = None,
    ) -> Dict[str, Any]:
        """Guides as curves one after the other, each with ``counts`` points, root first."""
        return self.request(
            "set_guides",
            points=points,
            counts=counts,
            ids=ids,
            target=target,
            pose=pose,
            keepMissing=keepMissing,
        )

    def get_guides(
        self,
        *,
        source: Optional[str] = None,
        pose: Optional[str] = None,
        space: Optional[str] = None,
    ) -> Dict[str, Any]:
        """The guides, flat or of the hierarchy."""
        return self.request("get_guides", source=source, pose=pose, space=space)

    # ---- evaluation ----------------------------------------------------------------------------

    def evaluate(
        self,
        *,
        mode: Optional[str] = None,
        space: Optional[str] = None,
        density: Optional[float] = None,
        pointBudget: Optional[float] = None,
        sculptDensity: Optional[float] = None,
        viewNode: Optional[str] = None,
        bounds: Optional[bool] = None,
        attributes: Union[None, str, Sequence[str]] = None,
    ) -> Dict[str, Any]:
        """The hair: ``arrays`` holds ``positions``, ``pointCounts``, ``offsets``, ``ids``, maybe
        ``widths``, and ``attributes`` as {name: {"scope", "array"}}. Failures of nodes do not
        raise: they stand in ``errors`` and ``messages``."""
        return self.request(
            "evaluate",
            mode=mode,
            space=space,
            density=density,
            pointBudget=pointBudget,
            sculptDensity=sculptDensity,
            viewNode=viewNode,
            bounds=bounds,
            attributes=attributes,
        )

    def stats(self) -> Dict[str, Any]:
        """Statistics of the hair as it was last evaluated."""
        return self.request("stats")

    def node_status(self) -> Dict[str, Any]:
        """Warnings, times and errors that the last evaluation left."""
        return self.request("node_status")

    # ---- export --------------------------------------------------------------------------------

    def export(
        self,
        path: str,
        *,
        format: Optional[str] = None,
        name: Optional[str] = None,
        first: Optional[float] = None,
        last: Optional[float] = None,
        step: Optional[float] = None,
        density: Optional[float] = None,
        guides: Optional[bool] = None,
    ) -> Dict[str, Any]:
        """Writes a whole run of frames, "alembic" or "usd", of the scene as the helper has it now:
        frames ``first`` to ``last`` (both the current one if left out). Answers ``path``, ``frames``,
        ``strands`` of the last frame and ``warnings``."""
        frames = {"first": first, "last": last, "step": step}
        given = {key: value for key, value in frames.items() if value is not None}
        return self.request(
            "export",
            path=path,
            format=format,
            name=name,
            frames=given or None,
            density=density,
            guides=guides,
        )

    def export_open(
        self,
        path: str,
        *,
        format: Optional[str] = None,
        name: Optional[str] = None,
        guides: Optional[bool] = None,
    ) -> int:
        """Begins an export that is fed frame by frame, and answers its number. Between the frames the
        host may move the scalp, guides and params."""
        return int(
            self.request("export_open", path=path, format=format, name=name, guides=guides)["export"]
        )

    def export_frame(
        self, export: int, *, frame: Optional[float] = None, density: Optional[float] = None
    ) -> Dict[str, Any]:
        """Evaluates for rendering and writes one frame (the current one if left out); frames must
        increase."""
        return self.request("export_frame", export=export, frame=frame, density=density)

    def export_close(self, export: int) -> Dict[str, Any]:
        """Finishes the file. Answers ``path``, ``frames`` and ``warnings``."""
        return self.request("export_close", export=export)

    # ---- graph ---------------------------------------------------------------------------------

    def get_graph(self) -> Any:
        """The node graph as JSON."""
        return self.request("get_graph")["graph"]

    def set_graph(self, graph: Any) -> int:
        """Replaces the graph (JSON, or its text); answers how many nodes it has."""
        return int(self.request("set_graph", graph=graph)["nodes"])

    def list_nodes(self) -> Dict[str, Any]:
        """``nodes`` with name, type and version, and the ``output`` node's name."""
        return self.request("list_nodes")

    def node_spec(self, node: str) -> Dict[str, Any]:
        """A node's ports and params."""
        spec: Dict[str, Any] = self.request("node_spec", node=node)["spec"]
        return spec

    def get_param(self, node: str, param: str) -> Any:
        """A param's value, or its default if it has none."""
        return self.request("get_param", node=node, param=param)["value"]

    def set_param(self, node: str, param: str, value: Any) -> Any:
        """Sets a param to a value or, where it takes one, to a map."""
        return self.request("set_param", node=node, param=param, value=value)["value"]

    def edit_graph(self, op: str, /, **fields: Any) -> Dict[str, Any]:
        """One edit of the graph, such as ``edit_graph("connect", **{"from": ..., "to": ...})``."""
        return self.request("edit_graph", op=op, **fields)
