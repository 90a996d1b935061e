"""The Python client: its requests, its arrays, and what becomes of the process and the memory."""

import gc
import os
import signal
import subprocess
import sys
import unittest

import corvelle_client as client
import numpy as np
from corvelle_client.arrays import AnswerArrays, RequestArrays
from corvelle_client.errors import error_of
from corvelle_client.shared_memory import OwnRegion, open_view
from support import HELPER, is_running, regions_of, run, wait_until


class Requests(unittest.TestCase):
    def test_hello_is_checked_and_errors_have_their_types(self):
        with client.Helper(HELPER) as helper:
            self.assertEqual(helper.hello["protocol"], client.PROTOCOL)
            helper.ping()
            with self.assertRaises(client.UnknownCommand) as caught:
                helper.request("no such")
            self.assertEqual(caught.exception.code, "unknown_command")
            self.assertEqual(caught.exception.message, "no command 'no such'")
            self.assertEqual(caught.exception.command, "no such")
            with self.assertRaisesRegex(client.NoSession, "^no session 77$"):
                client.Session(helper, 77).get_scalp()
            with self.assertRaises(client.ProtocolMismatch):
                helper.request("hello", protocol=2)
            helper.ping()
        self.assertEqual(helper.close(), 0)

    def test_every_code_has_a_type_and_an_unknown_one_the_base(self):
        codes = (
            "bad_request parse graph not_found state type_mismatch unsupported unknown_command "
            "no_session protocol shared_memory evaluation io out_of_memory internal"
        ).split()
        reply = {"error": {"code": "", "message": "m"}}
        types = set()
        for code in codes:
            reply["error"]["code"] = code
            error = error_of(reply, "c")
            self.assertEqual((error.code, str(error)), (code, "m"))
            types.add(type(error))
        self.assertEqual(len(types), len(codes))
        self.assertNotIn(client.RequestFailed, types)
        reply["error"]["code"] = "newer"
        self.assertIs(type(error_of(reply, "c")), client.RequestFailed)

    def test_a_number_that_json_cannot_say_is_refused_here(self):
        with client.Helper(HELPER) as helper:
            with self.assertRaises(ValueError):
                helper.request("ping", x=float("nan"))
            helper.ping()

    def test_a_reply_whose_wait_was_interrupted_is_passed_over(self):
        with client.Helper(HELPER) as helper:
            helper._process.stdin.write(b'{"id":0,"cmd":"hello"}\n')
            self.assertEqual(helper.request("ping"), {"pong": True})


class Process(unittest.TestCase):
    def test_ends_with_close_and_with_its_object(self):
        helper = client.Helper(HELPER)
        pid = helper.pid
        self.assertEqual(helper.close(), 0)
        self.assertFalse(is_running(pid))
        self.assertFalse(helper.alive)
        with self.assertRaises(client.HelperGone):
            helper.ping()

        helper = client.Helper(HELPER)
        pid = helper.pid
        del helper
        gc.collect()
        self.assertFalse(is_running(pid))

    def test_that_is_killed_says_so(self):
        with client.Helper(HELPER) as helper:
            os.kill(helper.pid, signal.SIGKILL)
            with self.assertRaises(client.HelperGone) as caught:
                helper.ping()
            self.assertEqual(caught.exception.exit_code, -signal.SIGKILL)

    def test_that_does_not_start_says_why(self):
        with self.assertRaisesRegex(client.HelperGone, "did not start"):
            client.Helper("/no/such/program")
        with self.assertRaisesRegex(client.HelperGone, "exit code 2.*usage: corvelle-helper"):
            client.Helper(HELPER, arguments=["--bad"])
        with self.assertRaisesRegex(client.HelperGone, "exit code"):
            client.Helper(sys.executable)

    def test_goes_with_a_host_that_is_killed_and_so_does_its_memory(self):
        code = (
            "import sys, os, time, numpy as np, corvelle_client as client\n"
            "helper = client.Helper(sys.argv[1])\n"
            "try: helper.request('set_scalp', points=np.zeros((9, 3)))\n"
            "except client.RequestFailed: pass\n"
            "print(helper.pid, flush=True)\n"
            "time.sleep(60)\n"
        )
        host = subprocess.Popen(
            [sys.executable, "-c", code, HELPER],
            stdout=subprocess.PIPE,
            env={**os.environ, "PYTHONPATH": os.path.dirname(os.path.dirname(client.__file__))},
        )
        pid = int(host.stdout.readline())
        self.assertNotEqual(regions_of(host.pid), [])
        host.kill()
        host.wait()
        host.stdout.close()
        self.assertTrue(wait_until(lambda: not is_running(pid)))
        run()  # the next start sweeps what the host could not
        self.assertEqual(regions_of(host.pid), [])


class Arrays(unittest.TestCase):
    def setUp(self):
        self.sent = RequestArrays()
        self.addCleanup(self.sent.close)

    def test_go_there_and_come_back_in_every_type_and_layout(self):
        grid = np.arange(24, dtype=np.float32).reshape(4, 6)
        arrays = {
            "float32": grid,
            "float64": grid.astype("<f8") / 3,
            "float16": grid.astype("<f2"),
            "bigEndian": grid.astype(">f4"),
            "int32": np.array([-1, 2**31 - 1], np.int32),
            "uint8": np.array([0, 255], np.uint8),
            "int16": np.array([-300], np.int16),
            "int64": np.array([-(2**63), 2**63 - 1]),
            "uint64": np.array([2**64 - 1], np.uint64),
            "strided": grid[::2, ::-1],
            "transposed": grid.T,
            "empty": np.empty((0, 3), np.float32),
        }
        packed = self.sent.pack({"arrays": arrays, "plain": [1, {"a": "b"}]})
        self.assertEqual(packed["plain"], [1, {"a": "b"}])
        back = AnswerArrays().unpack(packed)["arrays"]
        for name, array in arrays.items():
            self.assertEqual(packed["arrays"][name]["offset"] % 64, 0)
            self.assertEqual(back[name].shape, array.shape)
            np.testing.assert_array_equal(back[name], array, name)
            self.assertFalse(back[name].flags.writeable)
        self.assertEqual(back["float64"].dtype, np.dtype("<f8"))
        self.assertEqual(back["int16"].dtype, np.dtype("<i4"))

    def test_numpy_scalars_are_numbers_and_other_types_are_refused(self):
        packed = self.sent.pack({"a": np.float32(0.5), "b": [np.int64(3)], "c": np.array(7)})
        self.assertEqual(packed, {"a": 0.5, "b": [3], "c": 7})
        for bad in (np.array(["x"]), np.array([True]), np.array([1j]), np.array([object()])):
            with self.assertRaisesRegex(TypeError, "give floats or integers"):
                self.sent.pack({"a": bad})

    def test_region_is_used_again_and_grows_with_room_to_spare(self):
        names = []
        for size in (10, 200_000, 100, 250_000, 500_000):
            packed = self.sent.pack({"a": np.ones(size, np.float32)})
            names.append(packed["a"]["shm"])
            self.assertEqual(regions_of(os.getpid()), [names[-1]])
        self.assertEqual([name.rpartition("_")[2] for name in names], ["1", "1", "1", "1", "2"])
        self.sent.close()
        self.assertEqual(regions_of(os.getpid()), [])

    def test_views_know_when_a_later_answer_went_over_them(self):
        answers = AnswerArrays()
        first = answers.unpack(self.sent.pack({"a": np.arange(5), "b": np.arange(3)}))
        part = first["a"][1:3]
        kept = client.keep(first)
        self.assertTrue(first["a"].is_current and first["b"].is_current and part.is_current)
        second = answers.unpack(self.sent.pack({"a": np.arange(5) + 10}))
        self.assertFalse(first["a"].is_current or first["b"].is_current or part.is_current)
        self.assertTrue(second["a"].is_current)
        self.assertEqual(list(kept["a"]), [0, 1, 2, 3, 4])
        self.assertIs(type(kept["a"]), np.ndarray)
        self.assertTrue((second["a"] + 1).is_current, "what is computed is one's own")
        with self.assertRaisesRegex(RuntimeError, "keep"):
            client.keep(first)

        # A region that its pool has left is written by nobody any more.
        answers.unpack(self.sent.pack({"a": np.zeros(1 << 20)}))
        self.assertTrue(second["a"].is_current)
        self.assertEqual(list(second["a"]), [10, 11, 12, 13, 14])

    def test_views_outlive_the_region_s_name_and_the_table(self):
        answers = AnswerArrays()
        array = answers.unpack(self.sent.pack({"a": np.arange(1000)}))["a"]
        self.sent.close()
        answers.close()
        del answers
        gc.collect()
        self.assertEqual(array.sum(), 499500)

    def test_regions_of_a_closed_session_are_let_go_and_no_others(self):
        answers = AnswerArrays()
        regions = [
            OwnRegion("corvelle_%d_s%s_1" % (os.getpid(), pool), 4) for pool in ("1strands", "12strands")
        ]
        for region in regions:
            answers.unpack({"shm": region.name, "shape": [1]})
            region.close()
        answers.forget(os.getpid(), 1)
        self.assertEqual(list(answers._regions), ["corvelle_%d_s12strands" % os.getpid()])

    def test_a_reference_to_what_is_not_there_is_an_error_and_no_crash(self):
        reference = self.sent.pack({"a": np.arange(10)})["a"]
        for change in ({"shm": "corvelle_none"}, {"shape": [1 << 40]}, {"dtype": "<f2"}):
            with self.assertRaises((OSError, ValueError)):
                AnswerArrays().unpack({"a": {**reference, **change}})

    def test_regions_go_with_their_object_but_not_with_a_forked_child(self):
        name = "corvelle_%d_own_1" % os.getpid()
        region = OwnRegion(name, 100)
        child = os.fork()
        if child == 0:
            region.close()
            os._exit(0)
        os.waitpid(child, 0)
        self.assertIn(name, regions_of(os.getpid()))
        view = open_view(name, 100)
        region.memory[0] = 7
        self.assertEqual(view[0], 7)
        with self.assertRaises(FileExistsError):
            OwnRegion(name, 100)
        self.assertIn(name, regions_of(os.getpid()))
        del region
        gc.collect()
        self.assertNotIn(name, regions_of(os.getpid()))
        self.assertEqual(view[0], 7)
