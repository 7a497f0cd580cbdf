"""Runs tests inside a private tree: in_tree.py BUILD PAGE NAME..., where a name is that of a module, of a class in
it or of a test in that."""

import os
import sys
import unittest

import cases


def main():
    os.environ["KELOTLS_BUILD"], os.environ["KELOTLS_PAGE"], *names = sys.argv[1:]
    suite = unittest.defaultTestLoader.loadTestsFromNames(names)
    try:
        result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(suite)
    finally:
        cases.Machine.stop()
    return 0 if result.wasSuccessful() and result.testsRun else 1


if __name__ == "__main__":
    sys.exit(main())
