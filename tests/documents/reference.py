# The reference of the public headers is made without a warning, has what the headers have, and a fault in a header's comment is found.
#
#   reference.py ROOT
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

LIMIT = 100  # seconds


class Reference(unittest.TestCase):
    root = None  # of the project, from the command line

    def setUp(self):
        """A copy of what the reference is made from, to be broken."""
        folder = tempfile.TemporaryDirectory(prefix="kestrova-reference-")
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        for part in ("src", "packaging", "tools"):
            shutil.copytree(self.root / part, self.tree / part)
        shutil.copy(self.root / "CMakeLists.txt", self.tree)

    def make(self):
        done = subprocess.run([self.tree / "tools/reference"], capture_output=True, text=True, timeout=LIMIT, check=False,
                              env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})
        return done.returncode, done.stdout + done.stderr

    def change(self, name, old, new):
        path = self.tree / "src" / name
        text = path.read_text(encoding="utf-8")
        self.assertIn(old, text)
        path.write_text(text.replace(old, new, 1), encoding="utf-8")

    def page(self, name):
        return (self.tree / "build/reference/html" / name).read_text(encoding="utf-8")

    def test_it_is_made_without_a_warning(self):
        status, said = self.make()
        self.assertEqual((0, True), (status, "no warning" in said), said)
        self.assertIn("Begins a new session", self.page("classKestrova.html"))
        # One comment above two declarations is that of both.
        self.assertEqual(2, self.page("classKSVData.html").count("Copies what it must, submits one block and returns."))
        # A class without a comment of its own has that of its file, and a field the one behind it.
        self.assertIn("The file system, as the shared file manager gives it.", self.page("classplatform_1_1FileManager.html"))
        self.assertIn("the address that is shared", self.page("structKSVShare.html"))
        self.assertIn("Begins a new session: later events carry its identifier.", self.page("kestrova_8h.html"))

    def test_what_is_wrong_in_a_comment_is_found(self):
        cases = (("platform/Data.h", "/// ", "/// \\param nothing \\nosuchcommand ", "nosuchcommand"),
                 ("companions/Kestrova.h", "  /// Reports an event, by name and, where there is more to say, with data.\n", "", "Member event(std::optional< std::string > name) "),
                 ("capi/kestrova.h", "/* Begins a new session: later events carry its identifier. */\n", "", "kestrova_new_session"),
                 ("companions/KSVShare.h", "// kept and passed on", "", "isFallback"))
        for name, old, new, _ in cases:
            self.change(name, old, new)
        status, said = self.make()
        self.assertEqual(1, status)
        for name, _, _, part in cases:
            self.assertTrue(any(line.startswith(f"src/{name}:") and part in line for line in said.splitlines()), f"{name}\n{said}")

    def test_a_list_without_headers_is_not_taken_for_a_good_one(self):
        self.change("CMakeLists.txt", "set(KESTROVA_PUBLIC_HEADERS\n", "set(OTHERS\n")
        self.assertEqual((1, "src/CMakeLists.txt names no public headers\n"), self.make())


if __name__ == "__main__":
    Reference.root = pathlib.Path(sys.argv[1]).resolve()
    unittest.main(argv=sys.argv[:1])
