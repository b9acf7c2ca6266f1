# The shared library as a host meets it: it shows the names that its public headers mark and no other, runs nothing when it is loaded,
# stays loaded, and bears the name that programs look for.
#
#   shared_library.py NM READELF LIBRARY ARCHIVE VERSION FOLDER HEADER...
#
# ARCHIVE is the static library of the same objects, VERSION the project's, the HEADERs are the public ones, below FOLDER.
import pathlib
import re
import subprocess
import sys

# What the headers mark: classes, functions, and the functions of the C header.
MARKED_CLASS = re.compile(r"\b(?:class|struct) KESTROVA_EXPORT (\w+)")
MARKED_FUNCTION = re.compile(r"\bKESTROVA_(?:EXPORT|API) [^;{(]*?\b(operator==|\w+)\(")

OF_A_CLASS = re.compile(r"^(?:typeinfo for |typeinfo name for |vtable for )?(?:platform::)?(\w+)(?:::.*)?$")
FUNCTION = re.compile(r"^(?:platform::)?(operator==|\w+)(?:\(.*)?$")
VERSION_OF_SYMBOL = re.compile(r"@@?KESTROVA_[0-9.]+$")


def marked(headers):
    """The classes and functions that the headers mark."""
    classes, functions = set(), set()
    for header in headers:
        text = re.sub(r"^#.*", "", pathlib.Path(header).read_text(encoding="utf-8"), flags=re.MULTILINE)
        classes.update(MARKED_CLASS.findall(text))
        functions.update(name for name in MARKED_FUNCTION.findall(text) if name not in classes)
    return classes, functions


def output_of(*command):
    return subprocess.run(command, capture_output=True, check=True, text=True).stdout


def shown_names(nm, library):
    """The demangled names that a program can link to; the version's own apart."""
    names = []
    for line in output_of(nm, "-DC", "--defined-only", library).splitlines():
        _, kind, name = line.split(" ", 2)
        if kind != "A":
            names.append(VERSION_OF_SYMBOL.sub("", name))
    return names


def name_breaches(names, classes, functions):
    for name in names:
        # A template's or an inline function's text may begin with its result; what counts is whose it is.
        plain = re.sub(r"\[abi:\w+\]", "", name).split("(", 1)[0]
        found = OF_A_CLASS.match(plain)
        if found and found[1] in classes:
            continue
        found = FUNCTION.match(plain)
        if found and found[1] in functions:
            continue
        if any(re.search(rf"[\w>*&] (?:platform::)?{owner}::", plain) for owner in classes):
            continue
        yield f"shows a name that no public header marks: {name}"
    for function in sorted(functions):
        if not any(re.match(rf"(?:platform::)?{re.escape(function)}(?:\[abi:\w+\])?(?:\(|$)", name) for name in names):
            yield f"does not show what a public header marks: {function}"


def hidden_breaches(names, operations, classes):
    """The operations that a host sees in a marked class and could not link to."""
    for name in sorted(set(operations) - set(names)):
        found = OF_A_CLASS.match(re.sub(r"\[abi:\w+\]", "", name).split("(", 1)[0])
        if found and found[1] in classes:
            yield f"does not show an operation of a marked class: {name}"


def operations_of(nm, archive):
    """The functions that the objects define once and for all, whether they are shown or not."""
    lines = (line.split(" ", 2) for line in output_of(nm, "-C", "--defined-only", archive).splitlines())
    return [line[2] for line in lines if len(line) == 3 and line[1] == "T"]


def dynamic_breaches(readelf, library, version):
    dynamic = output_of(readelf, "-dW", library)
    soname = f"libkestrova.so.{'.'.join(version.split('.')[:2])}"
    if f"[{soname}]" not in "".join(line for line in dynamic.splitlines() if "(SONAME)" in line):
        yield f"is not named {soname}"
    if not re.search(r"\(FLAGS_1\).*\bNODELETE\b", dynamic):
        yield "can be unloaded while its threads run: link it with -z nodelete"
    # The compiler's own entry is in every library; any other is ours, and runs before main.
    size = re.search(r"\(INIT_ARRAYSZ\)\s+(\d+) \(bytes\)", dynamic)
    pointer = 8 if "ELF64" in output_of(readelf, "-hW", library) else 4
    if size and int(size[1]) > pointer:
        yield f"runs {int(size[1]) // pointer - 1} functions of its own before main"


def breaches(nm, readelf, library, archive, version, headers):
    names = shown_names(nm, library)
    operations = operations_of(nm, archive)
    classes, functions = marked(headers)
    found = [*name_breaches(names, classes, functions), *hidden_breaches(names, operations, classes),
             *dynamic_breaches(readelf, library, version)]
    return [f"{library}: {what}" for what in found], min(len(names), len(operations))


def main():
    nm, readelf, library, archive, version, folder, *headers = sys.argv[1:]
    found, names = breaches(nm, readelf, library, archive, version, [pathlib.Path(folder) / header for header in headers])
    for breach in found:
        print(breach)
    print(f"shared library: {names} names read, {len(found)} breaches")
    return 1 if found or not names else 0


if __name__ == "__main__":
    sys.exit(main())
