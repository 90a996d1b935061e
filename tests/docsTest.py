"""docs/BLENDER.md says what is: its examples are sent as they stand, and answered as it shows."""

import json
import os
import re
import shutil
import tempfile
import unittest

import numpy as np
from corvelle_client import Helper
from sessionTest import SESSION_COMMANDS
from support import HELPER, Groom, Pipes, failure

PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs", "BLENDER.md")
GUIDES = {
    "points": [[x, y, z] for x in (0.02, 0.08) for y in (0.02, 0.08) for z in (0, 0.02, 0.04)],
    "counts": [3, 3, 3, 3],
}


def sections(text):
    """(command, its text) of each heading below "Commands"."""
    commands = text.split("\n## Commands\n")[1].split("\n## ")[0]
    parts = re.split(r"^### (\w+)$", commands, flags=re.M)
    return list(zip(parts[1::2], parts[2::2]))


def examples(text):
    """(request, shown answer or None) of a section. What a page cuts short is no JSON: None."""
    blocks = []
    for block in re.findall(r"^```json\n(.*?)^```", text, flags=re.M | re.S):
        try:
            blocks.append(json.loads(block))
        except ValueError:
            blocks.append(None)
    for at, block in enumerate(blocks):
        if block is not None and "cmd" in block:
            after = blocks[at + 1] if at + 1 < len(blocks) else None
            yield block, None if after is not None and "cmd" in after else after


def missing(shown, real, path=""):
    """Where the page shows keys, or kinds of values, that the answer does not have."""
    if isinstance(shown, dict):
        if real is None and path in EMPTY:
            return []
        if not isinstance(real, dict):
            return ["%s is no object" % path]
        names = set(shown) - set(real)
        found = ["%s.%s" % (path, name) for name in sorted(names) if path not in OPEN]
        for name in set(shown) & set(real):
            found += missing(shown[name], real[name], path + "." + name)
        return found
    if isinstance(shown, list) and isinstance(real, list):
        if not shown or not real:
            return []
        name = shown[0].get("name") if isinstance(shown[0], dict) else None
        like = [item for item in real if isinstance(item, dict) and item.get("name") == name]
        return missing(shown[0], (like or real)[0], path + "[]")
    kind = (int, float) if isinstance(shown, (int, float)) and not isinstance(shown, bool) else type(shown)
    return [] if shown is None or real is None or isinstance(real, kind) else ["%s: %r" % (path, real)]


#: Objects whose keys are names of the groom's.
OPEN = {".times", ".runs", ".notes", ".arrays.attributes", ".spec.paramInputs"}
#: Objects that may be null.
EMPTY = {".over"}


class Page:
    """The page's examples against a helper: sessions, files and memory that they can work on."""

    def __init__(self, test):
        self.test = test
        self.sections = dict(sections(test.page))
        self.folder = tempfile.mkdtemp(prefix="corvelle docs ")
        test.addCleanup(shutil.rmtree, self.folder, True)
        self.shared = "corvelle_%d_docs" % os.getpid()
        points = np.array([[0, 0, 0], [0.1, 0, 0], [0.1, 0.1, 0], [0, 0.1, 0]], "<f4")
        points.tofile("/dev/shm/" + self.shared)
        test.addCleanup(os.remove, "/dev/shm/" + self.shared)
        self.helper = Pipes()
        test.addCleanup(self.helper.__exit__)
        self.session = None

    def open(self):
        """A session with a scalp, guides and a graph."""
        self.session = Groom(self.helper)
        self.run("set_scalp")
        self.session.do("guides_edit", op="add_group", name="guides")
        self.session.do("set_guides", target="hierarchy", **GUIDES)
        self.session.do("set_graph", graph=self.session.do("get_graph")["graph"])

    def prepare(self, command):
        """What the examples of a command stand on."""
        do = self.session.do
        if command == "load_groom":
            do("save_groom", path=self.folder + "/hair.groom")
        elif command in ("export_frame", "export_close"):
            number = do("export_open", path=self.folder + "/hair.usda", format="usd")["export"]
            do("export_frame", export=number, frame=1)
        elif command.startswith("stroke_") or command in ("hover", "select", "pick_level"):
            do("tool_set", tool="comb")
            if command != "stroke_begin":
                self.run("stroke_begin")  # gives the view too
            if not command.startswith("stroke_"):
                do("stroke_cancel")
        elif command == "set_guides":
            do("set_guides", points=[], counts=[], target="hierarchy")
        elif command in ("get_param", "set_param", "edit_graph", "list_nodes", "node_spec"):
            self.run("set_graph")
        elif command in ("undo", "redo"):
            do("guides_edit", op="add_group", name="more")
        elif command == "map_remove":
            self.run("map_create")
        elif command in ("get_state", "maps_list"):
            do("map_create", name="length", kind="texture", resolution=4)
            do("map_create", name="thin", kind="vertices")
        elif command in ("stats", "node_status", "display"):
            do("evaluate")

    def fitted(self, request):
        out = dict(request)
        if "session" in out:
            out["session"] = self.session.number
        if "path" in out:
            out["path"] = os.path.join(self.folder, os.path.basename(out["path"]))
        if out["cmd"] == "update_scalp":
            out["points"] = {**out["points"], "shm": self.shared}
        if out["cmd"] == "set_state":
            out["groom"] = self.session.do("get_state")["groom"]
        if out["cmd"] == "set_options":
            out["mapsDir"] = self.folder
        return out

    def run(self, command, shows=False):
        """Sends the examples of a command; `shows`: the answers must hold what the page shows."""
        found = list(examples(self.sections[command]))
        self.test.assertTrue(found, "%s has no example that is JSON" % command)
        for request, shown in found:
            with self.test.subTest(request=json.dumps(request)[:120]):
                reply = self.helper.ask(**self.fitted(request))
                self.test.assertEqual(reply.get("error"), None)
                self.test.assertEqual(reply["id"], request["id"])
                if shows and shown is not None:
                    self.test.assertEqual(missing(shown, reply["result"]), [])


class DocsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(PAGE, encoding="utf-8") as file:
            cls.page = file.read()

    def test_every_command_that_is_offered_has_its_section_and_no_other(self):
        documented = [name for name, _ in sections(self.page)]
        self.assertEqual(len(documented), len(set(documented)))
        with Pipes() as helper:
            groom = Groom(helper)
            offered = {"hello", "ping", "shutdown", "new_session", "operator_specs", "default_graph", "tool_catalog"}
            # Without their fields commands fail, but only those that are not there fail so.
            for name in sorted({*SESSION_COMMANDS} - {"close_session"}) + ["close_session"]:
                if failure(groom.ask(name)).partition(":")[0] != "unsupported":
                    offered.add(name)
        self.assertEqual(sorted(documented), sorted(offered))

    def test_the_table_of_node_types_is_that_of_the_program(self):
        table = self.page.split("\n## Node types\n")[1].split("\n## ")[0]
        rows = re.findall(r"^\| `(\w+)` \| (\w+) \| (.*) \|$", table, flags=re.M)
        with Helper(HELPER) as helper:
            specs = {spec["type"]: spec for spec in helper.operator_specs()}
        self.assertEqual([row[0] for row in rows], sorted(specs))
        for name, category, _ in rows:
            self.assertEqual(category, specs[name]["category"], name)

    def test_every_example_is_answered_as_the_page_shows(self):
        page = Page(self)
        for command in page.sections:
            if command != "shutdown":
                page.open()
                page.prepare(command)
                page.run(command, shows=True)
        page.run("shutdown", shows=True)


if __name__ == "__main__":
    unittest.main()
