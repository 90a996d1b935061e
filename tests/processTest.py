"""The process itself: its command line, its lines, its ends, and what it leaves behind."""

import json
import os
import random
import resource
import signal
import subprocess
import sys
import unittest

from support import HELPER, Pipes, is_running, regions_of, run, wait_until

USAGE = (
    b"usage: corvelle-helper [--version] [--parent-pid <pid>]\n"
    b"Speaks Corvelle's helper protocol on stdin/stdout (docs/BLENDER.md).\n"
)
NOT_JSON = {
    "error": {"code": "bad_request", "message": "not a JSON line"},
    "id": None,
    "ok": False,
}


def dead_pid():
    """The number of a process that is over."""
    process = subprocess.Popen([sys.executable, "-c", ""])
    process.wait()
    return process.pid


class CommandLine(unittest.TestCase):
    def test_version_is_printed_and_nothing_is_started(self):
        for arguments in (["--version"], ["--parent-pid", "7", "--version"], ["--version", "--bad"]):
            self.assertEqual(run(*arguments), (0, b"corvelle-helper 0.2.1 (protocol 1)\n", b""))

    def test_anything_else_shows_the_usage(self):
        for arguments in (["--help"], ["--parent-pid"], [""], ["--Version"], ["--parent-pid", "1", "x"]):
            self.assertEqual(run(*arguments), (2, b"", USAGE))

    def test_a_parent_that_is_no_number_or_gone_means_no_watch(self):
        for parent in ("abc", "0", "-5", "", str(dead_pid()), "99999999999999999999"):
            code, out, err = run("--parent-pid", parent, data=b'{"cmd":"ping"}\n')
            self.assertEqual((code, err), (0, b""), parent)
            self.assertEqual(json.loads(out)["result"], {"pong": True})


class Lines(unittest.TestCase):
    def test_hello_tells_what_the_process_is(self):
        with Pipes() as helper:
            self.assertEqual(
                helper.ask(id="a", cmd="hello", protocol=1),
                {
                    "id": "a",
                    "ok": True,
                    "result": {
                        "protocol": 1,
                        "helper": "corvelle-helper",
                        "version": "0.2.1",
                        "versionNumbers": [0, 2, 1],
                        "platform": "linux",
                        "sharedMemory": "posix",
                        "alembic": True,
                        "groomSpace": {"upAxis": "Y", "units": "cm"},
                        "features": {"tools": 1, "state": 1},
                    },
                },
            )
            self.assertEqual(helper.ask(cmd="hello", protocol=2)["error"]["code"], "protocol")

    def test_pipelined_lines_are_answered_in_their_order(self):
        lines = b"".join(b'{"id":%d,"cmd":"ping"}\r\n\n' % i for i in range(3000))
        code, out, _ = run(data=lines)
        self.assertEqual(code, 0)
        self.assertEqual([json.loads(line)["id"] for line in out.splitlines()], list(range(3000)))
        self.assertNotIn(b"\r", out)

    def test_each_reply_comes_before_the_next_line_is_needed(self):
        with Pipes() as helper:
            for number in range(20):
                self.assertEqual(helper.ask(id=number, cmd="ping")["id"], number)

    def test_a_last_line_without_its_end_is_served(self):
        code, out, _ = run(data=b' \t\n\r\n{"id":1')
        self.assertEqual((code, json.loads(out)), (0, NOT_JSON))
        code, out, _ = run(data=b'{"id":1,"cmd":"ping"}')
        self.assertEqual((code, json.loads(out)["id"]), (0, 1))

    def test_shutdown_is_answered_and_nothing_behind_it(self):
        code, out, _ = run(data=b'{"cmd":"shutdown","id":2}\n{"cmd":"ping"}\n')
        self.assertEqual(code, 0)
        self.assertEqual(json.loads(out), {"id": 2, "ok": True, "result": {"bye": True}})

    def test_a_line_of_many_megabytes_is_one_line(self):
        text = "x" * (8 << 20)
        with Pipes() as helper:
            self.assertEqual(helper.ask(id=text, cmd="ping")["id"], text)

    def test_deep_nesting_is_refused_and_survived(self):
        with Pipes() as helper:
            helper.send(b'{"cmd":"ping","id":' + b"[" * 200000 + b"]" * 200000 + b"}\n")
            self.assertEqual(helper.read(), NOT_JSON)
            self.assertTrue(helper.ask(cmd="ping")["ok"])

    def test_a_closed_reply_pipe_does_not_kill_the_process(self):
        with Pipes() as helper:
            helper.process.stdout.close()
            for _ in range(50):
                helper.send(b'{"cmd":"ping"}\n')
            helper.process.stdin.close()
            self.assertEqual(helper.process.wait(10), 0)

    def test_without_an_output_there_is_nothing_to_do(self):
        command = 'exec "$0" >&-'
        done = subprocess.run(["sh", "-c", command, HELPER], stdin=subprocess.DEVNULL, capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (1, b"corvelle-helper: cannot take stdout\n"))

    def test_without_standard_error_it_serves_all_the_same(self):
        command = 'exec "$0" 2>&-'
        done = subprocess.run(
            ["sh", "-c", command, HELPER], input=b'{"cmd":"ping"}\n', stdout=subprocess.PIPE
        )
        self.assertEqual(done.returncode, 0)
        self.assertTrue(json.loads(done.stdout)["ok"])


class Ends(unittest.TestCase):
    def start_with_parent(self, parent_is_zombie=False):
        """A helper that watches a process we can end, on an input that stays open.

        Gives (the watched process, the helper's number)."""
        code = (
            "import subprocess, sys, os\n"
            "p = subprocess.Popen([sys.argv[1], '--parent-pid', str(os.getpid())],\n"
            "                     stdin=int(sys.argv[2]), stdout=subprocess.PIPE)\n"
            "p.stdout.readline()\n"
            "print(p.pid, flush=True)\n"
            "sys.stdin.read()\n"
        )
        read, write = os.pipe()
        self.addCleanup(os.close, write)
        parent = subprocess.Popen(
            [sys.executable, "-c", code, HELPER, str(read)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            pass_fds=[read],
        )
        os.close(read)
        os.write(write, b'{"cmd":"ping"}\n')
        helper = int(parent.stdout.readline())

        def clean():
            parent.kill()
            parent.wait()
            parent.stdin.close()
            parent.stdout.close()

        self.addCleanup(clean)
        return parent, helper

    def test_the_helper_ends_with_its_parent(self):
        parent, helper = self.start_with_parent()
        self.assertTrue(is_running(helper))
        parent.send_signal(signal.SIGKILL)
        # The parent is not waited for: it stays a zombie, which counts as dead.
        self.assertTrue(wait_until(lambda: not is_running(helper)))
        self.assertFalse(is_running(parent.pid))

    def test_a_thread_that_cannot_start_ends_in_the_terminate_handler(self):
        def no_room_for_a_stack():
            # What a new thread asks for its stack: more than there are addresses. (A program
            # built with the thread sanitizer does not start like this.)
            resource.setrlimit(resource.RLIMIT_STACK, (1 << 47, resource.RLIM_INFINITY))

        code, out, err = run("--parent-pid", str(os.getpid()), preexec_fn=no_room_for_a_stack)
        self.assertEqual((code, out), (70, b""))
        self.assertTrue(err.endswith(b"corvelle-helper: terminated\n"), err)


class Leftovers(unittest.TestCase):
    def test_the_next_start_sweeps_what_killed_processes_left(self):
        dead = "corvelle_%d_s1strands_4" % dead_pid()
        alive = "corvelle_%d_sweep_1" % os.getpid()
        for name in (dead, alive):
            with open("/dev/shm/" + name, "wb"):
                pass
        self.addCleanup(os.unlink, "/dev/shm/" + alive)
        run()
        self.assertFalse(os.path.exists("/dev/shm/" + dead))
        self.assertTrue(os.path.exists("/dev/shm/" + alive))


class RandomRequests(unittest.TestCase):
    """10,000 requests, a quarter of them broken: each has its reply, and nothing stays behind."""

    COMMANDS = (
        "hello ping new_session close_session set_options set_space groom_info set_scalp "
        "update_scalp get_scalp get_guides set_guides set_time evaluate stats node_status operator_specs "
        "default_graph get_graph set_graph list_nodes node_spec get_param set_param edit_graph "
        "list_presets export_close get_state set_state tool_catalog tool_set stroke_begin hover "
        "select undo redo display nothing"
    ).split()
    FIELDS = (
        "protocol space fps upAxis metersPerUnit followScalp points faceCounts faceIndices uvs "
        "colorSets restPoints counts ids target pose keepMissing source seconds frame node param "
        "value op name graph type newName from to input x y positions"
    ).split()

    def setUp(self):
        self.random = random.Random(20)
        self.region = "corvelle_%d_random_1" % os.getpid()
        with open("/dev/shm/" + self.region, "wb") as file:
            file.write(self.random.randbytes(5000))
        self.addCleanup(os.unlink, "/dev/shm/" + self.region)

    def value(self, depth=0):
        pick = self.random.randrange(14)
        if pick == 0:
            return {
                "shm": self.random.choice([self.region, "corvelle_none", "/", "", "a/b"]),
                "offset": self.random.choice([0, 1, 64, 4999, 5000, 9000, -1, 1e300, None]),
                "dtype": self.random.choice(["<f4", "<f8", "<i4", "<u4", "<i8", "<u8", "<f2", 3]),
                "shape": self.random.choice([[3], [4, 3], [0], [], [2**62, 8], [-1], [1.5], 3]),
            }
        if pick == 1 and depth < 3:
            return [self.value(depth + 1) for _ in range(self.random.randrange(5))]
        if pick == 2 and depth < 3:
            return {self.random.choice(self.FIELDS): self.value(depth + 1)}
        if pick == 3:  # small: hair grows on it at the default density, 200 to the square centimetre
            return [self.random.uniform(-0.02, 0.02) for _ in range(9)]
        if pick == 4:
            return self.random.choice([[3, 3, 3], [0, 1, 2], [2**40, -1], [1e300], [[0, 0, 0]] * 4])
        return self.random.choice(
            [None, True, False, 0, 1, -1, 2**31, 2**63, 1e300, 0.5, "", "Z", "host", "é\0", "scatter"]
        )

    def real(self):
        """A request that works, or would on a session in the state for it."""
        rnd = self.random
        x, y = rnd.uniform(0.005, 0.02), rnd.uniform(0.005, 0.02)
        points = [[0, 0, 0], [x, 0, 0], [x, y, 0], [0, y, 0]]
        curves = [[rnd.uniform(0, 0.02), rnd.uniform(0, 0.02), 0.003 * (i % 4)] for i in range(8)]
        node = rnd.choice("scalp guides scatter interpolate length noise color width output noise2".split())
        word = rnd.choice(["flat", "hierarchy", "auto"])
        return rnd.choice(
            [
                {"cmd": "new_session", "space": {"upAxis": rnd.choice("YZ")}, "fps": 25},
                {
                    "cmd": "set_scalp",
                    "points": points,
                    "faceCounts": rnd.choice([[4], [3, 3]]),
                    "faceIndices": rnd.choice([[0, 1, 2, 3], [0, 1, 2, 0, 2, 3]]),
                    "uvs": rnd.choice([None, [0, 0, 1, 0, 1, 1, 0, 1]]),
                    "colorSets": rnd.choice([None, {"m": [rnd.random()] * 16}]),
                    "restPoints": rnd.choice([None, points]),
                },
                {"cmd": "update_scalp", "points": [[a, b, c + x] for a, b, c in points]},
                {"cmd": "set_options", "followScalp": rnd.random() < 0.5},
                {"cmd": "set_time", "frame": rnd.randrange(100)},
                {
                    "cmd": "set_guides",
                    "points": curves,
                    "counts": [4, 4],
                    "ids": [rnd.randrange(4), 5],
                    "target": word,
                    "pose": rnd.choice(["now", "rest"]),
                },
                {"cmd": "get_guides", "source": word, "pose": rnd.choice(["now", "rest"])},
                {"cmd": "set_graph", "graph": rnd.choice([self.graph, json.dumps(self.graph), "{}"])},
                {"cmd": "set_param", "node": node, "param": "seed", "value": rnd.randrange(5)},
                {"cmd": "set_param", "node": "noise", "param": "amplitude", "value": {"expression": "rand * t"}},
                {"cmd": "edit_graph", "op": "add_node", "type": rnd.choice(["Noise", "Scatter", "Width"])},
                {"cmd": "edit_graph", "op": "remove_node", "name": node},
                {"cmd": "edit_graph", "op": "connect", "from": node, "to": "output", "input": "strands"},
                {"cmd": "edit_graph", "op": "set_bypass", "name": node, "bypass": True},
                {"cmd": "edit_graph", "op": "set_output", "name": node},
                *[
                    {
                        "cmd": "evaluate",
                        "mode": rnd.choice(["preview", "render"]),
                        "density": rnd.random(),
                        "viewNode": node,
                        "bounds": True,
                        "attributes": rnd.choice(["all", ["color", "x"], None]),
                    }
                ]
                * 4,
                {"cmd": "stats"},
                {"cmd": "node_status"},
                {"cmd": "get_scalp"},
                {"cmd": "node_spec", "node": node},
            ]
        )

    def request(self, number):
        session = self.random.choice([1, 1, 1, 1, 2, 3])
        pick = self.random.random()
        if pick < 0.4:  # as it should be
            return {**self.real(), "id": number, "session": session}
        if pick < 0.6:  # one field is not
            fields = self.real()
            field = self.random.choice(list(fields))
            if field != "cmd":
                fields[field] = self.value()
            return {**fields, "id": number, "session": session}
        fields = {name: self.value() for name in self.random.sample(self.FIELDS, 6)}
        command = self.random.choice(self.COMMANDS)
        session = self.random.choice([1, 1, 1, 2, 3, 999, None, 1.0, 2**32 + 1, "1"])
        if command == "close_session" and session == 1:
            session = 2  # one session lives to the end
        return {**fields, "id": number, "cmd": command, "session": session}

    def broken(self, line):
        line = bytearray(line)
        for _ in range(self.random.randrange(1, 4)):
            at = self.random.randrange(len(line))
            change = self.random.randrange(3)
            if change == 0:
                line[at] = self.random.choice([c for c in range(256) if c not in b"\n\r \t"])
            elif change == 1:
                del line[at : at + self.random.randrange(1, 20)]
                line = line or bytearray(b"{")
            else:
                line[at:at] = self.random.choice([b"[", b"\\", b'"', b"\xff", b"1e999", b"{}"])
        return bytes(line) if line.strip() else b"{"

    def test_leave_the_process_alive_and_nothing_behind(self):
        with Pipes() as helper:
            helper.ask(cmd="new_session")
            self.graph = helper.ask(cmd="default_graph")["result"]["graph"]
            pid = helper.process.pid
            failures = broken = grown = 0
            for start in range(0, 10_000, 20):  # few enough to fit into the pipes both ways
                lines, whole = [], []
                for number in range(start, start + 20):
                    line = json.dumps(self.request(number)).encode()
                    whole.append(self.random.random() >= 0.25)
                    lines.append(line if whole[-1] else self.broken(line))
                helper.send(b"\n".join(lines) + b"\n")
                for number in range(20):
                    reply = helper.read()
                    self.assertIn(reply["ok"], (True, False))
                    if whole[number]:
                        self.assertEqual(reply["id"], start + number)
                    else:
                        broken += 1
                    if reply["ok"]:
                        grown += reply["result"].get("strandCount", 0) > 0
                    else:
                        failures += 1
                        self.assertNotEqual(reply["error"]["message"], "")
            self.assertGreater(failures, 3000, "too tame to prove anything")
            self.assertGreater(grown, 100, "too wild to reach the engine")
            self.assertGreater(broken, 2000)
            self.assertTrue(helper.ask(cmd="hello")["ok"])
            self.assertEqual(helper.ask(cmd="shutdown")["result"], {"bye": True})
            self.assertEqual(helper.process.wait(30), 0)
            self.assertEqual(regions_of(pid), [])
