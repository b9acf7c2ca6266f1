# What a program's --help says it takes: its options, operands and commands, with those of its commands below it.
import re
import subprocess

LIMIT = 30  # seconds for one answer of a program

HEADING = re.compile(r"^(\w+):$")
# Two spaces, names, and after at least two more the description, which may also begin on the next line.
ENTRY = re.compile(r"^  (\S.*?)(?:  +\S.*)?$")


class Help:
    """`options` by their names, each with the name of its value or None, and which of them are `required`; `operands` and `commands`."""

    def __init__(self, text):
        self.options, self.required, self.operands, self.commands = {}, set(), [], []
        heading = None
        for line in text.splitlines():
            found = HEADING.match(line)
            if found:
                heading = found[1]
            elif line and not line.startswith(" "):
                heading = None
            elif heading not in (None, "Examples"):
                entry = ENTRY.match(line)
                if entry and not line.startswith("   "):
                    self.add(heading, entry[1].split())

    def add(self, heading, words):
        if heading == "Subcommands":
            self.commands.append(words[0])
        elif heading == "Positionals":
            self.operands.append(words[0])
        else:
            values = [word for word in words[1:] if word not in ("...", "REQUIRED")]
            for name in words[0].split(","):
                self.options[name] = values[0] if values else None
                if "REQUIRED" in words:
                    self.required.add(name)


def helps_of(program):
    """The help of a program and of every command below it, by the commands' words: () is the program itself."""
    found = {}
    waiting = [()]
    while waiting:
        words = waiting.pop()
        done = subprocess.run([program, *words, "--help"], capture_output=True, text=True, timeout=LIMIT, check=True)
        found[words] = Help(done.stdout)
        waiting += [(*words, command) for command in found[words].commands]
    return found
