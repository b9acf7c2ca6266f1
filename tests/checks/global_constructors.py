# No code of ours runs before main in a host that links the libraries: their objects hold no initialiser of a global object.
#
#   global_constructors.py NM LIBRARY...
import re
import subprocess
import sys

# What compilers name the function that makes a file's global objects: GCC's and clang's, one for a file or one for an object.
INITIALISER = re.compile(r"\b[tT] (_GLOBAL__(?:sub_)?I_\S*|__cxx_global_var_init\S*)$")
FILE = re.compile(r"^(\S+\.o):$")


def breaches(nm, library):
    """The initialisers in a library's objects, and the number of objects read."""
    symbols = subprocess.run([nm, library], capture_output=True, check=True, text=True).stdout
    found, objects, current = [], 0, library
    for line in symbols.splitlines():
        if match := FILE.match(line):
            current = match[1]
            objects += 1
        elif match := INITIALISER.search(line):
            found.append(f"{library}: {current}: makes a global object before main ({match[1]})")
    return found, objects


def main():
    nm, *libraries = sys.argv[1:]
    total = 0
    failed = False
    for library in libraries:
        found, objects = breaches(nm, library)
        total += objects
        for breach in found:
            failed = True
            print(breach)
    print(f"global constructors: {total} objects read")
    return 1 if failed or total == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
