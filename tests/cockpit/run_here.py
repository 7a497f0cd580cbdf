"""Runs tests of one or more modules; inside a private tree. run_here.py BUILD PAGE [MODULE[.CLASS[.TEST]]]..."""

import os
import sys
import unittest

import cases


def main():
    os.environ["KELOTLS_BUILD"], os.environ["KELOTLS_PAGE"], *names = sys.argv[1:]
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    suite = unittest.defaultTestLoader.loadTestsFromNames(names)
    try:
        result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout, durations=None).run(suite) \
            if sys.version_info >= (3, 12) else unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(suite)
    finally:
        cases.Machine.stop()
    return 0 if result.wasSuccessful() and result.testsRun else 1


if __name__ == "__main__":
    sys.exit(main())
