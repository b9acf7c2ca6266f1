# Builds and runs a host's project for each way in which the library can be linked, far from the source tree.
#
#   hosts.py install BUILD NOTE         installs a build into a new folder, whose name goes into the file NOTE
#   hosts.py remove NOTE                removes that folder
#   hosts.py WAY --build BUILD --note NOTE --source SOURCE --compiler CXX --c-compiler CC
#
# The program is the one of README.md, word for word, or one of examples/ over the C interface. It reports an event to the installed development server, whose journal must have it.
# A trace of the system calls of building and running shows that no file of the source or build tree is looked at, except for the way
# that takes the sources in.
import argparse
import contextlib
import gzip
import json
import os
import pathlib
import re
import select
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.request

HERE = pathlib.Path(__file__).resolve().parent
LIMIT = 100  # seconds for one step of a host's life
APPLICATION = "com.example.app"
SECRET = "a secret of mine"
PROGRAMS = ["kestrova", "kestrova-devserver", "kestrova-transferd"]


# Joined to the example in Python: closes the library as often as it was opened, and more.
CLOSING = """
    import _ctypes
    for _ in range(3):
        _ctypes.dlclose(library._handle)
    print("still there" if "libkestrova.so" in open("/proc/self/maps").read() else "gone")
"""


class Failure(Exception):
    pass


def run(*command, env=None):
    """The standard output of a command that must succeed, run where the environment says."""
    done = subprocess.run([str(part) for part in command], env=env, cwd=env and env["PWD"], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=6 * LIMIT, check=False)
    if done.returncode != 0:
        raise Failure(f"{' '.join(map(str, command))}\nended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def block_of(document, heading, language):
    """The first fenced block of a language below a heading."""
    text = document.read_text(encoding="utf-8")
    found = re.search(rf"^## {re.escape(heading)}$.*?^```{language}$\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
    if not found:
        raise Failure(f"{document} has no block of {language} below {heading}")
    return found[1]


def blocks_of(document, language):
    """All fenced blocks of a language, one after another."""
    text = document.read_text(encoding="utf-8")
    return "\n".join(re.findall(rf"^```{language}$\n(.*?)^```$", text, re.MULTILINE | re.DOTALL))


@contextlib.contextmanager
def transfers(prefix, folder):
    """What a host's environment needs for uploads; the transfer service that they start is ended."""
    env = {"KESTROVA_TRANSFER_DIR": str(folder / "transfers"), "KESTROVA_TRANSFERD": str(prefix / "bin/kestrova-transferd")}
    try:
        yield env
    finally:
        status = subprocess.run([env["KESTROVA_TRANSFERD"], "--status"], env={**os.environ, **env}, capture_output=True, text=True, check=False)
        process = re.search(r"process (\d+)", status.stdout)
        if process:
            watched = os.pidfd_open(int(process[1]))
            os.kill(int(process[1]), signal.SIGTERM)
            select.select([watched], [], [], LIMIT)
            os.close(watched)


@contextlib.contextmanager
def started(command, env, **streams):
    """A process that is ended when the block is left, or when the time is up."""
    process = subprocess.Popen([str(part) for part in command], env=env, cwd=env and env["PWD"], text=True, **streams)
    timer = threading.Timer(LIMIT, process.kill)
    timer.start()
    try:
        yield process
    finally:
        timer.cancel()
        process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout):
            if stream:
                stream.close()


def lines_until(stream, *texts):
    """What is read until each of the texts was in a line."""
    read = ""
    for line in stream:
        read += line
        if all(text in read for text in texts):
            return read
    raise Failure(f"the process ended, or the time was up, before it wrote lines with {texts}:\n{read}")


class Server:
    """The installed development server on a free port."""

    def __init__(self, process, state):
        self.process = process
        self.journal = state / "journal.jsonl"
        ready = json.loads(lines_until(process.stdout, "ready {").split("ready ", 1)[1])
        self.host = f"localhost:{ready['port']}"
        self.authority = ready["caFile"]

    def misbehave(self, settings):
        trusting = urllib.request.HTTPSHandler(context=ssl.create_default_context(cafile=self.authority))
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}), trusting)
        request = urllib.request.Request(f"https://{self.host}/dev/behaviour", json.dumps(settings).encode())
        opener.open(request, timeout=LIMIT).close()

    def entries(self):
        return [json.loads(line) for line in self.journal.read_text(encoding="utf-8").splitlines()]


@contextlib.contextmanager
def server(prefix, folder):
    (folder / "secret").write_text(SECRET, encoding="utf-8")
    state = folder / "state"
    command = [prefix / "bin/kestrova-devserver", "--port", "0", "--state", state, "--app", APPLICATION, "--secret-file", folder / "secret"]
    with started(command, None, stdout=subprocess.PIPE) as process:
        yield Server(process, state)


class Trace:
    """Runs commands and keeps which files they and their children name to the system."""

    def __init__(self, folder):
        self.folder = folder
        self.count = 0

    def command(self, *command):
        self.count += 1
        return ["strace", "--seccomp-bpf", "-f", "-qq", "-e", "trace=%file", "-o", str(self.folder / f"trace.{self.count}"), *command]

    def lines(self):
        return [line for path in sorted(self.folder.glob("trace.*")) for line in path.read_text(errors="replace").splitlines()]


def environment(folder, **more):
    """What a host's terminal has: nothing that leads back to the tree."""
    env = {name: value for name, value in os.environ.items() if not name.startswith(("XDG_", "KESTROVA_", "CCACHE_", "SSL_CERT_"))}
    env.update(HOME=str(folder / "home"), PWD=str(folder))
    return {**env, **{name: str(value) for name, value in more.items()}}


def event_arrives(program, prefix, folder, env, wrap=list, until=None):
    """Starts the program with the server's address, waits until the server has taken its event and, where it is said, the host has
    written a line that holds the text; then presses Enter. The host's output and the journal's entries."""
    with server(prefix, folder) as kestrova_server:
        env = {**env, "SSL_CERT_FILE": kestrova_server.authority}
        command = wrap([*map(str, program), kestrova_server.host])
        with started(command, env, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as host:
            lines_until(kestrova_server.process.stdout, "POST /events")
            output = lines_until(host.stdout, until) if until else ""
            output += host.communicate("\n", timeout=LIMIT)[0]
        if host.returncode != 0:
            raise Failure(f"the host ended with {host.returncode}:\n{output}")
        return output, kestrova_server.entries()


class Hosts(unittest.TestCase):
    """One test for each way."""

    options = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kestrova-host-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "home").mkdir()
        self.project = self.folder / "project"
        self.installed = pathlib.Path(self.options.note.read_text(encoding="utf-8"))
        self.trace = Trace(self.folder)

    def make_project(self, way):
        """A copy of the way's project, with the program of the README in it."""
        shutil.copytree(HERE / way, self.project)
        (self.project / "main.cpp").write_text(block_of(self.options.source / "README.md", "Embed it", "cpp"), encoding="utf-8")

    def assert_documented(self, heading, language, file):
        """The lines that the documentation shows are lines of the project."""
        shown = block_of(self.options.source / "docs/embedding.md", heading, language).splitlines()
        lines = (self.project / file).read_text(encoding="utf-8").splitlines()
        self.assertEqual([], [line for line in shown if line not in lines])

    def build_with_cmake(self, *arguments, wrap=list, **more):
        env = environment(self.folder, **more)
        build = self.folder / "build"
        env.update(CC=self.options.c_compiler, CXX=self.options.compiler)
        configure = ["cmake", "-G", "Ninja", "-S", self.project, "-B", build, "-DCMAKE_BUILD_TYPE=Debug", *arguments]
        run(*wrap(list(map(str, configure))), env=env)
        run(*wrap(["cmake", "--build", str(build)]), env=env)
        return [build / "app"]

    def assert_event_arrives(self, program, prefix, wrap=list, **more):
        output, entries = event_arrives(program, prefix, self.folder, environment(self.folder, **more), wrap)
        self.assertEqual("Press Enter to end.\n", output)
        self.assert_entries([("/events", 200)], entries)

    def assert_entries(self, expected, entries):
        """Requests that were right and taken, among them one with the event that every host reports."""
        self.assertEqual([(path, status, "ok", True) for path, status in expected],
                         sorted((entry["path"], entry["status"], entry["verdict"], entry["taken"]) for entry in entries))
        records = [(record["event"], record["eventData"]["gif"], record["eventData"]["loops"])
                   for entry in entries if entry["path"] == "/events" for record in entry["records"]]
        self.assertEqual([("gif-viewed", "g169a7", 2)], records)

    def assert_share_arrives(self, program, **more):
        """For the hosts over the C interface, which submit a share too, and are told who the user is."""
        output, entries = event_arrives(program, self.installed, self.folder, environment(self.folder, **more), self.traced,
                                        "The server knows this user as ")
        self.assertRegex(output, r'^(Press Enter to end\.\n)?The server knows this user as "[A-Za-z0-9]{8}"\n(Press Enter to end\.\n)?$')
        self.assertEqual(2, len(output.splitlines()))
        self.assert_entries([("/events", 200), ("/shares", 201)], entries)
        self.assert_tree_out_of_sight()

    def c_program(self, name):
        """The example in C, compiled as strictly as a C compiler can."""
        shutil.copytree(self.options.source / "examples/c", self.project)
        self.assert_documented("C and other languages", "c", "app.c")
        env = environment(self.folder, PKG_CONFIG_PATH=self.installed / "lib/pkgconfig")
        flags = run("pkg-config", "--cflags", "--libs", name, env=env).split()
        program = self.folder / "app"
        run(*self.traced([self.options.c_compiler, "-std=c99", "-Wall", "-Wextra", "-pedantic", "-Werror", str(self.project / "app.c"),
                          *flags, "-lpthread", "-o", str(program)]), env=env)
        return [program]

    def assert_tree_out_of_sight(self):
        lines = self.trace.lines()
        # The trace is one: it has seen the program itself being started or built.
        self.assertTrue(any("execve" in line for line in lines))
        for tree in (self.options.source, self.options.build):
            self.assertEqual([], [line for line in lines if f'"{tree}' in line])

    def links_shared(self, program):
        return "libkestrova.so.0.1" in run("readelf", "-dW", program[-1])

    def traced(self, command):
        return self.trace.command(*command)

    def find_package(self, prefix, shared):
        self.make_project("find_package")
        self.assert_documented("find_package", "cmake", "CMakeLists.txt")
        arguments = [f"-DCMAKE_PREFIX_PATH={prefix}", f"-DBUILD_SHARED_LIBS={'ON' if shared else 'OFF'}"]
        program = self.build_with_cmake(*arguments, wrap=self.traced)
        self.assertEqual(shared, self.links_shared(program))
        self.assert_event_arrives(program, prefix, wrap=self.traced)
        self.assert_tree_out_of_sight()

    def pkg_config(self, name, shared):
        self.make_project("pkg_config")
        self.assert_documented("pkg-config", "make", "Makefile")
        env = environment(self.folder, PKG_CONFIG_PATH=self.installed / "lib/pkgconfig")
        run(*self.traced(["make", "-C", str(self.project), "app", f"KESTROVA={name}", f"CXX={self.options.compiler}"]), env=env)
        program = [self.project / "app"]
        self.assertEqual(shared, self.links_shared(program))
        more = {"LD_LIBRARY_PATH": self.installed / "lib"} if shared else {}
        self.assert_event_arrives(program, self.installed, wrap=self.traced, **more)
        self.assert_tree_out_of_sight()

    def test_find_package_static(self):
        self.find_package(self.installed, shared=False)

    def test_find_package_shared(self):
        self.find_package(self.installed, shared=True)

    def test_pkg_config_static(self):
        self.pkg_config("kestrova-static", shared=False)

    def test_pkg_config_shared(self):
        self.pkg_config("kestrova", shared=True)

    def test_c_static(self):
        self.assert_share_arrives(self.c_program("kestrova-static"))

    def test_c_shared(self):
        self.assert_share_arrives(self.c_program("kestrova"), LD_LIBRARY_PATH=self.installed / "lib")

    def test_c_executor(self):
        """The example's main queue takes what comes, also from its own blocks, and runs every block, also after the release."""
        env = environment(self.folder, PKG_CONFIG_PATH=self.installed / "lib/pkgconfig")
        flags = run("pkg-config", "--cflags", "kestrova", env=env).split()
        program = self.folder / "app"
        run(self.options.c_compiler, "-std=gnu99", "-Wall", "-Wextra", "-Werror", self.options.source / "examples/c/app.c",
            HERE / "c_executor/library.c", *flags, "-lpthread", "-o", program, env=env)
        with started([program], env, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as host:
            lines_until(host.stdout, "submitted")
            host.stdin.write("\n")
            host.stdin.close()
            output = host.stdout.read()  # with what was read beyond that line
            self.assertEqual(0, host.wait(LIMIT))
        self.assertEqual([*map(str, range(1, 1001)), "released", "1001", "1002", "1003"], output.splitlines())

    def test_find_package_c(self):
        """A project that has no C++ at all, over the shared library."""
        self.project.mkdir()
        shutil.copy(self.options.source / "examples/c/app.c", self.project / "main.c")
        (self.project / "CMakeLists.txt").write_text(
            (HERE / "find_package/CMakeLists.txt").read_text(encoding="utf-8").replace("CXX", "C").replace("main.cpp", "main.c"),
            encoding="utf-8")
        program = self.build_with_cmake(f"-DCMAKE_PREFIX_PATH={self.installed}", "-DBUILD_SHARED_LIBS=ON", wrap=self.traced)
        self.assertNotIn("CMAKE_CXX_COMPILER:FILEPATH", (self.folder / "build/CMakeCache.txt").read_text(encoding="utf-8"))
        self.assert_share_arrives(program)

    def test_python(self):
        shutil.copytree(self.options.source / "examples/python", self.project)
        self.assert_share_arrives([sys.executable, "-B", self.project / "app.py"], LD_LIBRARY_PATH=self.installed / "lib")

    def test_stays_loaded(self):
        """A program that closes the library goes on, and ends well, with its threads in it."""
        program = self.folder / "closes.py"
        program.write_text((self.options.source / "examples/python/app.py").read_text(encoding="utf-8") + CLOSING, encoding="utf-8")
        self.assertEqual("still there\n", run(sys.executable, "-B", program, "localhost:1", env=environment(
            self.folder, LD_LIBRARY_PATH=self.installed / "lib", SSL_CERT_FILE=self.folder / "none")).split("Press Enter to end.\n")[1])

    def test_guide(self):
        """The program that the guide writes piece by piece, with everything that it says of what happens."""
        self.project.mkdir()
        (self.project / "main.cpp").write_text(blocks_of(self.options.source / "docs/guide.md", "cpp"), encoding="utf-8")
        shutil.copy(HERE / "find_package/CMakeLists.txt", self.project)
        program = self.build_with_cmake(f"-DCMAKE_PREFIX_PATH={self.installed}", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
        gif = self.folder / "cat.gif"
        gif.write_bytes(b"GIF89a")
        with server(self.installed, self.folder) as kestrova_server, transfers(self.installed, self.folder) as more:
            env = environment(self.folder, SSL_CERT_FILE=kestrova_server.authority, **more)
            with started([*program, kestrova_server.host, gif], env, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE) as host:
                trace = lines_until(host.stderr, "Task 1 completed", "Got referral code")
                records = 0  # in one batch or in two
                while records < 2:
                    records += int(re.search(r"(\d+) record", lines_until(kestrova_server.process.stdout, "POST /events"))[1])
                output, more_trace = host.communicate("\n", timeout=LIMIT)
                self.assertEqual(0, host.returncode, trace + more_trace)
            self.assertRegex(output, "^user [A-Za-z0-9]{8}\n$")
            self.assertIn("Starting GIF upload: ", trace)
            entries = kestrova_server.entries()
        self.assertTrue(all(entry["taken"] for entry in entries), entries)
        self.assertEqual({"/events", "/shares", "/gifs"}, {entry["path"] for entry in entries})
        self.assertEqual(["session-started", "gif-viewed"],
                         [record["event"] for entry in entries if entry["path"] == "/events" for record in entry["records"]])
        upload, = (entry for entry in entries if entry["path"] == "/gifs")
        self.assertEqual((6, "BcDeFgHiJ"), (upload["bytes"], upload["shareId"]))
        self.assert_relaunched_for_the_outcome(program, gif)

    def assert_relaunched_for_the_outcome(self, program, gif):
        """The host ends while its upload finds no answer; once the server answers, the host is started again and hears of it."""
        folder = self.folder / "relaunch"
        folder.mkdir()
        with server(self.installed, folder) as kestrova_server, transfers(self.installed, folder) as more:
            env = environment(folder, SSL_CERT_FILE=kestrova_server.authority, **more)
            kestrova_server.misbehave({"drop": 1_000_000})
            with started([*program, kestrova_server.host, gif], env, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE) as host:
                lines_until(kestrova_server.process.stdout, "POST /gifs")
                _, trace = host.communicate("\n", timeout=LIMIT)
                self.assertEqual(0, host.returncode, trace)
            self.assertNotIn("Task 1 completed", trace)
            tail = [self.installed / "bin/kestrova", "--bundle-id", APPLICATION, "tail"]
            with started(tail, env, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as follower:
                lines_until(follower.stderr, "following ")
                kestrova_server.misbehave({"drop": None})
                trace = lines_until(follower.stdout, "Task 1 completed", "Background session completed")
            self.assertRegex(trace, rf"^[^ ]+ \[(?!{host.pid}\])[0-9]+\] Launching in background: ")
            uploads = [entry for entry in kestrova_server.entries() if entry["path"] == "/gifs"]
        self.assertGreaterEqual(len(uploads), 2)
        self.assertEqual([False] * (len(uploads) - 1) + [True], [entry["taken"] for entry in uploads])

    def test_add_subdirectory(self):
        self.make_project("add_subdirectory")
        self.assert_documented("add_subdirectory", "cmake", "CMakeLists.txt")
        # The compiler's cache, where there is one, spares a second run the compiling; it knows the sources by their content.
        cache = {}
        if shutil.which("ccache"):
            cache = {"CCACHE_DIR": run("ccache", "--get-config", "cache_dir").strip(), "CCACHE_BASEDIR": "/", "CCACHE_NOHASHDIR": "1"}
        program = self.build_with_cmake(f"-DKESTROVA_SOURCES={self.options.source}", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", **cache)
        self.assert_event_arrives(program, self.installed)

    def test_debian_package(self):
        run("cpack", "-G", "DEB", "--config", self.options.build / "CPackConfig.cmake", "-B", self.folder / "package",
            "-D", "CPACK_DEBIAN_COMPRESSION_TYPE=none")
        package, = (self.folder / "package").glob("kestrova_*.deb")
        depends = run("dpkg-deb", "-f", package, "Depends")
        for needed in ("libc6", "libcurl4", "libsqlite3-0", "libssl3", "libstdc++6"):
            self.assertRegex(depends, rf"(^|, ){re.escape(needed)}( |,|$)")
        root = self.folder / "root"
        run("dpkg-deb", "-x", package, root)
        self.assertIn("libkestrova 0.1 kestrova (>= 0.1.0)", run("dpkg-deb", "-I", package, "shlibs"))
        unit = (root / "usr/lib/systemd/user/kestrova-transferd.service").read_text(encoding="utf-8")
        self.assertIn("\nExecStart=/usr/bin/kestrova-transferd\n", unit)
        manuals = root / "usr/share/man/man1"
        self.assertEqual({f"{program}.1.gz" for program in PROGRAMS}, {path.name for path in manuals.iterdir()})
        for program in PROGRAMS:
            packed = (manuals / f"{program}.1.gz").read_bytes()
            # Packed as well as can be, and without a name or time, which would make each package another one.
            self.assertEqual(bytes.fromhex("1f8b080000000000 02"), packed[:9])
            source = self.options.source / f"packaging/man/{program}.1"
            self.assertEqual(source.read_bytes(), gzip.decompress(packed))
        self.find_package(root / "usr", shared=True)

    def test_manuals(self):
        """Each installed program has its manual where man looks for it."""
        programs = sorted(path.name for path in (self.installed / "bin").iterdir())
        self.assertEqual(PROGRAMS, programs)
        for program in programs:
            page = run("mandoc", "-T", "ascii", self.installed / f"share/man/man1/{program}.1")
            self.assertIn("SYNOPSIS", re.sub(".\b", "", page))

    def test_demo(self):
        """The installed command shows what it can do with nothing but what is installed."""
        shown = run(self.installed / "bin/kestrova", "demo", env=environment(self.folder))
        self.assertIn("The server's records agree with the input.", shown)

    def test_completion(self):
        """A shell finds the completion by the command's name, as bash-completion looks for it."""
        script = self.installed / "share/bash-completion/completions/kestrova"
        shown = run("bash", "--norc", "-c", 'source "$1"; complete -p kestrova', "bash", script)
        self.assertEqual("complete -F _kestrova kestrova\n", shown)

    def test_refusals(self):
        """What cannot be found is refused in words that tell why."""
        self.project.mkdir()
        cases = {"Kestrova 0.1 REQUIRED COMPONENTS dynamic": "Kestrova has no component dynamic: it has static and shared",
                 "Kestrova 0.2 REQUIRED": 'compatible with requested version "0.2"',
                 "Kestrova 1 REQUIRED": 'compatible with requested version "1"'}
        for wanted, reason in cases.items():
            (self.project / "CMakeLists.txt").write_text(
                f"cmake_minimum_required(VERSION 3.25)\nproject(Refused LANGUAGES NONE)\nfind_package({wanted})\n", encoding="utf-8")
            with self.assertRaises(Failure) as failure:
                run("cmake", "-S", self.project, "-B", self.folder / "build", f"-DCMAKE_PREFIX_PATH={self.installed}")
            self.assertIn(reason, " ".join(str(failure.exception).split()))

    def test_every_public_header(self):
        """A program may include each of the installed headers, and none needs one that is not there."""
        include = self.installed / "include/kestrova"
        headers = sorted(str(path.relative_to(include)) for path in include.rglob("*.h"))
        self.assertLess(30, len(headers))
        (self.folder / "all.cpp").write_text("".join(f'#include "{name}"\n' for name in headers), encoding="utf-8")
        run(self.options.compiler, "-std=c++23", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", "-I", include, self.folder / "all.cpp")


def install(build, note):
    prefix = tempfile.mkdtemp(prefix="kestrova-installed-")
    note.parent.mkdir(parents=True, exist_ok=True)
    note.write_text(prefix, encoding="utf-8")
    # Nothing of an installation may depend on the place that was named when the build was configured.
    run("cmake", "--install", build, "--prefix", prefix)
    unit = (pathlib.Path(prefix) / "lib/systemd/user/kestrova-transferd.service").read_text(encoding="utf-8")
    if f"\nExecStart={prefix}/bin/kestrova-transferd\n" not in unit:
        raise Failure(f"the unit does not name the installed service:\n{unit}")
    page = re.search(r"^Documentation=file:(.*)$", unit, re.MULTILINE)
    if not page or not pathlib.Path(page[1]).is_file():
        raise Failure(f"the unit does not name an installed page:\n{unit}")


def remove(note):
    shutil.rmtree(note.read_text(encoding="utf-8"))
    note.unlink()


def main():
    if sys.argv[1] == "install":
        return install(sys.argv[2], pathlib.Path(sys.argv[3]))
    if sys.argv[1] == "remove":
        return remove(pathlib.Path(sys.argv[2]))
    parser = argparse.ArgumentParser()
    parser.add_argument("way")
    for name in ("build", "note", "source"):
        parser.add_argument(f"--{name}", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--c-compiler", required=True)
    Hosts.options = parser.parse_args()
    suite = unittest.TestSuite([Hosts(f"test_{Hosts.options.way}")])
    return 0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
