"""docs/NODES.md says what the program says of its nodes."""

import json
import unittest

from corvelle_client import Helper
from demo.looks import LOOKS, look_graph
from demo.node_pages import DOCS, EXAMPLES, page_text
from support import HELPER, Groom, Pipes


class NodePages(unittest.TestCase):
    def test_are_those_of_the_program(self):
        with Helper(HELPER) as helper:
            specs = helper.operator_specs()
        with open(DOCS / "NODES.md", encoding="utf-8") as page:
            self.assertEqual(page.read(), page_text(specs, DOCS / "images" / "nodes"), "run scripts/nodePages --text")
        kinds = {spec["type"] for spec in specs}
        self.assertEqual(set(EXAMPLES) - kinds, set())
        plain = {"ColliderMesh", "Guides", "ImportCurves", "Input", "Interpolate", "Map", "Output", "Scalp", "Scatter"}
        self.assertEqual(kinds - set(EXAMPLES), plain, "a node without a picture")

    def test_looks_are_graphs_the_program_reads(self):
        with Pipes() as helper:
            groom = Groom(helper)
            for name in LOOKS:
                with self.subTest(look=name):
                    graph = look_graph(name)
                    groom.do("set_graph", graph=graph)
                    again = groom.do("get_graph")["graph"]
                    nodes = json.loads(again)["nodes"] if isinstance(again, str) else again["nodes"]
                    self.assertEqual(sorted(n["name"] for n in nodes), sorted(n["name"] for n in graph["nodes"]))


if __name__ == "__main__":
    unittest.main()
