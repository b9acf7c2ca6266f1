# Every link in the documents leads to a file of the project, and to a heading of it where it names one; README.md leads to all of docs/.
#
#   links.py ROOT
import pathlib
import re
import sys
import tempfile
import unittest

FENCED = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#+ (.*)$", re.MULTILINE)


def documents(root):
    return [root / "README.md", root / "CHANGELOG.md", *sorted((root / "docs").rglob("*.md"))]


def links_of(document):
    return [link for link in LINK.findall(FENCED.sub("", document.read_text(encoding="utf-8"))) if "://" not in link]


def anchors_of(document):
    """The names that headings get: small letters, digits and hyphens, with hyphens for blanks."""
    headings = HEADING.findall(FENCED.sub("", document.read_text(encoding="utf-8")))
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def faults(root):
    """A line for each link that leads nowhere, and for each page that README.md does not lead to."""
    found = []
    for document in documents(root):
        for link in links_of(document):
            name, _, anchor = link.partition("#")
            target = (document.parent / name).resolve() if name else document
            if not target.exists():
                found.append(f"{document.relative_to(root)}: there is no {name}")
            elif anchor and anchor not in anchors_of(target):
                found.append(f"{document.relative_to(root)}: {name or document.name} has no heading #{anchor}")
    linked = {(root / link.partition("#")[0]).resolve() for link in links_of(root / "README.md")}
    pages = [path for path in sorted((root / "docs").iterdir()) if path.is_file()]
    return found + [f"README.md does not lead to docs/{page.name}" for page in pages if page.resolve() not in linked]


class Links(unittest.TestCase):
    root = None  # of the project, from the command line

    def test_they_lead_somewhere(self):
        self.assertLess(30, sum(len(links_of(document)) for document in documents(self.root)))
        self.assertEqual([], faults(self.root))

    def test_those_that_do_not_are_found(self):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder).resolve()
            (root / "docs").mkdir()
            (root / "CHANGELOG.md").touch()
            (root / "README.md").write_text("[a](docs/a.md) [b](docs/b.md#two) [c](#one) [d](https://example.com/x)\n# One\n", encoding="utf-8")
            (root / "docs/b.md").write_text("# Two words\n```\n# two\n[e](nothing)\n```\n", encoding="utf-8")
            (root / "docs/c.yaml").touch()
            self.assertEqual(["README.md: there is no docs/a.md", "README.md: docs/b.md has no heading #two", "README.md does not lead to docs/c.yaml"],
                             faults(root))


if __name__ == "__main__":
    Links.root = pathlib.Path(sys.argv[1]).resolve()
    unittest.main(argv=sys.argv[:1])
