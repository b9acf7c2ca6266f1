# Holds the completion for bash to what the command says of itself: bash completes what --help prints, and nothing else.
#
#   completion.py ROOT BIN_DIR
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import program_help  # noqa: E402

# Bash as it stands when a person has typed the words, the last of which is to be completed.
BASH = """
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
_kestrova
(( ${#COMPREPLY[@]} == 0 )) || printf '%s\\n' "${COMPREPLY[@]}"
"""


class Completion(unittest.TestCase):
    script = command = None  # paths, from the command line

    @classmethod
    def setUpClass(cls):
        cls.helps = program_help.helps_of(cls.command)
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        (cls.folder / "secret.txt").touch()
        (cls.folder / "CAT.GIF").touch()
        (cls.folder / "state").mkdir()

    def complete(self, *words, script=None):
        done = subprocess.run(["bash", "--norc", "-c", BASH, "bash", script or self.script, "kestrova", *words], cwd=self.folder,
                              capture_output=True, text=True, timeout=program_help.LIMIT, check=True)
        self.assertEqual("", done.stderr)
        return sorted(done.stdout.splitlines())

    def options_of(self, words):
        """The long options that a command takes, its own and those of the program."""
        return sorted({name for told in (self.helps[()], self.helps[words]) for name in told.options if name.startswith("--")})

    def differences(self, script=None):
        """A line for each place where bash offers something else than the command takes."""
        found = []
        for words, told in self.helps.items():
            if self.complete(*words, "-", script=script) != self.options_of(words):
                found.append(f"options of {' '.join(words) or 'the program'}")
            if told.commands and self.complete(*words, "", script=script) != sorted(told.commands):
                found.append(f"commands of {' '.join(words) or 'the program'}")
        return found

    def test_bash_offers_what_the_help_names(self):
        self.assertGreater(len(self.helps), 10)
        self.assertEqual([], self.differences())

    def test_a_beginning_narrows(self):
        self.assertEqual(["event", "events"], self.complete("ev"))
        self.assertEqual(["refresh"], self.complete("share", "r"))
        self.assertEqual(["--secret-file"], self.complete("flush", "--s"))
        self.assertEqual([], self.complete("x"))

    def test_options_before_the_command_do_not_hide_it(self):
        self.assertEqual(["cancel"], self.complete("--json", "--home", "share", "uploads", ""))
        self.assertEqual(["submit"], self.complete("--home", "=", "event", "share", "s"))
        self.assertEqual(["--url"], self.complete("share", "submit", "--data", "{}", "--u"))

    def test_the_value_of_an_option_is_no_command(self):
        for words, told in self.helps.items():
            for name, value in told.options.items():
                if value and name.startswith("--"):
                    offered = {"DIR": ["state"], "FILE": ["CAT.GIF", "secret.txt", "state"]}.get(value, [])
                    self.assertEqual(offered, self.complete(*words, name, ""), (words, name))
                    self.assertEqual(offered, self.complete(*words, name, "=", ""), (words, name))

    def test_operands_that_are_files(self):
        for words, told in self.helps.items():
            if told.operands != ["FILE"]:
                self.assertEqual(sorted(told.commands), self.complete(*words, ""), words)
        self.assertEqual(["CAT.GIF", "secret.txt", "state"], self.complete("events", ""))
        self.assertEqual(["CAT.GIF", "state"], self.complete("upload", ""))
        self.assertEqual([], self.complete("upload", "CAT.GIF", ""))

    def test_what_is_missing_or_too_much_is_found(self):
        text = self.script.read_text(encoding="utf-8")
        for old, new, what in ((" doctor", "", "commands of the program"), ("cancel", "cancel stop", "commands of uploads"),
                               ("'--data --url'", "'--data'", "options of share submit")):
            self.assertIn(old, text)
            changed = self.folder / "changed"
            changed.write_text(text.replace(old, new), encoding="utf-8")
            self.assertEqual([what], self.differences(changed))
            changed.unlink()


if __name__ == "__main__":
    root, binaries = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
    Completion.script = root / "packaging/completion/kestrova"
    Completion.command = binaries / "kestrova"
    unittest.main(argv=sys.argv[:1])
