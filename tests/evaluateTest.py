"""Hair comes out: the answer of evaluate, and the promises about its bits."""

import random
import unittest

import corvelle_client as client
import numpy as np
from demo import guides as demo_guides
from demo import head as demo_head
from support import HELPER, Groom, Pipes, array_of, check_bad_inputs, failure

HEAD = demo_head.make_head(24, 36)
CURVES, COUNTS = demo_guides.head_guides(40, 8)
KEYS = (
    "arrays attributesAvailable changedStrands changesBase errors following look messages milliseconds "
    "nodesEvaluated nodesIncremental notes pointCount sameTopology seconds serial space strandCount"
).split()


def graph_of(default, high=20.0):
    """The default graph with its density fed by the head's colour set."""
    for node in default["nodes"]:
        if node["name"] == "scatter":
            node["params"]["density"] = {"colorSet": "scalp", "high": high}
        if node["name"] == "noise":
            node["params"]["frequency"] = 1.0
    return default


def new_head(helper, colors=None, curves=CURVES, high=20.0):
    session = helper.new_session()
    session.set_scalp(
        HEAD.points, HEAD.faceCounts, HEAD.faceIndices, uvs=HEAD.uvs, colorSets=colors or HEAD.colorSets
    )
    session.set_guides(curves, COUNTS)
    session.set_graph(graph_of(helper.default_graph(), high))
    return session


def bits(answer):
    """Every array of an answer as bytes, by name."""
    found = {}
    for name, value in answer["arrays"].items():
        if name == "attributes":
            for attribute, entry in value.items():
                found["attributes." + attribute] = entry["array"].tobytes()
        else:
            found[name] = value.tobytes()
    return found


def strands_by_id(answer):
    """id to the bytes of its points."""
    arrays = answer["arrays"]
    at = arrays["offsets"]
    return {int(id): arrays["positions"][at[i] : at[i + 1]].tobytes() for i, id in enumerate(arrays["ids"])}


class EvaluateTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.helper = client.Helper(HELPER)

    @classmethod
    def tearDownClass(cls):
        cls.helper.close()

    def head(self, **fields):
        session = new_head(self.helper, **fields)
        self.addCleanup(session.close)
        return session

    def test_the_answer_is_whole_and_its_arrays_fit(self):
        answer = self.head().evaluate(attributes="all", bounds=True)
        self.assertEqual(sorted(answer), sorted([*KEYS, "bounds"]))
        self.assertEqual((answer["errors"], answer["messages"], answer["notes"]), ([], [], {}))
        strands, points = answer["strandCount"], answer["pointCount"]
        self.assertGreater(strands, 5000)
        arrays = answer["arrays"]
        for name, dtype, shape in (
            ("positions", "<f4", (points, 3)),
            ("pointCounts", "<i4", (strands,)),
            ("offsets", "<i4", (strands + 1,)),
            ("ids", "<u8", (strands,)),
            ("widths", "<f4", (points,)),
        ):
            self.assertEqual((arrays[name].dtype.str, arrays[name].shape), (dtype, shape), name)
        self.assertTrue(np.array_equal(np.diff(arrays["offsets"]), arrays["pointCounts"]))
        self.assertEqual((arrays["offsets"][0], arrays["offsets"][-1]), (0, points))
        self.assertEqual(len(set(arrays["ids"].tolist())), strands)
        self.assertTrue(np.isfinite(arrays["positions"]).all())
        self.assertTrue(0 < arrays["widths"].min() and arrays["widths"].max() < 1e-3, "metres, like the scene")
        low, high = arrays["positions"].min(axis=0), arrays["positions"].max(axis=0)
        np.testing.assert_allclose(answer["bounds"]["lo"], low, atol=1e-6)
        np.testing.assert_allclose(answer["bounds"]["hi"], high, atol=1e-6)

        available = {entry["name"]: entry for entry in answer["attributesAvailable"]}
        self.assertEqual(sorted(available), sorted(arrays["attributes"]))
        self.assertNotIn("_preview", available)
        for name, entry in arrays["attributes"].items():
            of = available[name]
            count = strands if of["scope"] == "strand" else points
            shape = (count,) if of["components"] == 1 else (count, of["components"])
            self.assertEqual((entry["scope"], entry["array"].shape), (of["scope"], shape), name)
        self.assertEqual(available["rootUV"]["components"], 2)
        color = arrays["attributes"]["color"]["array"]
        for k, name in enumerate(("colorR", "colorG", "colorB")):
            self.assertTrue(np.array_equal(color[:, k], arrays["attributes"][name]["array"]))
        uv = arrays["attributes"]["rootUV"]["array"]
        self.assertTrue(uv.min() >= -1e-5 and uv.max() <= 1 + 1e-5)

    def test_groom_space_is_the_same_hair_y_up_in_centimetres(self):
        session = self.head()
        host = client.keep(session.evaluate(bounds=True))
        groom = session.evaluate(space="groom", bounds=True)
        self.assertEqual((host["space"], groom["space"]), ("host", "groom"))
        self.assertEqual(groom["bounds"], host["bounds"], "the box is the host's in both")
        p, q = groom["arrays"]["positions"], host["arrays"]["positions"]
        self.assertTrue(np.array_equal(np.stack([p[:, 0], -p[:, 2], p[:, 1]], axis=1) / np.float64(100), q.astype("<f4")) or
                        np.allclose(np.stack([p[:, 0], -p[:, 2], p[:, 1]], axis=1) / 100, q, rtol=1e-6, atol=0))
        np.testing.assert_allclose(groom["arrays"]["widths"], host["arrays"]["widths"] * 100, rtol=1e-6)

    def test_attributes_come_as_they_are_asked_for(self):
        session = self.head()
        some = session.evaluate(attributes=["melanin", "nonsense", "rootUV", "_preview", "melanin"])
        self.assertEqual(sorted(some["arrays"]["attributes"]), ["melanin", "rootUV"])
        self.assertEqual(some["missingAttributes"], ["nonsense", "_preview"])
        none = session.evaluate(attributes=[])
        self.assertEqual(none["arrays"]["attributes"], {})
        self.assertNotIn("missingAttributes", none)
        listed = {entry["name"] for entry in none["attributesAvailable"]}
        self.assertTrue({"color", "rootUV"} <= listed)
        self.assertNotIn("pointColor", listed)
        # A tip colour varies along strands: colour per point.
        session.set_param("color", "tipStrength", 1.0)
        tipped = session.evaluate(attributes=["pointColor"])
        entry = tipped["arrays"]["attributes"]["pointColor"]
        self.assertEqual((entry["scope"], entry["array"].shape), ("point", (tipped["pointCount"], 3)))

    def test_a_channel_may_have_the_name_of_a_computed_attribute(self):
        session = self.head()
        session.set_graph(self.helper.default_graph())
        session.edit_graph("add_node", type="Clump", name="clump", params={"clumpChannel": "color"})
        session.edit_graph("connect", **{"from": "interpolate", "to": "clump", "input": "strands"})
        session.edit_graph("connect", **{"from": "clump", "to": "length", "input": "strands"})
        for asked in (["color"], []):
            answer = session.evaluate(attributes=asked)
            listed = [entry for entry in answer["attributesAvailable"] if entry["name"] == "color"]
            self.assertEqual(listed, [{"name": "color", "scope": "strand", "components": 1}])
            for name in asked:
                array = answer["arrays"]["attributes"][name]["array"]
                self.assertEqual(array.shape, (answer["strandCount"],))

    def test_widths_are_left_out_where_no_node_set_them(self):
        session = self.head()
        view = session.evaluate(viewNode="interpolate")
        self.assertNotIn("widths", view["arrays"])
        self.assertIn("widths", session.evaluate()["arrays"])

    def test_a_session_without_a_groom_answers_with_empty_arrays(self):
        session = self.helper.new_session()
        self.addCleanup(session.close)
        self.assertEqual(session.node_status()["errors"], [])
        for graph in ("", self.helper.default_graph()):
            session.set_graph(graph)
            answer = session.evaluate(bounds=True, attributes="all")
            self.assertEqual(sorted(answer), sorted(KEYS))
            self.assertEqual(answer["arrays"]["positions"].shape, (0, 3))
            self.assertEqual(answer["arrays"]["offsets"].tolist(), [0])
            self.assertEqual(bool(answer["errors"]), graph != "")
            self.assertEqual([m["text"] for m in answer["messages"]], answer["errors"])
            self.assertEqual(session.node_status()["errors"], answer["errors"])
        text = "node 'scalp': Scalp: no scalp named 'scalp' on this groom: nothing to grow on"
        self.assertEqual(answer["errors"], [text])
        stats = session.stats()
        self.assertEqual((stats["strands"], stats["points"], stats["guides"]), (0, 0, 0))

    def test_the_same_bits_on_1_2_and_8_threads(self):
        seen = []
        for threads in "128":
            with client.Helper(HELPER, environment={"CORVELLE_THREADS": threads}) as helper:
                session = new_head(helper)
                session.set_param("scatter", "randomness", 0.5)
                session.set_param("noise", "amplitude", {"expression": "0.3 * fbm(P) + 0.1 * rand"})
                answer = session.evaluate(attributes="all", bounds=True)
                self.assertEqual(answer["errors"], [])
                seen.append((bits(answer), answer["bounds"]))
        self.assertGreater(len(seen[0][0]["ids"]), 8 * 5000)
        for other in seen[1:]:
            self.assertEqual([name for name in seen[0][0] if seen[0][0][name] != other[0][name]], [])
            self.assertEqual(seen[0], other)

    def test_a_lower_preview_is_a_subset_of_the_same_strands(self):
        session = self.head(high=60.0)
        full = session.evaluate(mode="render", density=7, pointBudget=-1, viewNode=5)  # not looked at
        strands = strands_by_id(full)
        count = full["strandCount"]
        self.assertGreater(count, 25_000)
        before = set(strands)
        for density in (1.0, 0.7, 0.4, 0.0):
            answer = session.evaluate(density=density)
            thin = strands_by_id(answer)
            self.assertTrue(set(thin) <= before)
            self.assertEqual([id for id in thin if thin[id] != strands[id]], [])
            self.assertLess(abs(len(thin) - max(density, 0.13) * count), 0.15 * count)
            before = set(thin)
        budget = session.evaluate(pointBudget=count * 3)["strandCount"]
        self.assertLess(abs(budget - count / 3), 0.1 * count)

    def test_roots_far_from_a_density_edit_do_not_move(self):
        colors = HEAD.colorSets["scalp"]
        right = (HEAD.points[HEAD.faceIndices][:, 0] > 0)[:, None]
        edited = np.where(right, colors * 0.3, colors).astype(np.float32)
        for randomness in (1.0, 0.0):  # white noise, and spread evenly
            seen = []
            for given in (colors, edited):
                session = self.head(colors={"scalp": given})
                session.set_param("scatter", "randomness", randomness)
                answer = session.evaluate(viewNode="scatter")
                self.assertEqual(answer["errors"], [])
                roots = answer["arrays"]["positions"][answer["arrays"]["offsets"][:-1]]
                far = roots[:, 0] < -0.02
                seen.append(dict(zip(answer["arrays"]["ids"][far].tolist(), roots[far].copy())))
                total = answer["strandCount"]
            self.assertGreater(len(seen[0]), 1000)
            self.assertLess(total, 9000, "the edit took hair away")
            common = sorted(set(seen[0]) & set(seen[1]))
            moved = [np.abs(seen[0][id] - seen[1][id]).max() for id in common]
            if randomness == 1.0:
                self.assertEqual((len(common), max(moved)), (len(seen[0]), 0.0))
            else:  # the edge pushes its neighbours, these theirs, for as long as the relaxation runs
                self.assertGreater(len(common), 0.99 * len(seen[0]))
                self.assertGreater(moved.count(0.0), 0.6 * len(common))

    def test_going_back_costs_nothing_and_looking_twice_neither(self):
        session = self.head()
        first = client.keep(session.evaluate(attributes=["color"]))
        self.assertEqual((first["changedStrands"], first["changesBase"], first["sameTopology"]), (None, 0, False))
        self.assertEqual(first["nodesEvaluated"], 10)
        second = session.request("evaluate", attributes=["color"])
        self.assertEqual((second["serial"], second["changesBase"]), (first["serial"],) * 2)
        self.assertEqual((second["changedStrands"], second["nodesEvaluated"]), (0, 0))
        self.assertTrue(second["sameTopology"])
        for node, param, value in (("noise", "amplitude", 0.5), ("scatter", "seed", 5), ("width", "width", 0.02)):
            old = session.get_param(node, param)
            session.set_param(node, param, value)
            changed = session.evaluate()
            self.assertGreater(changed["nodesEvaluated"], 0)
            self.assertEqual(changed["sameTopology"], node != "scatter")
            session.set_param(node, param, old)
            back = session.evaluate(attributes=["color"])
            self.assertEqual(back["nodesEvaluated"], 0)
            self.assertEqual(bits(back), bits(first))
        fresh = session.set_graph({**session.get_graph(), "note": 1})
        self.assertEqual(fresh, 10)
        self.assertEqual(session.evaluate()["nodesEvaluated"], 0, "the same nodes in another text")

    def test_an_answer_asked_for_again_lies_where_it_lay(self):
        with Pipes() as helper:
            groom = Groom(helper)
            groom.do("set_scalp", points=[[0, 0, 0], [0.05, 0, 0], [0, 0.05, 0]], faceCounts=[3], faceIndices=[0, 1, 2])
            groom.do("set_graph", graph=helper.ask(cmd="default_graph")["result"]["graph"])
            groom.do("set_guides", points=[[0, 0, 0], [0, 0, 0.1]], counts=[2])
            first = groom.do("evaluate", attributes="all")
            self.assertEqual(groom.do("evaluate", attributes="all")["arrays"], first["arrays"])
            before = array_of(first["arrays"]["positions"])
            groom.do("evaluate", space="groom")
            again = groom.do("evaluate", attributes="all")
            self.assertTrue(np.array_equal(array_of(again["arrays"]["positions"]), before))
            # A failed answer is written too, and does not stay to be believed.
            self.assertEqual(
                failure(groom.ask("evaluate", attributes=[1])), "bad_request: attributes must name attributes"
            )
            again = groom.do("evaluate", attributes="all")
            self.assertTrue(np.array_equal(array_of(again["arrays"]["positions"]), before))

    def test_bad_fields_are_named_and_change_nothing(self):
        with Pipes() as helper:
            groom = Groom(helper)
            groom.do("set_scalp", points=[[0, 0, 0], [0.02, 0, 0], [0, 0.02, 0]], faceCounts=[3], faceIndices=[0, 1, 2])
            groom.do("evaluate")
            names = 'bad_request: attributes must be a list of names or "all"'
            good = {
                "mode": "preview", "space": "groom", "density": 0, "sculptDensity": 1, "pointBudget": 0,
                "viewNode": "nobody", "bounds": True, "attributes": ["x"],
            }  # fmt: skip
            check_bad_inputs(
                self,
                groom,
                "evaluate",
                good,
                [
                    ("mode", "final", 'bad_request: mode is "preview" or "render"'),
                    ("mode", 1, 'bad_request: "mode" must be a string'),
                    ("space", "world", 'bad_request: space is "host" or "groom"'),
                    ("space", [], 'bad_request: "space" must be a string'),
                    ("density", -0.1, "bad_request: density must be between 0 and 1"),
                    ("density", 1.1, "bad_request: density must be between 0 and 1"),
                    ("density", 1e300, "bad_request: density must be between 0 and 1"),
                    ("density", "1", 'bad_request: "density" must be a number'),
                    ("sculptDensity", 0, "bad_request: sculptDensity must be above 0, at most 1"),
                    ("sculptDensity", 1e-300, "bad_request: sculptDensity must be above 0, at most 1"),
                    ("sculptDensity", 2, "bad_request: sculptDensity must be above 0, at most 1"),
                    ("sculptDensity", {}, 'bad_request: "sculptDensity" must be a number'),
                    ("pointBudget", -1, "bad_request: pointBudget must be 0 or more"),
                    ("pointBudget", True, 'bad_request: "pointBudget" must be a number'),
                    ("viewNode", 1, 'bad_request: "viewNode" must be a string'),
                    ("bounds", 1, 'bad_request: "bounds" must be true or false'),
                    ("attributes", "some", names),
                    ("attributes", 1, names),
                    ("attributes", {"color": True}, names),
                    ("attributes", [1], "bad_request: attributes must name attributes"),
                    ("attributes", ["x", None], "bad_request: attributes must name attributes"),
                ],
            )
            # The checks run in this order.
            wrong = {**good, "mode": "x", "space": "x", "sculptDensity": 9, "density": 9, "pointBudget": -9, "viewNode": 9, "bounds": 9}
            said = []
            for field in ("mode", "space", "sculptDensity", "density", "pointBudget", "viewNode", "bounds"):
                said.append(field in failure(groom.ask("evaluate", **wrong)))
                wrong[field] = good[field]
            self.assertEqual(said, [True] * 7)
            reply = groom.ask("evaluate", mode="render", density=7, sculptDensity=[], pointBudget=-1, viewNode=3)
            self.assertEqual(failure(reply), "ok")

    def test_points_that_are_no_numbers_are_told_with_their_node(self):
        session = self.head()
        session.set_param("scatter", "length", 3e38)
        session.edit_graph("set_output", name="scatter")
        self.assertEqual(session.evaluate()["errors"], [])
        session.set_param("scatter", "length", 1e300)
        errors = session.evaluate()["errors"]
        if errors:  # else the node clamps what it is given
            self.assertEqual(
                errors, ["node 'scatter' makes the strands have points that are not numbers (NaN or infinite)"]
            )
        self.assertEqual(session.evaluate()["errors"], errors)

    def test_sessions_do_not_touch_each_other(self):
        a, b = self.head(), self.head()
        first = client.keep(a.evaluate(attributes="all", bounds=True))
        self.assertEqual(bits(b.evaluate(attributes="all")), bits(first))
        b.set_space(upAxis="Y", metersPerUnit=0.01)
        b.set_time(frame=12, fps=30)
        b.set_options(followScalp=True, mapsDir="/tmp/other")
        b.update_scalp(HEAD.points * 1.1)
        b.set_guides(CURVES[:16], COUNTS[:2])
        b.set_param("scatter", "seed", 4)
        b.edit_graph("remove_node", name="noise")
        b.evaluate()
        second = a.evaluate(attributes="all", bounds=True)
        self.assertEqual((second["nodesEvaluated"], second["serial"]), (0, first["serial"]))
        self.assertEqual(bits(second), bits(first))
        self.assertEqual((second["seconds"], second["bounds"]), (0.0, first["bounds"]))
        self.assertEqual(a.get_param("scatter", "seed"), 0)
        self.assertFalse(a.set_options()["followScalp"])

    def test_a_following_groom_moves_without_growing_again(self):
        session = self.head()
        session.set_options(followScalp=True)
        session.set_scalp(
            HEAD.points, HEAD.faceCounts, HEAD.faceIndices, uvs=HEAD.uvs, colorSets=HEAD.colorSets, restPoints=HEAD.points
        )
        session.set_guides(CURVES, COUNTS, pose="rest")
        rest = client.keep(session.evaluate())
        self.assertFalse(rest["following"])
        by = np.array([0.2, -0.1, 0.3], np.float32)
        session.update_scalp(HEAD.points + by)
        moved = client.keep(session.evaluate())
        self.assertEqual((moved["following"], moved["nodesEvaluated"], moved["errors"]), (True, 0, []))
        self.assertTrue(moved["sameTopology"])
        self.assertIsNone(moved["changedStrands"])
        np.testing.assert_allclose(moved["arrays"]["positions"], rest["arrays"]["positions"] + by, atol=2e-6)
        session.update_scalp(HEAD.points + by)
        same = session.evaluate()
        self.assertEqual((same["changedStrands"], same["serial"]), (0, moved["serial"]))
        session.update_scalp(HEAD.points)
        self.assertEqual(bits(session.evaluate()), bits(rest))

    def test_random_guide_edits_give_the_bits_of_a_fresh_session(self):
        rng = random.Random(11)
        session = self.head()
        session.evaluate()
        curves = CURVES.copy()
        incremental = 0
        for step in range(6):
            before = client.keep(session.evaluate())
            for _ in range(rng.randrange(1, 4)):
                guide = rng.randrange(40)
                bend = np.linspace(0, rng.uniform(-0.03, 0.03), 8)[:, None]
                curves[8 * guide : 8 * guide + 8] += (bend * rng.choice([[1, 0, 0], [0, 1, 0], [0, 0, 1]])).astype("<f4")
            session.set_guides(curves, COUNTS, ids=np.arange(1, 41))
            now = session.evaluate(attributes="all")
            self.assertEqual(now["errors"], [])
            self.assertEqual(now["changesBase"], before["serial"])
            self.assertTrue(now["sameTopology"])
            incremental += now["nodesIncremental"]
            differ = sum(a != b for a, b in zip(strands_by_id(before).values(), strands_by_id(now).values()))
            self.assertLessEqual(differ, now["changedStrands"])
            self.assertLess(now["changedStrands"], now["strandCount"], "too wide to prove anything")
            fresh = self.head(curves=curves)
            fresh.set_guides(curves, COUNTS, ids=np.arange(1, 41))
            self.assertEqual(bits(fresh.evaluate(attributes="all")), bits(now))
        self.assertGreater(incremental, 20)

    def test_random_moves_and_edits_while_following_give_the_bits_of_a_fresh_session(self):
        rng = random.Random(3)
        mesh = demo_head.make_head(16, 24)
        curves, counts = demo_guides.head_guides(20, 6)
        graph = graph_of(self.helper.default_graph())
        graph["nodes"][2]["params"]["density"] = 2

        def following(points, curves):
            session = self.helper.new_session()
            self.addCleanup(session.close)
            session.set_options(followScalp=True)
            session.set_scalp(points, mesh.faceCounts, mesh.faceIndices, uvs=mesh.uvs, restPoints=mesh.points)
            session.set_guides(curves, counts, ids=np.arange(1, 21), pose="rest")
            session.set_graph(graph)
            return session

        points, incremental = mesh.points, 0
        session = following(points, curves)
        for _ in range(16):
            pick = rng.randrange(4)
            if pick < 2:  # the scalp moves
                wave = np.sin(mesh.points * rng.uniform(5, 20) + rng.random())
                points = (mesh.points + 0.02 * wave).astype("<f4")
            elif pick == 2:  # back to rest
                points = mesh.points
            session.update_scalp(points)
            if pick > 0:
                guide = 6 * rng.randrange(20)
                curves[guide : guide + 6] += np.linspace(0, 0.02, 6, dtype=np.float32)[:, None]
                session.set_guides(curves, counts, ids=np.arange(1, 21), pose="rest")
            now = session.evaluate(bounds=True, attributes="all")
            self.assertEqual((now["errors"], now["following"]), ([], points is not mesh.points))
            incremental += now["nodesIncremental"]
            fresh = following(points, curves).evaluate(bounds=True, attributes="all")
            self.assertEqual(bits(fresh), bits(now))
            self.assertEqual(fresh["bounds"], now["bounds"])
        self.assertGreater(incremental, 50)

    def test_random_edits_of_params_and_scalp_give_the_bits_of_a_fresh_session(self):
        rng = random.Random(12)
        session = self.head()
        points = HEAD.points
        edits = [
            ("noise", "amplitude", lambda: rng.choice([0, 0.3, {"expression": "0.2 * t"}])),
            ("noise", "mode", lambda: rng.choice(["smooth", "kinky"])),
            ("length", "keep", lambda: rng.uniform(0.2, 1)),
            ("resample", "segments", lambda: rng.randrange(3, 12)),
            ("width", "randomness", lambda: rng.random()),
            ("color", "grey", lambda: rng.random()),
            ("scatter", "seed", lambda: rng.randrange(3)),
            ("interpolate", "neighbors", lambda: rng.randrange(1, 6)),
        ]
        for step in range(10):
            if step % 4 == 3:
                points = (points * np.float32(rng.uniform(0.98, 1.02))).astype("<f4")
                session.update_scalp(points)
            node, param, value = rng.choice(edits)
            session.set_param(node, param, value())
            if step % 2:
                session.edit_graph("set_bypass", name="noise", bypass=rng.random() < 0.5)
            now = session.evaluate(attributes="all", density=rng.choice([0.5, 1.0]))
            self.assertEqual(now["errors"], [])
        fresh = self.head()
        fresh.update_scalp(points)
        held = session.get_guides()["arrays"]
        fresh.set_guides(held["points"], held["counts"], ids=held["ids"])
        session.set_guides(held["points"], held["counts"], ids=held["ids"])  # rooted where the scalp is now
        fresh.set_graph(session.get_graph())
        for fields in ({"density": 0.5}, {"mode": "render"}):
            self.assertEqual(
                bits(fresh.evaluate(attributes="all", **fields)), bits(session.evaluate(attributes="all", **fields))
            )

    def test_status_tells_what_the_last_evaluation_left(self):
        session = self.head()
        session.evaluate()
        status = session.node_status()
        self.assertEqual(sorted(status), ["errors", "graphError", "inputErrors", "notes", "times"])
        self.assertEqual((status["errors"], status["inputErrors"], status["graphError"]), ([], [], ""))
        self.assertEqual(sorted(status["times"]), sorted(node["name"] for node in session.list_nodes()["nodes"]))
        session.set_param("resample", "segments", 1)
        session.set_param("noise", "frequency", 9)
        answer = session.evaluate()
        self.assertIn("noise", answer["notes"], "too few points for this wave: said in a note")
        self.assertEqual(session.node_status()["notes"], answer["notes"])
        session.set_param("noise", "amplitude", {"expression": "nothing + 1"})
        answer = session.evaluate()
        self.assertEqual(len(answer["errors"]), 1)
        self.assertIn("nothing", answer["errors"][0])
        self.assertEqual(session.node_status()["errors"], answer["errors"])
        stats = session.stats()
        self.assertEqual((stats["view"], stats["strands"], stats["guides"]), ("output", 0, 40))

    def test_time_reaches_expressions_and_going_back_is_free(self):
        session = self.head()
        session.set_param("noise", "amplitude", {"expression": "0.01 * frame + time"})
        seen = {}
        for frame in (0, 10, 0, 10):
            session.set_time(frame=frame)
            answer = session.evaluate()
            self.assertEqual(answer["seconds"], frame / 24)
            if frame in seen:
                self.assertEqual(answer["nodesEvaluated"], 0)
                self.assertEqual(bits(answer), seen[frame])
            seen[frame] = bits(answer)
        self.assertNotEqual(seen[0]["positions"], seen[10]["positions"])
        self.assertEqual(seen[0]["ids"], seen[10]["ids"])
