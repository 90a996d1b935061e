"""Guides: the flat list and the hierarchy, at rest and now."""

import random
import unittest

from support import ABSENT, Groom, Pipes, array_of, check_bad_inputs, contents, failure

MESH = {
    "points": [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]],
    "faceCounts": [4],
    "faceIndices": [0, 1, 2, 3],
}
TWO = {"points": [[0.1, 0.1, 0], [0.1, 0.1, 1], [0.9, 0.9, 0], [0.9, 0.9, 1], [0.9, 0.9, 2]], "counts": [2, 3]}


def raised(points, by):
    return [[x, y, z + by] for x, y, z in points]


class GuidesTest(unittest.TestCase):
    def setUp(self):
        self.helper = Pipes()
        self.addCleanup(self.helper.__exit__)
        self.groom = Groom(self.helper)

    def guides(self, **fields):
        answer = self.groom.do("get_guides", **fields)
        arrays = {name: array_of(ref).tolist() for name, ref in answer.pop("arrays").items()}
        return answer, arrays

    def test_bad_fields_are_named_and_change_nothing(self):
        self.groom.do("set_scalp", **MESH)
        for target in ("flat", "hierarchy"):
            self.groom.do("set_guides", **TWO, target=target)
            check_bad_inputs(
                self,
                self.groom,
                "set_guides",
                {**TWO, "ids": [7, 0], "target": target, "pose": "now", "keepMissing": False},
                [
                    ("points", ABSENT, 'bad_request: missing "points"'),
                    ("points", {"shape": [3]}, 'bad_request: missing "shm"'),
                    ("points", [1e300] * 15, "bad_request: points holds a NaN or an infinity"),
                    ("points", TWO["points"][:4], "bad_request: the counts add up to 5 points, not the 4 given"),
                    ("points", [], "bad_request: the counts add up to 5 points, not the 0 given"),
                    ("counts", None, 'bad_request: missing "counts"'),
                    ("counts", "2", "bad_request: counts must be a list or a shared memory reference"),
                    ("counts", [2.5, 2.5], "bad_request: counts holds a fraction where an integer goes"),
                    ("counts", [2, 4], "bad_request: the counts add up to 6 points, not the 5 given"),
                    ("counts", [1, 4], "bad_request: a guide needs 2 points or more"),
                    ("counts", [-2, 7], "bad_request: a guide needs 2 points or more"),
                    ("counts", [5], "bad_request: ids must hold one ID per curve"),
                    ("ids", [7], "bad_request: ids must hold one ID per curve"),
                    ("ids", [], "bad_request: ids must hold one ID per curve"),
                    ("ids", [7, 7], "bad_request: guide ID 7 is given twice"),
                    ("ids", [2**63, 2**63], "bad_request: guide ID 9223372036854775808 is given twice"),
                    ("ids", [7, -1], "bad_request: a guide ID is a positive integer"),
                    ("ids", [7, 1.0], "bad_request: ids holds a fraction where an integer goes"),
                    ("ids", 7, "bad_request: ids must be a list or a shared memory reference"),
                    ("target", "both", 'bad_request: target is "auto", "flat" or "hierarchy"'),
                    ("target", 1, 'bad_request: "target" must be a string'),
                    ("pose", "then", 'bad_request: pose is "now" or "rest"'),
                    ("pose", False, 'bad_request: "pose" must be a string'),
                    ("keepMissing", 1, 'bad_request: "keepMissing" must be true or false'),
                ],
            )
        check_bad_inputs(
            self,
            self.groom,
            "get_guides",
            {"source": "auto", "pose": "rest", "space": "elsewhere"},
            [
                ("source", "both", 'bad_request: source is "auto", "flat" or "hierarchy"'),
                ("source", {}, 'bad_request: "source" must be a string'),
                ("pose", "Now", 'bad_request: pose is "now" or "rest"'),
                ("space", 1, 'bad_request: "space" must be a string'),
            ],
        )
        state = self.groom.state()
        reply = self.groom.ask("set_guides", **TWO, ids=[2**64 - 1, 0], target="flat")
        self.assertEqual(
            failure(reply),
            "bad_request: guide ID 18446744073709551615 leaves none for the curves without an ID",
        )
        self.assertEqual(self.groom.state(), state)

    def test_flat_edits_are_told_by_id(self):
        empty = {"guides": 0, "points": 0, "source": "flat", "pose": "now"}
        self.assertEqual(self.guides(), (empty, {"points": [], "counts": [], "ids": []}))
        first = {"target": "flat", "pose": "now", "guides": 2}
        self.assertEqual(
            self.groom.do("set_guides", **TWO),
            {**first, "added": 2, "changed": 0, "removed": 0, "updated": True},
        )
        answer, arrays = self.guides()
        self.assertEqual(answer, {"guides": 2, "points": 5, "source": "flat", "pose": "now"})
        self.assertEqual((arrays["ids"], arrays["counts"]), ([1, 2], [2, 3]))
        for got, sent in zip(arrays["points"], TWO["points"]):
            for a, b in zip(got, sent):
                self.assertAlmostEqual(a, b, delta=1e-7)
        again = self.groom.do("set_guides", **TWO, ids=[1, 2])
        self.assertEqual(again, {**first, "added": 0, "changed": 0, "removed": 0, "updated": False})
        # Guide 2 is bent, 1 goes, 9 is new, and so is one without an ID: above all.
        points = TWO["points"][2:] + TWO["points"][:2] * 2
        points[1] = [5, 5, 5]
        edit = self.groom.do("set_guides", points=points, counts=[3, 2, 2], ids=[2, 9, 0])
        self.assertEqual(edit, {**first, "guides": 3, "added": 2, "changed": 1, "removed": 1, "updated": True})
        self.assertEqual(self.guides()[1]["ids"], [2, 9, 10])
        gone = self.groom.do("set_guides", points=[], counts=[])
        self.assertEqual((gone["removed"], gone["updated"]), (3, True))
        self.assertEqual(self.guides()[0]["guides"], 0)

    def test_host_space_there_and_back_for_both_kinds(self):
        rng = random.Random(8)
        for target in ("flat", "hierarchy"):
            for axis in "YZ":
                self.groom.do("set_space", upAxis=axis, metersPerUnit=0.3048)
                points = [[rng.uniform(-5, 5) for _ in range(3)] for _ in range(60)]
                self.groom.do("set_guides", points=points, counts=[12] * 5, target=target)
                for fields in ({}, {"space": "host"}, {"space": "nonsense"}):
                    got = self.guides(source=target, **fields)[1]["points"]
                    for a, b in zip(got, points):
                        for x, y in zip(a, b):
                            self.assertAlmostEqual(x, y, delta=2e-6)
                x, y, z = points[0]
                host = [x, y, z] if axis == "Y" else [x, z, -y]
                for a, b in zip(self.guides(source=target, space="groom")[1]["points"][0], host):
                    self.assertAlmostEqual(a, b * 30.48, delta=2e-4)

    def test_rest_guides_ride_on_the_scalp(self):
        rest = {**MESH, "restPoints": MESH["points"], "points": raised(MESH["points"], 3)}
        self.groom.do("set_scalp", **rest)
        answer = self.groom.do("set_guides", **TWO, pose="rest")
        self.assertEqual((answer["pose"], answer["added"], answer["updated"]), ("rest", 2, True))
        self.near(self.guides(pose="rest")[1]["points"], TWO["points"])
        self.near(self.guides()[1]["points"], raised(TWO["points"], 3))
        self.groom.do("update_scalp", points=raised(MESH["points"], -4))
        self.near(self.guides()[1]["points"], raised(TWO["points"], -4))
        self.near(self.guides(pose="rest")[1]["points"], TWO["points"])
        self.assertFalse(self.groom.do("set_guides", **TWO, ids=[1, 2], pose="rest")["updated"])
        # Other triangles: rooted again, on the rest pose.
        other = {**rest, "faceIndices": [1, 2, 3, 0]}
        self.assertEqual(self.groom.do("set_scalp", **other)["guidesRerooted"], 2)
        self.near(self.guides()[1]["points"], raised(TWO["points"], 3))
        # An empty list at rest leaves the flat one alone.
        self.groom.do("set_guides", points=[], counts=[], pose="rest")
        self.assertEqual(self.guides()[0]["guides"], 2)

    def near(self, got, expected, delta=2e-6):
        self.assertEqual(len(got), len(expected))
        for a, b in zip(got, expected):
            for x, y in zip(a, b):
                self.assertAlmostEqual(x, y, delta=delta)

    def test_hierarchy_edits_are_matched_by_id(self):
        self.groom.do("set_scalp", **MESH)
        made = self.groom.do("set_guides", **TWO, target="hierarchy", ids=[0, 5])
        self.assertEqual(
            made, {"target": "hierarchy", "guides": 2, "added": 2, "changed": 0, "removed": 0, "updated": True}
        )
        # A fresh ID lies above every given one, in whatever order they came.
        self.assertEqual(self.guides()[1]["ids"], [6, 5])
        self.assertEqual(self.guides()[0]["source"], "hierarchy", "auto: the flat list is empty")
        bent = raised(TWO["points"][2:], 0.5)
        kept = self.groom.do("set_guides", points=bent, counts=[3], ids=[5], keepMissing=True)
        self.assertEqual((kept["target"], kept["changed"], kept["removed"]), ("hierarchy", 1, 0))
        same = self.groom.do("set_guides", points=bent, counts=[3], ids=[5], keepMissing=True)
        self.assertEqual((same["changed"], same["updated"]), (0, False))
        self.near(self.guides()[1]["points"], TWO["points"][:2] + bent)
        unknown = self.groom.do("set_guides", points=bent, counts=[3], ids=[77])
        self.assertEqual((unknown["added"], unknown["removed"]), (1, 2))
        self.assertEqual(self.guides()[1]["ids"], [77])
        # Where the counted IDs end, those that children have are stepped over.
        last = 2**53 - 1
        self.groom.do("set_guides", **TWO, target="hierarchy", ids=[last, last + 1])
        self.groom.do("set_guides", **TWO, target="hierarchy", keepMissing=True)
        self.assertEqual(self.guides()[1]["ids"], [last, last + 1, last + 2, last + 3])
        self.groom.do("set_guides", points=bent, counts=[3], ids=[77], target="hierarchy")
        self.groom.do("set_guides", **TWO, target="flat")
        self.assertEqual(self.guides()[0]["source"], "flat", "auto: a flat list wins")
        self.assertEqual(self.groom.do("set_guides", points=[], counts=[])["target"], "flat")
        self.assertEqual(self.guides()[0]["source"], "hierarchy")

    def test_an_edit_on_a_moved_scalp_stays_where_it_was_made(self):
        for restPoints in ({}, {"restPoints": MESH["points"]}):
            with self.subTest(**restPoints):
                self.groom = Groom(self.helper)
                self.groom.do("set_scalp", **MESH, **restPoints)
                self.groom.do("set_guides", **TWO, target="hierarchy")
                self.groom.do("update_scalp", points=raised(MESH["points"], 2))
                self.near(self.guides()[1]["points"], raised(TWO["points"], 2))
                bent = raised(TWO["points"][:2], 7)
                self.groom.do("set_guides", points=bent, counts=[2], ids=[1], keepMissing=True)
                self.near(self.guides()[1]["points"], bent + raised(TWO["points"][2:], 2))
                self.near(self.guides(pose="rest")[1]["points"], raised(bent, -2) + TWO["points"][2:])
                # At rest it is the rest points that change.
                self.groom.do("set_guides", **TWO, ids=[1, 2], pose="rest")
                self.near(self.guides(pose="rest")[1]["points"], TWO["points"])
                self.near(self.guides()[1]["points"], raised(TWO["points"], 2))
                before = contents(self.groom.do("get_guides"))
                self.groom.do("update_scalp", points=MESH["points"])
                self.groom.do("update_scalp", points=raised(MESH["points"], 2))
                self.assertEqual(contents(self.groom.do("get_guides")), before)
