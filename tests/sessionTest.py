"""Sessions: how they open and close, their options, their space and their time."""

import os
import re
import unittest

from support import ABSENT, Groom, Pipes, check_bad_inputs, failure, regions_of, run

SESSION_COMMANDS = (
    "close_session set_options set_space load_groom save_groom groom_info set_scalp update_scalp "
    "get_scalp get_guides set_guides set_time evaluate stats node_status get_graph set_graph "
    "list_nodes node_spec get_param set_param edit_graph apply_preset insert_preset export_open "
    "export_frame export_close export new_groom get_state set_state tool_set tool_get stroke_begin "
    "stroke_drag stroke_end stroke_cancel hover hover_clear select selection_get selection_set "
    "pick_level set_hidden_groups guides_info guides_edit maps_list map_create map_remove undo redo "
    "undo_state display"
).split()
Z_UP = {"upAxis": "Z", "metersPerUnit": 1.0, "centimetersPerUnit": 100.0}


class SessionTest(unittest.TestCase):
    def setUp(self):
        self.helper = Pipes()
        self.addCleanup(self.helper.__exit__)

    def test_every_command_names_its_session(self):
        Groom(self.helper)
        cases = [
            (ABSENT, 'bad_request: missing "session"'),
            (None, 'bad_request: missing "session"'),
            (1.0, 'bad_request: "session" must be a session\'s number'),
            ("1", 'bad_request: "session" must be a session\'s number'),
            (True, 'bad_request: "session" must be a session\'s number'),
            ([1], 'bad_request: "session" must be a session\'s number'),
            (999, "no_session: no session 999"),
            (0, "no_session: no session 0"),
            (-1, "no_session: no session -1"),
            (2**32 + 1, "no_session: no session 4294967297"),
            (2**64 - 1, "no_session: no session 18446744073709551615"),
        ]
        for command in SESSION_COMMANDS:
            for session, expected in cases:
                request = {"cmd": command} if session is ABSENT else {"cmd": command, "session": session}
                self.assertEqual(failure(self.helper.ask(**request)), expected, (command, session))

    def test_new_session_takes_numbers_in_order_and_none_when_it_fails(self):
        def new(**fields):
            return self.helper.ask(cmd="new_session", **fields)

        self.assertEqual(new()["result"], {"session": 1, "space": Z_UP})
        bad = [
            ({"fps": 0}, "fps must be above 0"),
            ({"fps": -24}, "fps must be above 0"),
            ({"fps": "24"}, '"fps" must be a number'),
            ({"space": {"upAxis": "X"}}, 'space.upAxis is "Y" or "Z", not "X"'),
            ({"space": {"upAxis": 1}}, '"upAxis" must be a string'),
            ({"space": {"metersPerUnit": 0}}, "space.metersPerUnit must be above 0"),
            ({"space": {"metersPerUnit": 1.1e6}}, "space.metersPerUnit must be above 0"),
            ({"space": {"metersPerUnit": []}}, '"metersPerUnit" must be a number'),
        ]
        for fields, message in bad:
            self.assertEqual(failure(new(**fields)), "bad_request: " + message)
        self.assertEqual(new(space=5, fps=None)["result"], {"session": 2, "space": Z_UP})
        small = {"upAxis": "Y", "metersPerUnit": 0.01}
        self.assertEqual(new(space=small)["result"], {"session": 3, "space": {**small, "centimetersPerUnit": 1.0}})
        self.assertEqual(failure(self.helper.ask(cmd="close_session", session=2)), "ok")
        self.assertEqual(failure(self.helper.ask(cmd="close_session", session=2)), "no_session: no session 2")
        self.assertEqual(new()["result"]["session"], 4, "a number never comes back")

    def test_options_are_set_one_by_one_and_asked_with_none(self):
        groom = Groom(self.helper)
        own = groom.do("set_options")
        self.assertEqual(own["followScalp"], False)
        self.assertRegex(own["mapsDir"], r"corvelle_%d_s1maps_0$" % self.helper.process.pid)
        self.assertFalse(os.path.exists(own["mapsDir"]), "made when a map is, not before")
        check_bad_inputs(
            self,
            groom,
            "set_options",
            {"followScalp": True, "mapsDir": "/tmp/m\u00e4ps"},
            [
                ("followScalp", 1, "bad_request: followScalp is true or false"),
                ("followScalp", "true", "bad_request: followScalp is true or false"),
                ("mapsDir", 5, 'bad_request: "mapsDir" must be a string'),
                ("mapsDir", {}, 'bad_request: "mapsDir" must be a string'),
            ],
        )
        self.assertEqual(groom.do("set_options", followScalp=None), {"followScalp": True, "mapsDir": "/tmp/m\u00e4ps"})
        self.assertEqual(groom.do("set_options", mapsDir="")["mapsDir"], own["mapsDir"])

    def test_space_goes_back_to_its_defaults_where_it_is_left_out(self):
        groom = Groom(self.helper)
        groom.do("set_scalp", points=[[1, 2, 3], [2, 2, 3], [1, 3, 3]], faceCounts=[3], faceIndices=[0, 1, 2])
        before = groom.state()
        check_bad_inputs(
            self,
            groom,
            "set_space",
            {"upAxis": "Y", "metersPerUnit": 0.5},
            [
                ("upAxis", "X", 'bad_request: space.upAxis is "Y" or "Z", not "X"'),
                ("upAxis", "", 'bad_request: space.upAxis is "Y" or "Z", not ""'),
                ("upAxis", 3, 'bad_request: "upAxis" must be a string'),
                ("metersPerUnit", 0, "bad_request: space.metersPerUnit must be above 0"),
                ("metersPerUnit", -1, "bad_request: space.metersPerUnit must be above 0"),
                ("metersPerUnit", 1e300, "bad_request: space.metersPerUnit must be above 0"),
                ("metersPerUnit", "1", 'bad_request: "metersPerUnit" must be a number'),
            ],
        )
        after = groom.state()
        self.assertEqual(after["scalp"], before["scalp"], "the groom stays where it is")
        self.assertEqual(after["host"]["arrays"]["points"][2][0], [2.0, 6.0, -4.0])
        self.assertEqual(groom.do("set_space", upAxis="Y")["space"]["metersPerUnit"], 1.0)
        self.assertEqual(groom.do("set_space")["space"], Z_UP)
        self.assertEqual(groom.state(), before)

    def test_time_runs_in_frames_and_seconds(self):
        groom = Groom(self.helper)
        self.assertEqual(groom.do("set_time"), {"seconds": 0.0, "frame": 0.0, "fps": 24.0})
        self.assertEqual(groom.do("set_time", frame=24, seconds=99), {"seconds": 1.0, "frame": 24.0, "fps": 24.0})
        ntsc = groom.do("set_time", fps=29.97, frame=30)
        self.assertEqual((ntsc["seconds"], ntsc["fps"]), (1.001, 30000 / 1001))
        self.assertAlmostEqual(ntsc["frame"], 30.0, delta=1e-9)
        self.assertEqual(groom.do("set_time", fps=25)["seconds"], 1.001, "the time stays with another rate")
        self.assertEqual(groom.do("set_time", seconds=-2)["frame"], -50.0)
        check_bad_inputs(
            self,
            groom,
            "set_time",
            {"fps": 50, "frame": None, "seconds": 3},
            [
                ("fps", 0, "bad_request: fps must be above 0"),
                ("fps", "24", 'bad_request: "fps" must be a number'),
                ("frame", "1", 'bad_request: "frame" must be a number'),
                ("frame", [], 'bad_request: "frame" must be a number'),
                ("seconds", True, 'bad_request: "seconds" must be a number'),
                ("seconds", 1.7e308, 'bad_request: "seconds" must be finite in frames'),
            ],
        )
        reply = groom.ask("set_time", fps=1e-300, frame=1e300)
        self.assertEqual(failure(reply), 'bad_request: "frame" must be finite in seconds')
        self.assertEqual(groom.do("set_time"), {"seconds": 3.0, "frame": 150.0, "fps": 50.0})

    def test_commands_of_later_builds_say_so_and_unknown_ones_too(self):
        groom = Groom(self.helper)
        reply = groom.ask("insert_preset", name="x")
        self.assertEqual(failure(reply), "unsupported: this helper does not offer 'insert_preset' yet")
        self.assertEqual(failure(self.helper.ask(cmd="evaluate ")), "unknown_command: no command 'evaluate '")

    def test_closing_a_session_frees_its_memory_and_no_other(self):
        mesh = dict(points=[[0, 0, 0], [1, 0, 0], [0, 1, 0]], faceCounts=[3], faceIndices=[0, 1, 2])
        a, b = Groom(self.helper), Groom(self.helper)
        for groom in (a, b):
            groom.do("set_scalp", **mesh)
            groom.state()
            groom.do("evaluate")
        state = b.state()
        pid = self.helper.process.pid
        self.assertEqual(len(regions_of(pid)), 6)
        a.do("close_session")
        self.assertEqual(
            [re.sub(r"_\d+$", "", name) for name in regions_of(pid)],
            ["corvelle_%d_s2%s" % (pid, kind) for kind in ("guides", "scalp", "strands")],
        )
        self.assertEqual(b.state(), state)


class KilledHelper(unittest.TestCase):
    def test_leaves_nothing_that_the_next_start_does_not_sweep(self):
        with Pipes() as helper:
            groom = Groom(helper)
            groom.do("set_scalp", points=[[0, 0, 0], [1, 0, 0], [0, 1, 0]], faceCounts=[3], faceIndices=[0, 1, 2])
            groom.state()
            groom.do("evaluate")
            helper.process.kill()
            helper.process.wait()
            self.assertEqual(len(regions_of(helper.process.pid)), 3)
            run()
            self.assertEqual(regions_of(helper.process.pid), [])


