"""The commands of sculpting: tools, strokes, selection, guides, maps, undo and the viewport."""

from __future__ import annotations

from typing import Any, Dict, List, Mapping, Optional, Sequence, Union

import numpy as np

Json = Dict[str, Any]
Pixels = Sequence[Sequence[float]]


def make_view(
    viewMatrix: Any,
    projectionMatrix: Any,
    width: float,
    height: float,
    *,
    objectMatrix: Any = None,
    target: Optional[Sequence[float]] = None,
) -> Json:
    """A view for strokes, hovers and picks. Matrices work on columns, rows first, as Blender's do;
    clip z runs over -w..w; pixels count from the lower left."""
    view: Json = {
        "viewMatrix": np.asarray(viewMatrix, np.float64).reshape(16).tolist(),
        "projectionMatrix": np.asarray(projectionMatrix, np.float64).reshape(16).tolist(),
        "width": float(width),
        "height": float(height),
    }
    if objectMatrix is not None:
        view["objectMatrix"] = np.asarray(objectMatrix, np.float64).reshape(16).tolist()
    if target is not None:
        view["target"] = [float(c) for c in target]
    return view


class ToolCommands:
    """What a ``Session`` offers for sculpting. Methods are named after their commands and answer
    their results."""

    def request(self, command: str, /, **fields: Any) -> Json:
        raise NotImplementedError

    # ---- tools and strokes ---------------------------------------------------------------------

    def tool_set(self, tool: Optional[str] = None, **settings: Any) -> Json:
        """Picks a tool and changes settings, all of them or, when one is refused, none."""
        return self.request("tool_set", tool=tool, settings=settings or None)

    def tool_get(self) -> Json:
        """The tool, its settings and the colours of its ring."""
        return self.request("tool_get")

    def stroke_begin(
        self,
        x: float,
        y: float,
        *,
        view: Optional[Mapping[str, Any]] = None,
        pressure: Optional[float] = None,
        shift: Optional[bool] = None,
        ctrl: Optional[bool] = None,
    ) -> Json:
        """The pen goes down at a pixel. ``view`` is kept for later calls."""
        return self.request(
            "stroke_begin", x=x, y=y, view=view, pressure=pressure, shift=shift, ctrl=ctrl
        )

    def stroke_drag(
        self,
        points: Optional[Pixels] = None,
        *,
        x: Optional[float] = None,
        y: Optional[float] = None,
        pressure: Optional[float] = None,
        view: Optional[Mapping[str, Any]] = None,
    ) -> Json:
        """The pen moves: over ``points``, each [x, y] or [x, y, pressure], or to one place.
        ``changed`` tells whether to evaluate again."""
        given = None if points is None else [[float(c) for c in point] for point in points]
        return self.request("stroke_drag", points=given, x=x, y=y, pressure=pressure, view=view)

    def stroke_end(self) -> Json:
        """The pen goes up: what the stroke did becomes one undo step."""
        return self.request("stroke_end")

    def stroke_cancel(self) -> Json:
        """Throws the stroke away; ``cancelled`` is false when there was none."""
        return self.request("stroke_cancel")

    def stroke(
        self,
        points: Pixels,
        *,
        view: Optional[Mapping[str, Any]] = None,
        shift: bool = False,
        ctrl: bool = False,
    ) -> Json:
        """A whole stroke through pixels; the answer of ``stroke_end``, or of ``stroke_begin`` when
        nothing could start there."""
        first, *rest = points
        pressure = float(first[2]) if len(first) > 2 else None
        begun = self.stroke_begin(
            float(first[0]), float(first[1]), view=view, pressure=pressure, shift=shift, ctrl=ctrl
        )
        if not begun["press"]:
            return begun
        self.stroke_drag(rest)
        return self.stroke_end()

    def hover(self, x: float, y: float, *, view: Optional[Mapping[str, Any]] = None) -> Json:
        """What the pointer is over, and the brush's ring there."""
        return self.request("hover", x=x, y=y, view=view)

    def hover_clear(self) -> Json:
        """The pointer has left: no ring, nothing under it."""
        return self.request("hover_clear")

    # ---- selection -----------------------------------------------------------------------------

    def select(
        self,
        lasso: Pixels,
        *,
        view: Optional[Mapping[str, Any]] = None,
        mode: Optional[str] = None,
        clickPixels: Optional[float] = None,
        rootsOnly: Optional[bool] = None,
        solo: Optional[bool] = None,
    ) -> Json:
        """Picks guides by a click (one point), a box (two) or a lasso (more); ``mode`` is "replace",
        "add", "toggle" or "deselect". The rest freezes."""
        return self.request(
            "select",
            lasso=[[float(c) for c in point] for point in lasso],
            view=view,
            mode=mode,
            clickPixels=clickPixels,
            rootsOnly=rootsOnly,
            solo=solo,
        )

    def selection_get(self) -> Json:
        """``selection`` with its ``ids``."""
        return self.request("selection_get")

    def selection_set(
        self,
        *,
        ids: Optional[Sequence[int]] = None,
        group: Optional[str] = None,
        level: Optional[int] = None,
        softSelectRadius: Optional[float] = None,
        mode: Optional[str] = None,
    ) -> Json:
        """Selects guides by id, group or level (all given together unite)."""
        chosen = None if ids is None else [int(i) for i in ids]
        return self.request(
            "selection_set",
            ids=chosen,
            group=group,
            level=level,
            softSelectRadius=softSelectRadius,
            mode=mode,
        )

    def pick_level(
        self,
        pick: Optional[Sequence[float]] = None,
        *,
        level: Optional[int] = None,
        group: Optional[str] = None,
        view: Optional[Mapping[str, Any]] = None,
    ) -> Json:
        """The level and group that brushes work on: of the guide at a pixel, or as given."""
        return self.request("pick_level", pick=pick, level=level, group=group, view=view)

    def set_hidden_groups(self, groups: Sequence[str]) -> List[str]:
        """The guide groups not drawn, not picked and not brushed."""
        return list(self.request("set_hidden_groups", groups=list(groups))["hiddenGroups"])

    # ---- guides and maps -----------------------------------------------------------------------

    def guides_info(self) -> Json:
        """The groups of guides and their counts."""
        return self.request("guides_info")

    def guides_edit(self, op: str, /, **fields: Any) -> Json:
        """One edit of the guides as an undo step, such as ``guides_edit("lock", ids=[3])``."""
        return self.request("guides_edit", op=op, **fields)

    def maps_list(self) -> List[Json]:
        """The painted maps."""
        return list(self.request("maps_list")["maps"])

    def map_create(
        self,
        name: str,
        kind: str,
        *,
        color: Optional[bool] = None,
        fill: Optional[Sequence[float]] = None,
        value: Optional[float] = None,
        resolution: Optional[int] = None,
    ) -> Json:
        """A new map of kind "vertices", "texture" or "guides"."""
        return self.request(
            "map_create",
            name=name,
            kind=kind,
            color=color,
            fill=fill,
            value=value,
            resolution=resolution,
        )

    def map_remove(self, name: str) -> List[Json]:
        """Removes a map; answers those left. The image of a texture map stays on the disk."""
        return list(self.request("map_remove", name=name)["maps"])

    # ---- undo and the viewport -----------------------------------------------------------------

    def undo(self) -> Json:
        """Takes one step back; ``done`` is false when there is none."""
        return self.request("undo")

    def redo(self) -> Json:
        """Makes one step again."""
        return self.request("redo")

    def undo_state(self) -> Json:
        """What the next undo and redo would do."""
        return self.request("undo_state")

    def display(
        self,
        *,
        settings: Optional[Mapping[str, Any]] = None,
        have: Optional[Mapping[str, int]] = None,
        generation: Optional[int] = None,
        strandColors: Union[None, Mapping[str, Any]] = None,
    ) -> Json:
        """What to draw beside the strands. Items whose version ``have`` names come without arrays."""
        return self.request(
            "display",
            settings=settings,
            have=have,
            generation=generation,
            strandColors=strandColors,
        )
