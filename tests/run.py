"""Runs the tests of the running program: tests/run.py HELPER [PATTERN]

HELPER is the corvelle-helper to test, PATTERN the files to run (default: *Test.py). Ends with one
line of totals; the exit code is 0 if all passed.
"""

import os
import sys
import unittest

_HERE = os.path.dirname(os.path.abspath(__file__))


def main() -> int:
    if len(sys.argv) not in (2, 3):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    os.environ["CORVELLE_HELPER"] = os.path.abspath(sys.argv[1])
    sys.path.insert(0, os.path.join(_HERE, "..", "hosts", "blender"))  # the demo's head
    sys.path.insert(0, os.path.join(_HERE, "..", "hosts", "blender", "client"))
    sys.path.insert(0, _HERE)
    sys.dont_write_bytecode = True
    pattern = sys.argv[2] if len(sys.argv) == 3 else "*Test.py"
    suite = unittest.defaultTestLoader.discover(_HERE, pattern)
    result = unittest.TextTestRunner(verbosity=1).run(suite)
    failed = len(result.failures) + len(result.errors) + len(result.unexpectedSuccesses)
    passed = result.testsRun - failed - len(result.skipped)
    print("%d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 and passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
