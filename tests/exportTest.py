"""Hair goes out: export_open, export_frame, export_close and export, read back by the program itself."""

import json
import os
import tempfile
import unittest

import corvelle_client as client
import numpy as np
from evaluateTest import COUNTS, CURVES, HEAD, graph_of
from support import HELPER, Groom, Pipes, failure

POINTS = np.array([[0, 0, 0], [0.1, 0, 0], [0.1, 0.1, 0], [0, 0.1, 0]])
GUIDES = np.array([[[x, y, z] for z in (0, 0.02, 0.04)] for x in (0.02, 0.08) for y in (0.02, 0.08)])
WAYS = ("alembic", "usd")


def patch(helper, high=2.0):
    """A small patch of hair in a session of the client."""
    session = helper.new_session()
    session.set_scalp(POINTS, [4], [0, 1, 2, 3], uvs=POINTS[:, :2] * 10)
    session.set_guides(GUIDES.reshape(-1, 3), [3, 3, 3, 3])
    graph = helper.default_graph()
    for node in graph["nodes"]:
        if node["name"] == "scatter":
            node["params"]["density"] = high
    session.set_graph(graph)
    return session


class ExportTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def file(self, name):
        return os.path.join(self.folder, name)

    def imported(self, session, path, **params):
        """The strands that ImportCurves makes of a file, at the session's time."""
        graph = {
            "nodes": [{"type": "ImportCurves", "name": "file", "params": {"path": path, "as": "strands", "samples": 0, **params}},
                      {"type": "Output", "name": "out"}],
            "connections": [{"from": "file", "to": "out", "input": "strands"}],
            "output": "out",
        }
        session.set_graph(graph)
        answer = client.keep(session.evaluate(mode="render"))
        self.assertEqual(answer["errors"], [])
        return answer["arrays"]

    def test_alembic_comes_back_bit_by_bit_frame_by_frame(self):
        with client.Helper(HELPER) as helper, patch(helper) as session, helper.new_session() as reader:
            path = self.file("hair.abc")
            number = session.export_open(path, guides=True)
            written = []
            for frame in range(3):
                session.update_scalp(POINTS + [0, 0, 0.01 * frame])
                answer = session.export_frame(number, frame=10 + frame)
                self.assertEqual(answer["frames"], frame + 1)
                session.set_time(frame=10 + frame)
                hair = client.keep(session.evaluate(mode="render"))
                self.assertEqual(answer["strands"], hair["strandCount"])
                written.append(hair["arrays"])
            self.assertEqual(session.export_close(number), {"path": path, "frames": 3, "warnings": []})
            for frame in range(3):
                reader.set_time(frame=10 + frame)
                read = self.imported(reader, path, object="hairShape")
                for name in ("positions", "offsets", "ids", "widths"):
                    self.assertEqual(read[name].tobytes(), written[frame][name].tobytes(), name)
                self.assertEqual(len(self.imported(reader, path, object="guides_0")["ids"]), 4)
            reader.set_graph({"nodes": [{"type": "ImportCurves", "name": "f", "params": {"path": path, "object": "fur"}},
                                        {"type": "ToStrands", "name": "out"}],
                              "connections": [{"from": "f", "to": "out", "input": "guides"}], "output": "out"})
            self.assertEqual(reader.evaluate()["errors"], ["node 'f': ImportCurves: no curves named 'fur'"])

    def test_whole_runs_write_the_frames_asked_for(self):
        with client.Helper(HELPER) as helper, patch(helper, high=200.0) as session:  # small grooms are not thinned
            session.set_param("resample", "segments", 3)
            whole = session.evaluate(mode="render")["strandCount"]
            for way in WAYS:
                path = self.file("run." + way)
                answer = session.export(path, format=way, first=1, last=2, step=0.5)
                self.assertEqual(answer, {"path": path, "frames": 3, "strands": whole, "warnings": []})
                self.assertEqual(session.export(path, format=way, first=1, last=1)["frames"], 1)
                session.set_time(frame=7)
                self.assertEqual(session.export(path, format=way)["frames"], 1)
                fewer = session.export(path, format=way, density=0.5)["strands"]
                self.assertTrue(0.45 * whole < fewer < 0.55 * whole, fewer)
            text = open(self.file("run.usd")).read()
            self.assertIn('doc = "Corvelle 0.2.1: Corvelle for Blender"', text)
            session.export(self.file("run.usd"), format="usd", first=1, last=2, step=0.5)
            text = open(self.file("run.usd")).read()
            for line in ('defaultPrim = "run"', "startTimeCode = 1\n", "endTimeCode = 2\n", "metersPerUnit = 0.01", 'upAxis = "Y"', "        1.5: [("):
                self.assertIn(line, text)
            self.assertEqual(sorted(os.listdir(self.folder)), ["run.alembic", "run.usd"])

    def test_exports_leave_time_counters_and_answers_alone(self):
        with client.Helper(HELPER) as helper, patch(helper) as session:
            session.set_time(frame=3)
            session.evaluate(density=0.5)
            session.export(self.file("a.abc"), first=1, last=2)
            self.assertEqual(session.set_time()["frame"], 3)
            again = session.evaluate(density=0.5)
            self.assertTrue(again["sameTopology"])
            clean = session.evaluate(density=0.5)
            self.assertEqual(clean["nodesEvaluated"], 0)

    def test_warnings_tell_what_readers_stumble_over(self):
        with client.Helper(HELPER) as helper, patch(helper) as session:
            session.set_param("resample", "segments", 254)
            for way in WAYS:
                self.assertEqual(session.export(self.file("a." + way), format=way)["warnings"], [])
            session.set_param("resample", "segments", 255)
            number = session.export_open(self.file("b.abc"))
            first = session.export_frame(number, frame=1)["warnings"]
            self.assertEqual(len(first), 1)
            self.assertIn("a curve has 256 points", first[0])
            session.set_param("resample", "segments", 5)
            second = session.export_frame(number, frame=2)["warnings"]
            self.assertEqual(len(second), 2)
            self.assertIn("counts", second[1])
            self.assertEqual(session.export_close(number)["warnings"], second)

    def test_bad_requests_fail_with_their_codes_and_change_nothing(self):
        with Pipes() as helper:
            groom = Groom(helper)
            path = self.file("x.abc")
            cases = [
                ("export_open", {"path": path, "format": "fbx"}, 'bad_request: format is "alembic" or "usd"'),
                ("export_open", {}, 'bad_request: missing "path"'),
                ("export_open", {"path": path, "step": 0}, "bad_request: step must be above 0"),
                ("export_open", {"path": self.file("none/x.abc")}, "internal: cannot create '%s'" % self.file("none/x.abc")),
                ("export_open", {"path": path + "\0"}, "bad_request: a path holds a NUL character"),
                ("export", {"path": path, "frames": {"first": 2, "last": 1}}, "bad_request: frames: first <= last, step above 0"),
                ("export", {"path": path, "frames": {"step": 0}}, "bad_request: frames: first <= last, step above 0"),
                ("export", {"path": path, "frames": {"last": 1e300}}, "bad_request: frames: at most 1000000 of them"),
                ("export", {"path": path, "frames": 3}, 'bad_request: "frames" must be an object'),
                ("export", {"path": path, "density": 2}, "bad_request: density must be between 0 and 1"),
                ("export", {"path": path}, "evaluation: the groom gave no strands"),
                ("export_frame", {"export": 7}, "not_found: no export 7"),
                ("export_close", {"export": 7}, "not_found: no export 7"),
                ("export_close", {"export": "a"}, 'not_found: no export "a"'),
                ("export_close", {"export": 1.5}, "not_found: no export 1.5"),
                ("export_close", {"export": 1 << 63}, "not_found: no export 9223372036854775808"),
                ("export_frame", {}, 'bad_request: missing "export"'),
            ]
            for cmd, fields, expected in cases:
                with self.subTest(cmd=cmd, fields=fields):
                    self.assertEqual(failure(groom.ask(cmd, **fields)), expected)

    def test_a_guide_cache_plays_and_a_refused_frame_does_not_move_it(self):
        with client.Helper(HELPER) as helper, patch(helper) as session:
            cache = self.file("guides.abc")
            number = session.export_open(cache, guides=True)
            for frame in (1, 2):
                session.set_guides((GUIDES + [0, 0, 0.01 * frame]).reshape(-1, 3), [3, 3, 3, 3], ids=[1, 2, 3, 4])
                session.export_frame(number, frame=frame)
            session.export_close(number)
            groom = json.loads(session.get_state()["groom"])
            groom["guideCache"] = {"file": cache, "object": "guides_0"}
            session.set_state({"groom": json.dumps(groom)})

            def heights():
                return client.keep(session.get_guides(space="groom"))["arrays"]["points"][:, 1].max()

            for frame in (2, 1):
                session.set_time(frame=frame)
                session.evaluate()
                self.assertAlmostEqual(heights(), 4 + frame, places=4)
            number = session.export_open(self.file("hair.abc"))
            session.export_frame(number, frame=2)
            session.evaluate()
            self.assertAlmostEqual(heights(), 5, places=4)
            with self.assertRaisesRegex(client.BadRequest, "export frames must increase"):
                session.export_frame(number, frame=2)
            self.assertAlmostEqual(heights(), 5, places=4)
            # A cache that breaks under way leaves the guides as they are, and says so.
            with open(cache, "rb") as file:
                whole = file.read()
            kept = heights()

            def frame_errors(frame):
                session.set_time(frame=frame)
                answer = session.evaluate()
                texts = [message["text"] for message in answer["messages"] if message["error"]]
                return answer["errors"], texts

            for broken in (whole[:100], b"", None):
                if broken is None:
                    os.remove(cache)
                else:
                    with open(cache, "wb") as file:
                        file.write(broken)
                errors, texts = frame_errors(2)
                self.assertEqual(len(errors), 1)
                self.assertTrue(errors[0].startswith("the guide cache did not open: "), errors)
                self.assertIn(cache, errors[0])
                self.assertEqual(texts, errors)
                self.assertEqual(frame_errors(2), (errors, []), "told once, true until it is whole")
                self.assertEqual(heights(), kept, "those of frame 1")
                with self.assertRaises(client.RequestFailed) as caught:
                    session.export_frame(number, frame=3)
                self.assertEqual(caught.exception.code, "evaluation")
                self.assertEqual(caught.exception.message, errors[0])
                with open(cache, "wb") as file:
                    file.write(whole)
                for frame in (2, 1):
                    self.assertEqual(frame_errors(frame), ([], []))
                    self.assertAlmostEqual(heights(), 4 + frame, places=4)
            self.assertEqual(session.export_frame(number, frame=4)["frames"], 2)

    def test_a_failed_frame_leaves_the_job_open(self):
        with client.Helper(HELPER) as helper:
            session = patch(helper)
            for way in WAYS:
                number = session.export_open(self.file("a." + way), format=way)
                session.export_frame(number, frame=1)
                with self.assertRaisesRegex(client.RequestFailed, "export frames must increase"):
                    session.export_frame(number, frame=1)
                session.set_param("scatter", "density", {"expression": "nosuch"})
                with self.assertRaises(client.RequestFailed) as caught:
                    session.export_frame(number, frame=2)
                self.assertEqual(caught.exception.code, "evaluation")
                session.set_param("scatter", "density", 2.0)
                self.assertEqual(session.export_frame(number, frame=2)["frames"], 2)
                session.export_close(number)
            # A dropped job leaves no spools, and no Alembic file that a reader takes.
            session.export_frame(session.export_open(self.file("drop.usd"), format="usd"), frame=1)
            session.export_frame(session.export_open(self.file("drop.abc")), frame=1)
            session.close()
            self.assertEqual(sorted(os.listdir(self.folder)), ["a.alembic", "a.usd", "drop.abc"])
            with helper.new_session() as reader:
                reader.set_graph({"nodes": [{"type": "ImportCurves", "name": "f", "params": {"path": self.file("drop.abc"), "as": "strands"}}],
                                  "connections": [], "output": "f"})
                self.assertIn("the file is not whole", reader.evaluate()["errors"][0])

    def test_a_head_goes_out_in_both_formats(self):
        with client.Helper(HELPER) as helper, helper.new_session() as session:
            session.set_scalp(HEAD.points, HEAD.faceCounts, HEAD.faceIndices, uvs=HEAD.uvs, colorSets=HEAD.colorSets)
            session.set_guides(CURVES, COUNTS)
            session.set_graph(graph_of(helper.default_graph(), 5.0))
            for way in WAYS:
                self.assertGreater(session.export(self.file("head." + way), format=way)["strands"], 100)
            text = open(self.file("head.usd")).read()
            for name in ("primvars:st", "primvars:displayColor", "primvars:strandId", "primvars:colorR"):
                self.assertIn(name + " (", text)


if __name__ == "__main__":
    unittest.main()
