# Texts: no file holds words that belong to a workplace and not to the project, and every source file says first what it is.
#
#   texts.py [root of the project]
import os
import pathlib
import re
import subprocess
import sys

# Requirements are told in the project's own words: no outside document is cited, and no path of one machine.
FORBIDDEN = re.compile(r"\bParts? [0-9]\.[0-9]|spec\.md|[Tt]he specification|/(work|farm)/")
# Lock files pin names, versions and digests; where a mirror keeps them is no business of theirs.
DOWNLOAD_ADDRESS = re.compile(r'"resolved":\s*"https?:')

SKIPPED_FOLDERS = {".git", "build", "node_modules", "__pycache__"}

SLASHES = re.compile(r"// \S+ \S+")
HASH = re.compile(r"# \S+ \S+")
FIRST_LINES = {
    **{suffix: SLASHES for suffix in (".h", ".hpp", ".cpp", ".cc", ".c", ".mm", ".js", ".mjs", ".cjs", ".ts")},
    **{suffix: HASH for suffix in (".py", ".sh", ".cmake")},
}
FIRST_LINES_BY_NAME = {name: HASH for name in ("CMakeLists.txt", "Makefile", "packages.txt", ".clang-tidy")}


def project_files(root):
    """Paths below root of what is, or would be, committed."""
    if (root / ".git").exists():
        listing = subprocess.run(
            ["git", "-C", str(root), "ls-files", "-z", "--cached", "--others", "--exclude-standard"], capture_output=True, check=False
        )
        if listing.returncode == 0:
            return sorted(name for name in os.fsdecode(listing.stdout).split("\0") if name and (root / name).is_file())
    found = []
    for folder, folders, names in os.walk(root):
        folders[:] = [name for name in folders if name not in SKIPPED_FOLDERS]
        found += [os.path.relpath(os.path.join(folder, name), root) for name in names]
    return sorted(found)


def forbidden_words(name, text):
    if os.path.basename(name) == "package-lock.json":
        pattern, what = DOWNLOAD_ADDRESS, "a lock file holds no download address (npm config omit-lockfile-registry-resolved)"
    else:
        pattern, what = FORBIDDEN, "forbidden words"
    for number, line in enumerate(text.splitlines(), 1):
        found = pattern.search(line)
        if found:
            yield number, f"{what}: {found[0]}"


def first_line(name, text):
    pattern = FIRST_LINES_BY_NAME.get(os.path.basename(name)) or FIRST_LINES.get(os.path.splitext(name)[1])
    lines = text.splitlines()
    number = 0
    if lines and lines[0].startswith("#!"):
        number = 1
        pattern = pattern or HASH
    if pattern and not (len(lines) > number and pattern.match(lines[number])):
        yield number + 1, "the first line is a comment that says what the file is"


def breaches(root):
    """Every breach below root, as `path:line: what`, and the number of files read; raises when there is nothing to read."""
    root = pathlib.Path(root)
    found = []
    files = 0
    for name in project_files(root):
        content = (root / name).read_bytes()
        if b"\0" in content:
            continue
        files += 1
        text = content.decode("utf-8", errors="replace")
        found += [f"{name}:{line}: {what}" for line, what in [*forbidden_words(name, text), *first_line(name, text)]]
    if not files:
        raise SystemExit(f"no file below {root}")
    return found, files


def main():
    found, files = breaches(sys.argv[1] if len(sys.argv) > 1 else ".")
    for breach in found:
        print(breach)
    print(f"texts: {files} files read, {len(found)} breaches")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
