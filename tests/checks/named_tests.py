#!/usr/bin/env python3
# Checks that each test that docs/delivery.md names is there: a contract that nothing holds is none.
#
#     named_tests.py ROOT
#
# A name is `Suite.Test` in backticks; `Suite.*` stands for any test of the suite, and a parameterised suite is named without the
# prefix of its instantiation.
import pathlib
import re
import sys

TEST = re.compile(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", re.MULTILINE)
NAME = re.compile(r"`([A-Z]\w+)\.(\w+|\*)`")


def tests_below(folder):
    """The suites of all test sources, each with the names of its tests."""
    suites = {}
    for path in sorted(folder.rglob("*.cpp")):
        for suite, test in TEST.findall(path.read_text(encoding="utf-8")):
            suites.setdefault(suite, set()).add(test)
    return suites


def faults(document, suites):
    """A line for each name that no test has."""
    found = []
    for number, line in enumerate(document.splitlines(), 1):
        for suite, test in NAME.findall(line):
            if suite not in suites or (test != "*" and test not in suites[suite]):
                found.append(f"line {number}: no test is called {suite}.{test}")
    return found


def main(root):
    root = pathlib.Path(root)
    document = (root / "docs/delivery.md").read_text(encoding="utf-8")
    names = NAME.findall(document)
    found = faults(document, tests_below(root / "tests"))
    for fault in found:
        print(f"docs/delivery.md: {fault}")
    print(f"named tests: {len(names)} names read, {len(found)} breaches")
    return 1 if found or not names else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
