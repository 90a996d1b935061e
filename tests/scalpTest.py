"""Scalps: meshes in, meshes back, and meshes that are not as they should be."""

import math
import random
import unittest

import numpy as np
from support import ABSENT, Groom, Pipes, array_of, check_bad_inputs, contents, failure

QUAD = {
    "points": [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]],
    "faceCounts": [4],
    "faceIndices": [0, 1, 2, 3],
    "uvs": [[0, 0], [1, 0], [1, 1], [0, 1]],
    "colorSets": {"mask": [[1, 0, 0, 1]] * 4},
    "restPoints": [[0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]],
}
TWO_TRIANGLES = {"points": QUAD["points"], "faceCounts": [3, 3], "faceIndices": [0, 1, 2, 0, 2, 3]}
LIST = "must be a list or a shared memory reference"
NUMBERS = "holds something that is not a number"


class ScalpTest(unittest.TestCase):
    def setUp(self):
        self.helper = Pipes()
        self.addCleanup(self.helper.__exit__)
        self.groom = Groom(self.helper)

    def arrays(self, **fields):
        answer = self.groom.do("get_scalp", **fields)
        return answer["scalp"], {name: array_of(ref) for name, ref in answer["arrays"].items()}

    def test_bad_fields_are_named_and_change_nothing(self):
        self.groom.do("set_scalp", **TWO_TRIANGLES)
        check_bad_inputs(
            self,
            self.groom,
            "set_scalp",
            QUAD,
            [
                ("points", ABSENT, 'bad_request: missing "points"'),
                ("points", None, 'bad_request: missing "points"'),
                ("points", 5, "bad_request: points " + LIST),
                ("points", "0 0 0", "bad_request: points " + LIST),
                ("points", [1, 2], "bad_request: points holds 2 values: not a multiple of 3"),
                ("points", [[0, 0, "0"]], "bad_request: points " + NUMBERS),
                ("points", [[0, None, 0]], "bad_request: points " + NUMBERS),
                ("points", [0, 0, 1e300], "bad_request: points holds a NaN or an infinity"),
                ("points", [0, 0, 3e38], "bad_request: points holds a NaN or an infinity"),
                ("points", {}, 'bad_request: missing "shm"'),
                (
                    "points",
                    {"shm": "corvelle_none", "shape": [3]},
                    "shared_memory: no shared memory named 'corvelle_none' (system error 2)",
                ),
                ("points", {"shm": "a b", "shape": [3]}, "shared_memory: bad shared memory name 'a b'"),
                ("points", QUAD["points"][:3], "bad_request: face index 3 is not one of the 3 points"),
                ("points", [], "bad_request: face index 0 is not one of the 0 points"),
                ("faceCounts", ABSENT, 'bad_request: missing "faceCounts"'),
                ("faceCounts", 4, "bad_request: faceCounts " + LIST),
                ("faceCounts", [4.0], "bad_request: faceCounts holds a fraction where an integer goes"),
                ("faceCounts", [True], "bad_request: faceCounts " + NUMBERS),
                ("faceCounts", [4, 2], "bad_request: face 1 has fewer than 3 corners"),
                ("faceCounts", [-4], "bad_request: face 0 has fewer than 3 corners"),
                ("faceIndices", ABSENT, 'bad_request: missing "faceIndices"'),
                ("faceCounts", [3], "bad_request: the face counts add up to 3 corners, not the 4 face indices"),
                (
                    "faceCounts",
                    [2**31 - 1] * 3,
                    "bad_request: the face counts add up to 6442450941 corners, not the 4 face indices",
                ),
                ("faceCounts", [], "bad_request: the face counts add up to 0 corners, not the 4 face indices"),
                ("faceIndices", None, 'bad_request: missing "faceIndices"'),
                ("faceIndices", [0, 1, 2, 4], "bad_request: face index 4 is not one of the 4 points"),
                ("faceIndices", [0, 1, 2, -1], "bad_request: face index -1 is not one of the 4 points"),
                ("faceIndices", [0, 1, 2, 2.5], "bad_request: faceIndices holds a fraction where an integer goes"),
                ("uvs", 0, "bad_request: uvs " + LIST),
                ("uvs", [0] * 7, "bad_request: uvs holds 7 values: not a multiple of 2"),
                ("uvs", [0] * 6, "bad_request: uvs must hold 2 floats per face corner (4)"),
                ("uvs", [], "bad_request: uvs must hold 2 floats per face corner (4)"),
                ("uvs", [1e300] * 8, "bad_request: uvs holds a NaN or an infinity"),
                (
                    "colorSets",
                    [],
                    "bad_request: colorSets is an object of name to 4 floats per face corner",
                ),
                ("colorSets", {"mask": None}, "bad_request: color set mask " + LIST),
                ("colorSets", {"mask": [0] * 15}, "bad_request: color set mask holds 15 values: not a multiple of 4"),
                ("colorSets", {"m": [0] * 12}, "bad_request: color set m must hold 4 floats per face corner"),
                ("colorSets", {"": [-1e39] * 16}, "bad_request: color set  holds a NaN or an infinity"),
                ("restPoints", [[0, 0, 0]], "bad_request: restPoints must hold as many points as points"),
                ("restPoints", [1e37] * 12, "bad_request: restPoints holds a NaN or an infinity"),
                ("restPoints", "none", "bad_request: restPoints " + LIST),
            ],
        )

    def test_moved_points_are_checked_as_the_scalp_needs_them(self):
        self.assertEqual(
            failure(self.groom.ask("update_scalp", points=5)),
            "state: the session has no scalp: set_scalp first",
        )
        self.groom.do("set_scalp", **QUAD)
        check_bad_inputs(
            self,
            self.groom,
            "update_scalp",
            {"points": QUAD["restPoints"], "restPoints": QUAD["points"]},
            [
                ("points", ABSENT, 'bad_request: missing "points"'),
                ("points", [[0, 0, 0]], "bad_request: the scalp has 4 points, not 1"),
                ("points", [], "bad_request: the scalp has 4 points, not 0"),
                ("points", [1e300] * 12, "bad_request: points holds a NaN or an infinity"),
                ("restPoints", [[0, 0, 0]] * 5, "bad_request: restPoints must hold as many points as points"),
                ("restPoints", [], "bad_request: restPoints must hold as many points as points"),
                ("restPoints", 1, "bad_request: restPoints " + LIST),
            ],
        )
        _, arrays = self.arrays()
        self.assertEqual(arrays["points"].tolist(), QUAD["restPoints"])
        self.assertEqual(arrays["restPoints"].tolist(), QUAD["points"])

    def test_faces_and_all_that_lies_on_them_come_back(self):
        self.assertEqual(self.groom.do("get_scalp"), {"scalp": None})
        answer = self.groom.do("set_scalp", **QUAD)
        topology = answer.pop("topology")
        self.assertRegex(topology, "^[0-9a-f]{16}$")
        self.assertEqual(answer, {"points": 4, "triangles": 2, "matchesGroom": True, "guidesRerooted": 0})
        scalp, arrays = self.arrays()
        expected = {"points": 4, "faces": 1, "triangles": 2, "facesExact": True, "colorSets": ["mask"]}
        self.assertEqual(scalp, {**expected, "topology": topology})
        for name in ("points", "restPoints", "faceCounts", "faceIndices", "uvs"):
            self.assertEqual(arrays[name].tolist(), QUAD[name], name)
        self.assertEqual(arrays["points"].dtype, np.float32)
        self.assertEqual(arrays["faceCounts"].dtype, np.int32)
        self.assertEqual(failure(self.groom.ask("get_scalp", space=5)), 'bad_request: "space" must be a string')
        self.assertEqual(self.arrays(space="elsewhere")[1]["points"].tolist(), QUAD["points"])
        groom = self.arrays(space="groom")[1]["points"]
        self.assertEqual(groom.tolist(), [[0, 0, 0], [100, 0, 0], [100, 0, -100], [0, 0, -100]])
        # The same triangles from other faces are the same topology; without rest points there are none.
        self.assertEqual(self.groom.do("set_scalp", **TWO_TRIANGLES)["topology"], topology)
        scalp, arrays = self.arrays()
        self.assertEqual((scalp["faces"], sorted(arrays)), (2, ["faceCounts", "faceIndices", "points"]))

    def test_random_polygons_come_back_in_every_space(self):
        rng = random.Random(5)
        for axis in "YZ":
            for scale in (1.0, 0.01, 0.3048):
                self.groom.do("set_space", upAxis=axis, metersPerUnit=scale)
                counts = [rng.randrange(3, 9) for _ in range(40)]
                points = np.array([[rng.uniform(-9, 9) for _ in range(3)] for _ in range(50)], np.float32)
                indices = [i for count in counts for i in rng.sample(range(50), count)]
                uvs = np.array([[rng.random(), rng.random()] for _ in indices], np.float32)
                self.groom.do(
                    "set_scalp", points=points.tolist(), faceCounts=counts, faceIndices=indices, uvs=uvs.tolist()
                )
                scalp, arrays = self.arrays()
                self.assertTrue(scalp["facesExact"])
                self.assertEqual(arrays["faceCounts"].tolist(), counts)
                self.assertEqual(arrays["faceIndices"].tolist(), indices)
                self.assertTrue(np.array_equal(arrays["uvs"], uvs))
                np.testing.assert_allclose(arrays["points"], points, rtol=2e-7)

    def test_strange_meshes_evaluate_or_say_why_not(self):
        corners = 100_000
        circle = [[math.cos(6.283185307 * i / corners) / 50, math.sin(6.283185307 * i / corners) / 50, 0] for i in range(corners)]
        meshes = {
            "nothing": ([], [], []),
            "points alone": ([[0, 0, 0], [1, 0, 0]], [], []),
            "a dot": ([[0, 0, 0]] * 3, [3], [0, 1, 2]),
            "a corner thrice": ([[0, 0, 0], [0.01, 0, 0]], [3, 4], [0, 0, 0, 0, 1, 1, 0]),
            "a line": ([[0, 0, 0], [0.01, 0, 0], [0.02, 0, 0]], [3], [0, 1, 2]),
            "three faces on an edge": (
                [[0, 0, 0], [0.01, 0, 0], [0, 0.01, 0], [0, -0.01, 0], [0, 0, 0.01]],
                [3, 3, 3, 3],
                [0, 1, 2, 0, 1, 3, 0, 1, 4, 0, 1, 2],
            ),
            "unreferenced and coincident": (
                [[9, 9, 9], [0, 0, 0], [0.01, 0, 0], [0, 0.01, 0], [0, 0, 0], [1e20, 0, 0]],
                [3, 3],
                [1, 2, 3, 4, 3, 2],
            ),
            "a huge polygon": (circle, [corners], list(range(corners))),
            "far out": ([[1e36, 0, 0], [1.1e36, 0, 0], [1e36, 1e35, 0]], [3], [0, 1, 2]),
        }
        grows = {"a corner thrice": False, "three faces on an edge": True, "unreferenced and coincident": True, "a huge polygon": True}
        self.groom.do("set_param", node="scatter", param="density", value=20)
        for name, (points, counts, indices) in meshes.items():
            with self.subTest(mesh=name):
                self.groom.do("set_scalp", points=points, faceCounts=counts, faceIndices=indices)
                self.groom.do("set_guides", points=[[0, 0, 0], [0, 0, 1]], counts=[2])
                answer = self.groom.do("evaluate", bounds=True)
                positions = array_of(answer["arrays"]["positions"])
                self.assertTrue(np.isfinite(positions).all() or answer["errors"])
                self.assertEqual(answer["strandCount"], len(array_of(answer["arrays"]["ids"])))
                if name in grows:
                    self.assertEqual(answer["errors"], [])
                    self.assertEqual(answer["strandCount"] > 10, grows[name])
                self.assertEqual(self.arrays()[0]["faces"], len(counts))
                self.assertTrue(self.helper.ask(cmd="ping")["ok"])

    def test_the_same_mesh_roots_nothing_again_and_other_triangles_do(self):
        self.groom.do("set_scalp", **QUAD)
        self.groom.do("set_guides", points=[[0.2, 0.7, 0], [0.2, 0.7, 1]], counts=[2])
        self.assertEqual(self.groom.do("set_scalp", **QUAD)["guidesRerooted"], 0)
        moved = {**QUAD, "points": [[0, 0, 2], [1, 0, 2], [1, 1, 2], [0, 1, 2]]}
        self.assertEqual(self.groom.do("set_scalp", **moved)["guidesRerooted"], 0)
        self.assertEqual(self.arrays()[1]["points"].tolist(), moved["points"], "the same triangles, moved")
        guides = contents(self.groom.do("get_guides"))["arrays"]
        other = {**TWO_TRIANGLES, "faceIndices": [0, 1, 3, 1, 2, 3]}
        self.assertEqual(self.groom.do("set_scalp", **other)["guidesRerooted"], 1)
        self.assertEqual(contents(self.groom.do("get_guides"))["arrays"], guides, "points stay")
        text = "the scalp's vertex order or triangles differ from the groom's: strands are rooted again by position"
        messages = self.groom.do("evaluate")["messages"]
        self.assertEqual(messages, [{"text": text, "error": False}])
        self.assertEqual(self.groom.do("evaluate")["messages"], [])

    def test_a_scalp_in_shared_memory_is_the_scalp_in_a_list(self):
        points = np.array(QUAD["points"], "<f8")
        counts, indices = np.array([4], "<i8"), np.array([0, 1, 2, 3], "<u4")
        name = "corvelle_%d_mesh_1" % self.helper.process.pid  # swept with the helper's own
        data = points.tobytes() + counts.tobytes() + indices.tobytes()
        with open("/dev/shm/" + name, "wb") as file:
            file.write(data)

        def reference(array, offset):
            return {"shm": name, "dtype": array.dtype.str, "shape": list(array.shape), "offset": offset}

        fields = {
            "points": reference(points, 0),
            "faceCounts": reference(counts, points.nbytes),
            "faceIndices": reference(indices, points.nbytes + counts.nbytes),
        }
        given = self.groom.do("set_scalp", **fields)
        other = Groom(self.helper)
        listed = other.do("set_scalp", **{key: QUAD[key] for key in ("points", "faceCounts", "faceIndices")})
        self.assertEqual(given, listed)
        self.assertEqual(self.groom.state()["scalp"]["scalp"], other.state()["scalp"]["scalp"])
        fields["points"]["offset"] = 4096
        self.assertEqual(
            failure(self.groom.ask("set_scalp", **fields)),
            "bad_request: points runs past the end of shared memory '%s'" % name,
        )
