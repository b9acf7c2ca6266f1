# Who may include whom: reads the include lines of src/ and names every breach.
#
# The rooms of the client (client, queue, api, shares, upload) and companions know each other, the platform's interfaces and the
# standard library, and of that nothing that brings a clock, a thread, a stream or a file of its own: all of these come from the
# platform, so that a test can hold them in its hand. Only a companion may hold a std::mutex. The platform's interfaces know each other
# and the standard library. Third-party and system headers live in the rooms that are made for them. Nothing in src/ knows tests/.
#
#   include_rules.py [root of the project]
import pathlib
import posixpath
import re
import sys

from cxx_source import line_of, without_comments

CLIENT_ROOMS = ("client", "queue", "api", "shares", "upload")

# room: (the rooms whose headers it may include; whether third-party and system headers may stand in it)
ALL = None
ROOMS = {
    **{room: (CLIENT_ROOMS + ("companions", "platform"), False) for room in CLIENT_ROOMS + ("companions",)},
    "platform": (("platform",), False),
    # The C interface converts, and lives on the same side of the platform as the client.
    "capi": (CLIENT_ROOMS + ("companions", "platform", "capi"), False),
    # The platform's background sessions speak to the transfer service, so its messages are known to both.
    "platform/linux": (("platform", "platform/linux", "transfer/protocol"), True),
    "transfer/protocol": (("transfer/protocol", "platform"), False),
    "transfer/core": (("transfer/core", "transfer/protocol", "platform"), False),
    "transfer/linux": (("transfer/core", "transfer/linux", "transfer/protocol", "platform", "platform/linux"), True),
    "devserver": (ALL, True),
    "cli": (ALL, True),
}

STANDARD_HEADERS = frozenset(
    """
    algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes climits clocale cmath
    codecvt compare complex concepts condition_variable coroutine csetjmp csignal cstdarg cstddef cstdint cstdio cstdlib cstring ctime
    cuchar cwchar cwctype deque exception execution expected filesystem format forward_list fstream functional future
    initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map mdspan memory memory_resource mutex new
    numbers numeric optional ostream print queue random ranges ratio regex scoped_allocator semaphore set shared_mutex
    source_location span spanstream sstream stack stacktrace stdexcept stop_token streambuf string string_view syncstream
    system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility valarray variant vector version
    """.split()
)

# What a header for C programs is written with.
C_HEADERS = frozenset("stddef.h stdint.h".split())

CLOCKS = frozenset("chrono ctime".split())
THREADS = frozenset("thread mutex shared_mutex condition_variable future stop_token semaphore latch barrier execution".split())
STREAMS = frozenset("iostream istream ostream fstream sstream spanstream syncstream streambuf ios iosfwd iomanip print".split())
SYSTEM = frozenset("filesystem random csignal csetjmp clocale locale".split())

# Names that reach the same things without an include line of their own.
CLIENT_WORDS = (
    (re.compile(r"\bcatch\s*\(\s*\.\.\.\s*\)"), "catch (...) would swallow the end of a process; catch platform::Exception"),
    (re.compile(r"\bnoexcept\b(?!\s*\(\s*false\s*\))"), "noexcept would turn the end of a simulated process into that of the real one"),
    (re.compile(r"\bstd::(?:chrono|thread|jthread|this_thread|async|filesystem|cout|cerr|clog|random_device|time)\b"),
     "clocks, threads, streams, files and randomness come from the platform"),
    (re.compile(r"\bstd::(?:recursive_|timed_|shared_)?mutex\b"), "the client holds no lock"),
    (re.compile(r"\b(?:fopen|freopen|tmpfile|fprintf|printf|vprintf|puts|fputs|perror|getenv|gettimeofday|clock_gettime)\s*\("),
     "files, output, environment and time come from the platform"),
)

_INCLUDE = re.compile(r"^[ \t]*#[ \t]*(?:include|include_next|import)\b[ \t]*([^\n]*)", re.MULTILINE)
_TARGET = re.compile(r"""(?:"(?P<quoted>[^"]+)"|<(?P<angled>[^>]+)>)\s*\Z""")
_OUTSIDE = re.compile(r"^(?:\.\./)*(?:tests|simulation|support|unit|contract|integration|interop|gtest|gmock|benchmark)/")


def room_of(path):
    """The room of a file, by its path below src/."""
    parts = path.split("/")
    if len(parts) > 2 and parts[0] in ("platform", "transfer"):
        return "/".join(parts[:2])
    return parts[0] if len(parts) > 1 else ""


def _standard_header_breach(room, header):
    if room not in CLIENT_ROOMS + ("companions",):
        return None
    if room == "companions" and header == "mutex":
        return None
    for headers, what in ((CLOCKS, "a clock"), (THREADS, "threads or locks"), (STREAMS, "a stream"), (SYSTEM, "the system")):
        if header in headers:
            return f"{room}/ may not include <{header}>: it brings {what}, which comes from the platform"
    return None


def _project_header_breach(room, target_room, target):
    allowed, _ = ROOMS[room]
    if allowed is ALL or target_room in allowed:
        return None
    return f'{room}/ may not include "{target}": it may know {", ".join(allowed)}'


def _resolve(source, path, target):
    """Where a quoted name leads, below src/: beside the file, else from src/. None when it leads to no file there."""
    for candidate in (posixpath.join(posixpath.dirname(path), target), target):
        candidate = posixpath.normpath(candidate)
        if not candidate.startswith("..") and (source / candidate).is_file():
            return candidate
    return None


def include_breach(source, path, operand):
    """What is wrong with one include line of the file `path` below `source`; None when it is in order."""
    room = room_of(path)
    match = _TARGET.match(operand.strip())
    if not match:
        return f"cannot read this include: {operand.strip()}"
    target = match["quoted"] or match["angled"]
    if _OUTSIDE.match(target):
        return f"src/ may not include tests: {target}"
    resolved = _resolve(source, path, target)
    if resolved is None and match["quoted"]:
        return f'"{target}" is no file of src/'
    if resolved is not None:
        return _project_header_breach(room, room_of(resolved), target)
    if target in STANDARD_HEADERS:
        return _standard_header_breach(room, target)
    if room == "capi" and target in C_HEADERS:
        return None
    if not ROOMS[room][1]:
        return f"{room}/ may not include <{target}>: third-party and system headers live in platform/linux/, devserver/ and cli/"
    return None


def file_breaches(source, path):
    if room_of(path) not in ROOMS:
        yield 1, f"src/{room_of(path) or path} is no room that the rules know"
        return
    text = (source / path).read_text(encoding="utf-8")
    code = without_comments(text)
    for include in _INCLUDE.finditer(code):
        breach = include_breach(source, path, include[1])
        if breach:
            yield line_of(code, include.start()), breach
    if room_of(path) in CLIENT_ROOMS:
        code = without_comments(text, keep_literals=False)
        for word, reason in CLIENT_WORDS:
            for found in word.finditer(code):
                yield line_of(code, found.start()), f"{found[0].strip()}: {reason}"


def breaches(root):
    """Every breach below root/src, as `path:line: what`; raises when there is nothing to read."""
    source = pathlib.Path(root) / "src"
    paths = sorted(str(path.relative_to(source)) for path in source.rglob("*") if path.suffix in (".h", ".hpp", ".cpp", ".cc", ".c", ".mm"))
    if not paths:
        raise SystemExit(f"no C++ file below {source}")
    return [f"src/{path}:{line}: {what}" for path in paths for line, what in sorted(file_breaches(source, path))], len(paths)


def main():
    found, files = breaches(sys.argv[1] if len(sys.argv) > 1 else ".")
    for breach in found:
        print(breach)
    print(f"include rules: {files} files read, {len(found)} breaches")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
