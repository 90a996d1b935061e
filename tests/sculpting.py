"""The head, the camera and the groom that tests of the tools sculpt."""

import math
import unittest

import numpy as np
from corvelle_client import make_view
from demo import guides as demo_guides
from demo import head as demo_head
from support import Groom, Pipes, failure

HEAD = demo_head.make_head(16, 24)
CURVES, COUNTS = demo_guides.head_guides(30, 8)
WIDTH, HEIGHT = 640, 480


def look_at(eye, target):
    """View and projection of a camera, Z up."""
    eye, target = np.asarray(eye, float), np.asarray(target, float)
    forward = (target - eye) / np.linalg.norm(target - eye)
    right = np.cross(forward, [0, 0, 1])
    right /= np.linalg.norm(right)
    axes = np.stack([right, np.cross(right, forward), -forward])
    view = np.eye(4)
    view[:3, :3] = axes
    view[:3, 3] = -axes @ eye
    f = 1.0 / math.tan(math.radians(20))
    near, far = 0.01, 10.0
    projection = np.array(
        [
            [f * HEIGHT / WIDTH, 0, 0, 0],
            [0, f, 0, 0],
            [0, 0, (far + near) / (near - far), 2 * far * near / (near - far)],
            [0, 0, -1, 0],
        ]
    )
    return view, projection


VIEW = make_view(*look_at((0.25, -0.7, 0.35), (0, 0, 0.02)), WIDTH, HEIGHT)
LINE = [[290 + 8 * i, 300 - 4 * i] for i in range(8)]  #: across the front of the hair


def plain(array):
    return np.asarray(array, np.float64).tolist()


#: Requests inside a stroke that fail and leave all as it was.
BAD = [("stroke_drag", {"points": [[1, "x"]]}), ("stroke_drag", {"points": [[300, 300], [1e39, 0]]}),
       ("stroke_drag", {"x": 1}), ("stroke_drag", {"points": [[1, 1]], "view": {"width": 3}}),
       ("tool_set", {"settings": {"radius": 5, "nonsense": 1}}), ("guides_edit", {"op": "remove_group", "group": "no"}),
       ("guides_edit", {"op": "lock", "ids": [0]}), ("map_create", {"name": "v", "kind": "vertices"}),
       ("map_remove", {"name": "no"}), ("select", {"lasso": []}), ("stroke_begin", {"x": 1})]


class Sculpting(unittest.TestCase):
    def setUp(self):
        self.helper = Pipes()
        self.addCleanup(self.helper.__exit__)
        self.groom = self.new_groom()

    def new_groom(self, guides=True):
        groom = Groom(self.helper)
        groom.do(
            "set_scalp",
            points=plain(HEAD.points),
            faceCounts=HEAD.faceCounts.tolist(),
            faceIndices=HEAD.faceIndices.tolist(),
            uvs=plain(HEAD.uvs),
            colorSets={name: plain(values) for name, values in HEAD.colorSets.items()},
        )
        if guides:
            groom.do("set_guides", points=plain(CURVES), counts=COUNTS.tolist(), target="hierarchy")
        graph = self.helper.ask(cmd="default_graph")["result"]["graph"]
        for node in graph["nodes"]:
            if node["name"] == "scatter":
                node["params"]["density"] = 1.0
        groom.do("set_graph", graph=graph)
        return groom

    def document(self, groom=None):
        """Every text that a stroke can change."""
        groom = groom or self.groom
        state = groom.do("get_state", texts=True, textures=True)
        return {"texts": state["texts"], "textures": state["textures"], "graph": groom.do("get_graph")["graph"]}

    def stroke(self, points=LINE, groom=None, **begin):
        groom = groom or self.groom
        started = groom.do("stroke_begin", view=VIEW, x=points[0][0], y=points[0][1], **begin)
        if not started["press"]:
            return started
        groom.do("stroke_drag", points=points[1:])
        return groom.do("stroke_end")

    def tool(self, tool, groom=None, **settings):
        return (groom or self.groom).do("tool_set", tool=tool, settings=settings)

    def check(self, cases):
        for cmd, fields, expected in cases:
            with self.subTest(cmd=cmd, fields=repr(fields)[:90]):
                before = self.document()
                self.assertEqual(failure(self.groom.ask(cmd, **fields)), expected)
                self.assertEqual(self.document(), before)
