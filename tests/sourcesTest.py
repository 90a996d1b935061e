"""Rules that every source keeps and no compiler checks."""

import os
import re
import unittest

_ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
_FOLDERS = ("model", "expr", "graph", "operators", "tools", "io", "session", "hosts")
_LIBRARY = re.compile(r"std::(sin|cos|tan|asin|acos|atan|atan2|sinh|cosh|tanh|exp|exp2|expm1|log|log2|log10|log1p|pow|cbrt|hypot)f?\(")


class SourcesTest(unittest.TestCase):
    def test_results_take_no_last_bits_from_a_c_library(self):
        seen, calls = 0, []
        for folder in _FOLDERS:
            for place, _, names in os.walk(os.path.join(_ROOT, folder)):
                for name in names:
                    if not name.endswith((".cpp", ".h")) or re.search(r"(Test|Benchmark)\.cpp$", name):
                        continue
                    with open(os.path.join(place, name), encoding="utf-8") as source:
                        for number, line in enumerate(source, 1):
                            if _LIBRARY.search(line):
                                calls.append("%s:%d" % (name, number))
                    seen += 1
        self.assertGreater(seen, 300)
        self.assertEqual(calls, [], "use model/elementary.h")


if __name__ == "__main__":
    unittest.main()
