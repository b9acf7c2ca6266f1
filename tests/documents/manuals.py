# Holds the manuals of the programs to what the programs say of themselves, and to the rules of manuals.
#
#   manuals.py ROOT BIN_DIR
#
# A manual names each option and command that --help prints, with the operands and the names of values, and no other; it names each
# variable of the environment that the program's room reads. mandoc has nothing to say against it.
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import program_help  # noqa: E402

# The rooms whose variables a program's manual has to name.
ROOMS = {"kestrova": "cli", "kestrova-devserver": "devserver", "kestrova-transferd": "transfer/linux"}
# Read for tests, and by libraries for what has nothing to do with the program.
UNNAMED = {"KESTROVA_TRANSFERD_DIE_AT", "TERM", "PATH"}
VARIABLE = re.compile(r'(?:getenv|environment)\("([A-Z_]+)"\)')


class Manual:
    """What a manual names: `options` of the program, and for each command its options and operands."""

    def __init__(self, text):
        self.options, self.commands, self.variables = {}, {}, set()
        for line in text.splitlines():
            words = line.split()
            if words[:2] == [".It", "Fl"]:
                self.options.update(self.options_of(words))
            elif words[:2] == [".It", "Cm"]:
                self.add_command(words[2:])
            elif words[:2] == [".It", "Ev"]:
                self.variables.update(word for word in words[2:] if word not in ("Ev", ","))

    @staticmethod
    def options_of(words):
        """Options with the names of their values: `Fl -port Ar N`."""
        found = {}
        for at, word in enumerate(words):
            if word == "Fl":
                value = words[at + 3] if words[at + 2:at + 3] == ["Ar"] else None
                found["-" + words[at + 1]] = value
        return found

    def add_command(self, words):
        length = next((at for at, word in enumerate(words) if word in ("Ar", "Op", "Oo", "Fl")), len(words))
        operands = [words[at + 1] for at, word in enumerate(words) if word == "Ar" and (at < 2 or words[at - 2] != "Fl")]
        required = {"-" + words[at + 1] for at, word in enumerate(words) if word == "Fl" and words[at - 1] not in ("Op", "Oo")}
        self.commands[tuple(words[:length])] = (self.options_of(words), operands, required)


def differences(manual, helps):
    """A line for each thing that one of the two has and the other has not."""
    found = compared("option", manual.options, helps[()].options)
    told = {words: told for words, told in helps.items() if words and not told.commands or words in manual.commands}
    found += compared("command", dict.fromkeys(manual.commands), dict.fromkeys(told))
    for words in told.keys() & manual.commands.keys():
        options, operands, required = manual.commands[words]
        own = {name: value for name, value in told[words].options.items() if name not in ("-h", "--help")}
        found += [f"{' '.join(words)}: {line}" for line in compared("option", options, own)]
        if operands != told[words].operands:
            found.append(f"{' '.join(words)}: operands {operands} in the manual, {told[words].operands} in the help")
        if required != told[words].required:
            found.append(f"{' '.join(words)}: required are {sorted(required)} in the manual, {sorted(told[words].required)} in the help")
    return found


def compared(kind, manual, told):
    found = [f"the manual has no {kind} {name}" for name in sorted(told.keys() - manual.keys())]
    found += [f"the help has no {kind} {name}" for name in sorted(manual.keys() - told.keys())]
    found += [f"{kind} {name} takes {manual[name]} in the manual, {told[name]} in the help"
              for name in sorted(manual.keys() & told.keys()) if manual[name] != told[name]]
    return found


def unnamed_variables(manual, room):
    read = {name for path in room.glob("*.cpp") for name in VARIABLE.findall(path.read_text(encoding="utf-8"))}
    return sorted(read - UNNAMED - manual.variables)


def lint(path):
    """What mandoc has to say. It looks for the manuals that one refers to in its own folder, too."""
    done = subprocess.run(["mandoc", "-T", "lint", path.name], cwd=path.parent, capture_output=True, text=True, check=False)
    return (done.stdout + done.stderr).strip()


class Manuals(unittest.TestCase):
    root = binaries = None  # folders, from the command line

    def pages(self):
        pages = {path.stem: path for path in sorted((self.root / "packaging/man").glob("*.[0-9]"))}
        self.assertEqual(set(ROOMS), set(pages))
        return pages

    def test_they_name_what_the_help_names(self):
        for name, page in self.pages().items():
            helps = program_help.helps_of(self.binaries / name)
            self.assertTrue(helps[()].options)
            self.assertEqual([], differences(Manual(page.read_text(encoding="utf-8")), helps), name)

    def test_they_name_the_variables_that_are_read(self):
        for name, page in self.pages().items():
            manual = Manual(page.read_text(encoding="utf-8"))
            self.assertEqual([], unnamed_variables(manual, self.root / "src" / ROOMS[name]), name)

    def test_mandoc_has_nothing_to_say(self):
        for page in self.pages().values():
            self.assertEqual("", lint(page))


class TheTestItself(unittest.TestCase):
    """What is wrong is found."""

    TEXT = ".It Fl h , Fl -help\n.It Fl -port Ar N\n.It Cm put Ar FILE Op Fl -to Ar ID\n.It Cm put back\n"

    def helps(self):
        program = "Options:\n  -h,--help    Say this\n  --port N     a port\n\nSubcommands:\n  put          puts\n"
        put = "Positionals:\n  FILE REQUIRED    what\n\nOptions:\n  -h,--help    Say this\n  --to ID      whom\nSubcommands:\n  back   undoes\n"
        return {(): program_help.Help(program), ("put",): program_help.Help(put), ("put", "back"): program_help.Help("")}

    def found(self, text):
        return differences(Manual(text), self.helps())

    def test_the_same_is_the_same(self):
        self.assertEqual([], self.found(self.TEXT))

    def test_what_one_has_and_the_other_has_not(self):
        self.assertEqual(["the manual has no option --port"], self.found(self.TEXT.replace(".It Fl -port Ar N\n", "")))
        self.assertEqual(["the help has no option --host"], self.found(self.TEXT + ".It Fl -host Ar NAME\n"))
        self.assertEqual(["option --port takes X in the manual, N in the help"], self.found(self.TEXT.replace("Ar N", "Ar X")))
        self.assertEqual(["the manual has no command ('put', 'back')"], self.found(self.TEXT.replace(".It Cm put back\n", "")))
        self.assertEqual(["put: the manual has no option --to"], self.found(self.TEXT.replace(" Op Fl -to Ar ID", "")))
        self.assertEqual(["put: required are ['--to'] in the manual, [] in the help"], self.found(self.TEXT.replace("Op Fl -to", "Fl -to")))
        self.assertEqual(["put: operands ['NAME'] in the manual, ['FILE'] in the help"], self.found(self.TEXT.replace("FILE", "NAME")))

    def test_a_variable_that_is_read_and_not_named(self):
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "Reads.cpp").write_text('std::getenv("SOME_NAME");\n', encoding="utf-8")
            self.assertEqual(["SOME_NAME"], unnamed_variables(Manual(".It Ev OTHER , Ev ANOTHER\n"), pathlib.Path(folder)))
            self.assertEqual([], unnamed_variables(Manual(".It Ev OTHER , Ev SOME_NAME\n"), pathlib.Path(folder)))

    def test_a_bad_manual(self):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder) / "bad.1"
            page.write_text(".Dd November 21, 2026\n.Dt BAD 1\n.Os\n.Sh NAME\n.Nm bad\n.Nd not good\n.Xx\n", encoding="utf-8")
            self.assertIn("skipping unknown macro", lint(page))


if __name__ == "__main__":
    Manuals.root, Manuals.binaries = (pathlib.Path(argument) for argument in sys.argv[1:3])
    unittest.main(argv=sys.argv[:1])
