"""The Windows build of the program, run under Wine from Linux: tests/run.py HELPER.exe wineProgram.py

Wine's shared memory is not Linux's, so everything here travels in lines and files. With
CORVELLE_NATIVE, the program of this machine, both must give the same bits.
"""

import json
import os
import subprocess
import sys
import tempfile
import unittest

from support import HELPER, Groom, Pipes, failure

NATIVE = os.environ.get("CORVELLE_NATIVE", "")
QUIET = {**os.environ, "WINEDEBUG": "-all"}


class Program(Pipes):
    """The .exe on bare pipes."""

    def __init__(self, *arguments, **options):
        options.setdefault("env", QUIET)
        super().__init__(HELPER, *arguments, program="wine", **options)


def windows(path):
    """A path of Linux as Wine's programs see it."""
    return "Z:" + os.path.abspath(path).replace("/", "\\")


class LinesTest(unittest.TestCase):
    def test_says_what_it_is_and_answers_in_plain_lines(self):
        with Program() as helper:
            hello = Groom.result(helper.ask(cmd="hello", protocol=1))
            self.assertEqual((hello["platform"], hello["sharedMemory"]), ("windows", "windows"))
            helper.send(b'{"cmd":"ping","id":"\\u001a \xe9\xab\xaa"}\r\n\n')
            line = helper.process.stdout.readline()
            self.assertTrue(line.endswith(b"}\n") and b"\r" not in line, line)
            self.assertEqual(json.loads(line)["id"], "\x1a \u9aea")

    def test_a_byte_that_ends_text_on_windows_ends_nothing_here(self):
        with Program() as helper:
            helper.send(b"\x1a\n")
            self.assertEqual(failure(helper.read()), "bad_request: not a JSON line")
            helper.send(b'"' + b"x" * (1 << 21) + b'"\n')
            self.assertEqual(failure(helper.read()).split(":")[0], "bad_request")
            self.assertTrue(helper.ask(cmd="ping")["ok"])

    def test_ends_on_shutdown_and_at_the_end_of_its_input(self):
        with Program() as helper:
            self.assertTrue(helper.ask(cmd="shutdown")["ok"])
            self.assertEqual(helper.finish(), (0, b"", b""))
        with Program() as helper:
            code, out, _ = helper.finish(b'{"cmd":"ping","id":7}')
            self.assertEqual((code, json.loads(out)["id"]), (0, 7))

    def test_its_command_line(self):
        def run(*arguments):
            done = subprocess.run(["wine", HELPER, *arguments], capture_output=True, timeout=60, env=QUIET)
            return done.returncode, done.stdout, done.stderr

        code, out, _ = run("--version")
        self.assertEqual((code, out[:16]), (0, b"corvelle-helper "))
        code, _, err = run("--nonsense")
        self.assertEqual((code, err[:6]), (2, b"usage:"))

    def test_graphs_and_their_errors(self):
        with Program() as helper:
            groom = Groom(helper)
            graph = Groom.result(helper.ask(cmd="default_graph"))["graph"]
            self.assertTrue(helper.ask(cmd="set_graph", session=groom.number, graph=graph)["ok"])
            kept = Groom.result(helper.ask(cmd="get_graph", session=groom.number))["graph"]
            self.assertEqual([n["name"] for n in kept["nodes"]], [n["name"] for n in graph["nodes"]])
            wrong = {**graph, "nodes": graph["nodes"] + [{"type": "Nonsense", "name": "x"}]}
            for fields in ({"graph": wrong}, {"graph": 3}, {}):
                self.assertFalse(helper.ask(cmd="set_graph", session=groom.number, **fields)["ok"])
            self.assertEqual(failure(helper.ask(cmd="get_graph", session=99)).split(":")[0], "no_session")


class FilesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def test_names_outside_of_every_code_page_but_one(self):
        folder = os.path.join(self.folder, "Z\u00f6pfe")
        os.mkdir(folder)
        path = os.path.join(folder, "\u9aea \u03b1.groom")
        with Program() as helper:
            groom = Groom(helper)
            for _ in range(2):  # the second replaces the first
                reply = helper.ask(cmd="save_groom", session=groom.number, path=windows(path))
                self.assertTrue(reply["ok"], reply)
            self.assertEqual(os.listdir(folder), [os.path.basename(path)])
            self.assertTrue(helper.ask(cmd="load_groom", session=groom.number, path=windows(path))["ok"])
            reply = helper.ask(cmd="load_groom", session=groom.number, path=windows(path) + "\u00e9")
            self.assertIn("\u9aea \u03b1.groom\u00e9", failure(reply))

    @unittest.skipUnless(NATIVE, "needs CORVELLE_NATIVE, a build for this machine")
    def test_tells_of_nodes_and_tools_what_the_native_program_tells(self):
        with Program() as helper, Pipes(program=NATIVE) as native:
            for command in ("operator_specs", "tool_catalog", "default_graph"):
                request = json.dumps({"cmd": command, "id": 1}).encode() + b"\n"
                for one in (helper, native):
                    one.send(request)
                self.assertEqual(helper.process.stdout.readline(), native.process.stdout.readline(), command)

    @unittest.skipUnless(NATIVE, "needs CORVELLE_NATIVE, a build for this machine")
    def test_grows_the_hair_of_the_native_program_to_the_bit(self):
        from demo.guides import head_guides
        from demo.head import make_head
        from demo.looks import LOOKS, dress
        from demo.stage import stage

        grooms = {}
        for look in LOOKS:
            with open(os.devnull, "w") as nothing:
                printed, sys.stdout = sys.stdout, nothing
                try:
                    with stage(NATIVE, make_head(), head_guides()) as session:
                        dress(session, look)
                        grooms[look] = os.path.join(self.folder, look + ".groom")
                        session.save_groom(grooms[look])
                finally:
                    sys.stdout = printed

        def grown(helper, place):
            files = {}
            for look, path in grooms.items():
                groom = Groom(helper)
                loaded = helper.ask(cmd="load_groom", session=groom.number, path=place(path))
                self.assertTrue(loaded["ok"], loaded)
                out = os.path.join(self.folder, "hair.usda")
                reply = helper.ask(cmd="export", session=groom.number, path=place(out), format="usd", density=0.02)
                self.assertTrue(reply["ok"], reply)
                self.assertGreater(reply["result"]["strands"], 100, look)
                with open(out, "rb") as file:
                    files[look] = file.read()
                os.remove(out)
                helper.ask(cmd="close_session", session=groom.number)
            return files

        with Pipes(program=NATIVE) as native:
            wanted = grown(native, os.path.abspath)
        with Program() as helper:
            found = grown(helper, windows)
        differing = [look for look in wanted if wanted[look] != found[look]]
        self.assertEqual(differing, [])


if __name__ == "__main__":
    unittest.main()
