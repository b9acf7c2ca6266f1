# The rows of docs/platform.md: all are there, the files that keep them exist, and each test named for a row cites it.
#
#   platform_rows.py [root of the project]
import pathlib
import re
import sys

SERIES = {"V": 8, "J": 10, "U": 12, "B": 8, "F": 9, "Q": 4, "L": 1, "D": 2}
ROWS = [f"{letter}{number}" for letter, count in SERIES.items() for number in range(1, count + 1)]

_ROW = re.compile(r"^\| ([A-Z][0-9]+) \| (.*) \| ([^|]*) \| ([^|]*) \|$")
_PATH = re.compile(r"`([^`]+)`")
_RANGE = re.compile(r"\b([A-Z])([0-9]+) to (?:[A-Z])?([0-9]+)\b")


def cited_rows(text):
    """The row numbers that a test's names or comments cite: `TEST(FormatV4, ...)`, `TEST_P(Files, F6_...)`, `rows J1 to J6`."""
    rows = set()
    for line in text.splitlines():
        if line.startswith(("TEST", "TYPED_TEST")) or re.search(r"\brows?\b", line):
            rows.update(re.findall(r"(?<![A-Z0-9])[VJUBFQLD][0-9]+(?![0-9])", line))
            for letter, first, last in _RANGE.findall(line):
                rows.update(f"{letter}{number}" for number in range(int(first), int(last) + 1))
    return rows


def _row_breaches(root, row, where, tests):
    if where.strip() == tests.strip() == "later":
        return
    for cell, folder, what in ((where, "src", "implementation"), (tests, "tests", "test")):
        paths = _PATH.findall(cell)
        if not paths:
            yield f"names no {what}"
        for path in paths:
            if not (root / folder / path).is_file():
                yield f"{folder}/{path} does not exist"
            elif what == "test" and row not in cited_rows((root / folder / path).read_text(encoding="utf-8")):
                yield f"{folder}/{path} does not cite the row"


def breaches(root):
    root = pathlib.Path(root)
    found, seen = [], []
    for number, line in enumerate((root / "docs/platform.md").read_text(encoding="utf-8").splitlines(), 1):
        match = _ROW.match(line)
        if match:
            seen.append(match[1])
            found += [f"docs/platform.md:{number}: {match[1]}: {what}" for what in _row_breaches(root, match[1], match[3], match[4])]
    found += [f"docs/platform.md:1: {row}: no such row" for row in ROWS if row not in seen]
    found += [f"docs/platform.md:1: {row}: stands more than once" for row in sorted({row for row in seen if seen.count(row) > 1})]
    found += [f"docs/platform.md:1: {row}: is not one of the rows" for row in seen if row not in ROWS]
    return found, len(seen)


def main():
    found, rows = breaches(sys.argv[1] if len(sys.argv) > 1 else ".")
    for breach in found:
        print(breach)
    print(f"platform rows: {rows} rows read, {len(found)} breaches")
    return 1 if found or rows == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
