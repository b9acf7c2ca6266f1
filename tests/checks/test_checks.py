# The checks checked: each rule is broken once in a small tree made for it, and the breach is found where it is and nowhere else.
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import cxx_source  # noqa: E402
import global_constructors  # noqa: E402
import include_rules  # noqa: E402
import named_tests  # noqa: E402
import platform_rows  # noqa: E402
import shared_library  # noqa: E402
import texts  # noqa: E402


class Tree(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


class IncludeRules(Tree):
    def setUp(self):
        super().setUp()
        self.write("src/client/KSVData.h", "#include <memory>\n")
        self.write("src/queue/Closer.h", "#include <cstdint>\n")
        self.write("src/companions/KSVUtils.h", "#include <mutex>\n")
        self.write("src/platform/Data.h", "#include <string>\n")
        self.write("src/platform/linux/Posix.h", "#include <unistd.h>\n")
        self.write("src/devserver/Server.h", "#include <boost/beast.hpp>\n")
        self.write("src/cli/Options.h", "#include <CLI/CLI.hpp>\n")
        self.write("src/transfer/core/Store.h", "#include <vector>\n")
        self.write("tests/support/Doubles.h", "#include <string>\n")

    def found(self):
        return include_rules.breaches(self.root)[0]

    def assert_breach(self, name, line, part):
        """`line` alone in the file `name` is a breach that says `part`; the rest of the tree is in order."""
        self.write(name, "// A file made to break a rule.\n\n" + line + "\n")
        found = self.found()
        self.assertEqual(1, len(found), found)
        self.assertTrue(found[0].startswith(f"{name}:3: "), found)
        self.assertIn(part, found[0])
        (self.root / name).unlink()

    def assert_fine(self, name, text):
        self.write(name, text)
        self.assertEqual([], self.found())
        (self.root / name).unlink()

    def test_a_tree_that_keeps_the_rules_passes(self):
        self.assertEqual([], self.found())

    def test_an_empty_tree_is_not_taken_for_a_good_one(self):
        shutil.rmtree(self.root / "src")
        with self.assertRaises(SystemExit):
            self.found()

    def test_client_rooms_may_include_each_other_companions_and_platform(self):
        for room in include_rules.CLIENT_ROOMS + ("companions",):
            for header in ("client/KSVData.h", "queue/Closer.h", "companions/KSVUtils.h", "platform/Data.h"):
                self.assert_fine(f"src/{room}/File.cpp", f'#include "{header}"\n#include <vector>\n')

    def test_client_rooms_may_not_include_the_real_services_or_the_tools(self):
        for room in include_rules.CLIENT_ROOMS + ("companions",):
            for header in ("platform/linux/Posix.h", "devserver/Server.h", "cli/Options.h", "transfer/core/Store.h"):
                self.assert_breach(f"src/{room}/File.cpp", f'#include "{header}"', f'may not include "{header}"')

    def test_client_rooms_may_not_include_third_party_or_posix_headers(self):
        for room in include_rules.CLIENT_ROOMS + ("companions",):
            for header in ("curl/curl.h", "openssl/evp.h", "rapidjson/reader.h", "fmt/core.h", "unistd.h", "sys/stat.h", "stdint.h"):
                self.assert_breach(f"src/{room}/File.cpp", f"#include <{header}>", f"may not include <{header}>")

    def test_client_rooms_may_not_include_clocks_threads_streams_or_the_system(self):
        for room in include_rules.CLIENT_ROOMS + ("companions",):
            for header in sorted(include_rules.CLOCKS | include_rules.THREADS | include_rules.STREAMS | include_rules.SYSTEM):
                if (room, header) != ("companions", "mutex"):
                    self.assert_breach(f"src/{room}/File.cpp", f"#include <{header}>", f"may not include <{header}>")

    def test_only_a_companion_may_hold_a_mutex(self):
        self.assert_fine("src/companions/File.h", "#include <mutex>\nstd::mutex mutex_;\n")
        for room in include_rules.CLIENT_ROOMS:
            self.assert_breach(f"src/{room}/File.h", "#include <mutex>", "threads or locks")
            self.assert_breach(f"src/{room}/File.h", "std::mutex mutex_;", "holds no lock")

    def test_platform_interfaces_include_themselves_and_the_standard_library(self):
        self.assert_fine("src/platform/File.h", '#include "platform/Data.h"\n#include <chrono>\n#include <mutex>\n')
        for header in ("platform/linux/Posix.h", "companions/KSVUtils.h", "client/KSVData.h", "devserver/Server.h", "cli/Options.h"):
            self.assert_breach("src/platform/File.h", f'#include "{header}"', f'may not include "{header}"')
        for header in ("curl/curl.h", "fcntl.h", "sys/types.h"):
            self.assert_breach("src/platform/File.h", f"#include <{header}>", f"may not include <{header}>")

    def test_real_services_include_anything_but_what_stands_above_the_platform(self):
        self.assert_fine("src/platform/linux/File.cpp", '#include "platform/Data.h"\n#include <curl/curl.h>\n#include <thread>\n')
        for header in ("companions/KSVUtils.h", "client/KSVData.h", "devserver/Server.h", "cli/Options.h"):
            self.assert_breach("src/platform/linux/File.cpp", f'#include "{header}"', f'may not include "{header}"')

    def test_the_transfer_core_stays_over_platform_services(self):
        self.assert_fine("src/transfer/core/File.cpp", '#include "platform/Data.h"\n#include "transfer/core/Store.h"\n')
        self.assert_breach("src/transfer/core/File.cpp", "#include <sqlite3.h>", "may not include <sqlite3.h>")
        self.assert_breach("src/transfer/core/File.cpp", '#include "client/KSVData.h"', "may not include")

    def test_the_c_interface_includes_the_client_and_the_headers_of_c(self):
        self.assert_fine("src/capi/api.h", "// For C.\n#include <stddef.h>\n#include <stdint.h>\n")
        self.assert_fine("src/capi/api.cpp", '#include "client/KSVData.h"\n#include "platform/Data.h"\n#include <mutex>\n')
        for header in ("unistd.h", "curl/curl.h", "stdio.h"):
            self.assert_breach("src/capi/api.cpp", f"#include <{header}>", f"may not include <{header}>")
        self.assert_breach("src/capi/api.cpp", '#include "platform/linux/Posix.h"', 'may not include "platform/linux/Posix.h"')

    def test_tools_may_include_what_they_want_but_tests(self):
        for room in ("devserver", "cli"):
            self.assert_fine(f"src/{room}/File.cpp", '#include "client/KSVData.h"\n#include <unistd.h>\n#include <fmt/core.h>\n')

    def test_nothing_includes_tests(self):
        for room in ("client", "companions", "platform", "platform/linux", "devserver", "cli", "transfer/core"):
            for line in ('"support/Doubles.h"', "<support/Doubles.h>", '"tests/support/Doubles.h"', '"../../tests/support/Doubles.h"',
                         "<gtest/gtest.h>", "<gmock/gmock.h>", '"simulation/Baton.h"'):
                self.assert_breach(f"src/{room}/File.cpp", f"#include {line}", "may not include tests")

    def test_a_name_beside_the_file_is_followed_to_its_room(self):
        self.assert_fine("src/queue/File.cpp", '#include "Closer.h"\n#include "../platform/Data.h"\n')
        self.assert_breach("src/queue/File.cpp", '#include "../platform/linux/Posix.h"', "may not include")

    def test_what_cannot_be_followed_is_a_breach(self):
        self.assert_breach("src/queue/File.cpp", '#include "queue/Missing.h"', "is no file of src/")
        self.assert_breach("src/queue/File.cpp", '#include "../../README.md"', "is no file of src/")
        self.assert_breach("src/queue/File.cpp", "#include SOME_MACRO", "cannot read")

    def test_odd_spellings_are_read(self):
        for line in ("  #  include   <thread>", "#include<thread>", "#include /* why */ <thread>", "#include <thread> // why", "#import <thread>"):
            self.assert_breach("src/queue/File.cpp", line, "may not include <thread>")

    def test_comments_and_texts_are_not_code(self):
        self.assert_fine("src/queue/File.cpp", '// #include <thread>\n/*\n#include <thread>\ncatch (...) noexcept */\nauto t = "noexcept";\n')
        self.assert_fine("src/queue/File.cpp", "auto n = 1'000; // catch (...)\nauto c = '\"'; // noexcept\n")
        self.assert_fine("src/queue/File.cpp", 'auto r = R"x(\ncatch (...) " noexcept\n)x";\n')

    def test_the_client_catches_nothing_that_it_does_not_name(self):
        for room in include_rules.CLIENT_ROOMS:
            self.assert_breach(f"src/{room}/File.cpp", "void f() try {} catch ( ... ) {}", "swallow")
            self.assert_breach(f"src/{room}/File.cpp", "void f() noexcept;", "noexcept")
            self.assert_breach(f"src/{room}/File.cpp", "void f() noexcept(true);", "noexcept")
            self.assert_fine(f"src/{room}/File.cpp", "struct S { ~S() noexcept(false); };\n")

    def test_the_client_reaches_clocks_and_streams_by_no_other_way(self):
        for line in ("auto t = std::chrono::seconds(1);", "std::jthread t;", "std::cerr << 1;", 'printf("x");', 'auto h = getenv("HOME");'):
            self.assert_breach("src/api/File.cpp", line, "come from the platform")

    def test_an_unknown_room_is_a_breach(self):
        self.assert_breach_in_unknown_room("src/attic/File.cpp")
        self.assert_breach_in_unknown_room("src/File.cpp")

    def assert_breach_in_unknown_room(self, name):
        self.write(name, "int i;\n")
        self.assertEqual(1, len(self.found()))
        self.assertIn("is no room", self.found()[0])
        (self.root / name).unlink()


class Texts(Tree):
    def found(self):
        return texts.breaches(self.root)[0]

    def test_good_files_pass(self):
        self.write("src/queue/File.cpp", "// The queue file.\nint i;\n")
        self.write("tools/run", "#!/bin/sh\n# Runs the thing.\n")
        self.write("CMakeLists.txt", "# The build.\n")
        self.write("README.md", "Part 2 of the framework/ lies in its network/ folder; Party 2.1 is specific\n")
        self.assertEqual([], self.found())

    def test_an_empty_tree_is_not_taken_for_a_good_one(self):
        with self.assertRaises(SystemExit):
            self.found()

    def test_each_forbidden_word_is_found_in_any_file(self):
        # Put together here, so that this file holds none of them.
        words = ["Part" + " 2.1", "Parts" + " 2.1 and 3", "spec" + ".md", "the" + " specification", "The" + " specification",
                 "/" + "work/x", "/" + "farm/x"]
        for word in words:
            for name in ("src/queue/File.cpp", "docs/page.md", "data.json", "Makefile"):
                comment = "#" if name == "Makefile" else "//"
                self.write(name, f"{comment} A file of the project.\nbefore {word} after\n")
                self.assertEqual([f"{name}:2"], [":".join(breach.split(":")[:2]) for breach in self.found()], word)
                (self.root / name).unlink()

    def test_a_source_file_without_its_first_line_is_found(self):
        cases = {
            "src/queue/File.cpp": "#pragma once\n",
            "src/queue/File.h": "//\n",
            "src/queue/Empty.h": "",
            "src/queue/OneWord.h": "// File\n",
            "src/CMakeLists.txt": "project(x)\n",
            "tests/x/run.mjs": "import x from 'y';\n",
            "tools/run": "#!/bin/sh\necho\n",
            "tools/run.py": "#!/usr/bin/env python3\nimport os\n",
        }
        for name, text in cases.items():
            self.write(name, text)
            line = 2 if text.startswith("#!") else 1
            self.assertEqual([f"{name}:{line}: the first line is a comment that says what the file is"], self.found())
            (self.root / name).unlink()

    def test_a_lock_file_with_download_addresses_is_found(self):
        self.write("package-lock.json", '{\n"resolved": "https://example.com/a.tgz"\n}\n')
        self.assertEqual(1, len(self.found()))
        self.write("package-lock.json", '{\n"resolved": "folder"\n}\n')
        self.assertEqual([], self.found())

    def test_built_and_installed_files_are_left_out(self):
        self.write("src/queue/File.cpp", "// The queue file.\n")
        self.write("build/dev/x.cpp", "x\n")
        self.write("tests/interop/node_modules/a/index.js", "x\n")
        self.assertEqual([], self.found())


class PlatformRows(Tree):
    def setUp(self):
        super().setUp()
        self.write("src/platform/Value.cpp", "// Values.\n")
        self.write("tests/contract/Values.cpp", "// Keeps platform rows " + " ".join(platform_rows.ROWS) + "\n")
        self.rows = [f"| {row} | A promise. | `platform/Value.cpp` | `contract/Values.cpp` |" for row in platform_rows.ROWS]

    def found(self):
        self.write("docs/platform.md", "# Rows\n\n" + "\n".join(self.rows) + "\n")
        return platform_rows.breaches(self.root)[0]

    def assert_breach(self, index, line, part):
        self.rows[index] = line
        found = self.found()
        self.assertEqual(1, len(found), found)
        self.assertIn(part, found[0])

    def test_a_whole_page_passes(self):
        self.assertEqual([], self.found())

    def test_a_later_row_needs_no_files(self):
        self.rows[0] = "| V1 | A promise. | later | later |"
        self.assertEqual([], self.found())

    def test_a_missing_row_is_found(self):
        self.assert_breach(3, "", "V4: no such row")

    def test_a_doubled_row_is_found(self):
        self.rows.append(self.rows[0])
        self.assertEqual(["docs/platform.md:1: V1: stands more than once"], self.found())

    def test_a_missing_file_is_found(self):
        self.assert_breach(0, "| V1 | A promise. | `platform/None.cpp` | `contract/Values.cpp` |", "src/platform/None.cpp does not exist")
        self.assert_breach(0, "| V1 | A promise. | `platform/Value.cpp` | `contract/None.cpp` |", "tests/contract/None.cpp does not exist")

    def test_a_row_that_names_no_test_is_found(self):
        self.assert_breach(0, "| V1 | A promise. | `platform/Value.cpp` | none |", "names no test")
        self.assert_breach(0, "| V1 | A promise. | `platform/Value.cpp` | later |", "names no test")

    def test_a_test_that_does_not_cite_its_row_is_found(self):
        self.write("tests/contract/Values.cpp", "// Keeps platform rows V10, URLV1 and " + " ".join(platform_rows.ROWS[1:]) + "\n")
        self.assertIn("does not cite the row", " ".join(self.found()))
        self.assertEqual(1, len(self.found()))

    def test_ranges_cite_each_of_their_rows(self):
        self.assertEqual({"J1", "J2", "J3"}, platform_rows.cited_rows("rows J1 to J3"))
        self.assertEqual({"F6"}, platform_rows.cited_rows("TEST_P(Files, F6_ReplaceTakesTheName) {"))
        self.assertEqual({"V4"}, platform_rows.cited_rows("TEST(FormatV4, AbsentAndNull) {"))
        self.assertEqual({"L1"}, platform_rows.cited_rows("TEST(SystemLog, L1EachMessageIsALine) {"))
        self.assertEqual(set(), platform_rows.cited_rows("const auto F6 = 1;"))


class GlobalConstructors(Tree):
    def library(self, code):
        compiler = os.environ.get("CXX") or "g++"
        self.write("file.cpp", code)
        subprocess.run([compiler, "-std=c++20", "-c", "file.cpp", "-o", "file.o"], cwd=self.root, check=True)
        subprocess.run(["ar", "rcs", "library.a", "file.o"], cwd=self.root, check=True)
        return global_constructors.breaches("nm", str(self.root / "library.a"))

    def test_constants_pass(self):
        found, objects = self.library('#include <string_view>\nconstexpr std::string_view kName = "x";\nint count() { return 1; }\n')
        self.assertEqual(([], 1), (found, objects))

    def test_a_global_object_is_found(self):
        self.assertEqual(1, len(self.library('#include <string>\nstd::string name("a text that is longer than the small ones");\n')[0]))

    def test_a_stream_header_s_hidden_object_is_found(self):
        self.assertEqual(1, len(self.library("#include <iostream>\nint f() { return 1; }\n")[0]))


class SharedLibrary(Tree):
    HEADER = """#define KESTROVA_EXPORT __attribute__((visibility("default")))
        struct KESTROVA_EXPORT Shown { int count(); friend KESTROVA_EXPORT bool operator==(Shown, Shown); };
        KESTROVA_EXPORT int start();"""
    SOURCE = """#include "shown.h"
        int Shown::count() { return 1; }
        bool operator==(Shown, Shown) { return true; }
        int start() { return 1; }"""

    def found(self, more="", *options):
        compiler = os.environ.get("CXX") or "g++"
        self.write("shown.h", self.HEADER)
        self.write("file.cpp", self.SOURCE + "\n" + more + "\n")
        options = options or ("-Wl,-soname,libkestrova.so.1.2", "-Wl,-z,nodelete")
        for command in ([compiler, "-c", "-fPIC", "-fvisibility=hidden", "file.cpp", "-o", "file.o"],
                        [compiler, "-shared", "file.o", *options, "-o", "lib.so"], ["ar", "rcs", "lib.a", "file.o"]):
            subprocess.run(command, cwd=self.root, check=True)
        library, archive = str(self.root / "lib.so"), str(self.root / "lib.a")
        found, names = shared_library.breaches("nm", "readelf", library, archive, "1.2.3", [self.root / "shown.h"])
        self.assertLess(2, names)
        return [breach.split(": ", 1)[1] for breach in found]

    def test_a_library_that_shows_what_its_headers_mark_passes(self):
        self.assertEqual([], self.found())

    def test_a_name_that_no_header_marks_is_found(self):
        self.assertEqual(["shows a name that no public header marks: leaked()"], self.found("KESTROVA_EXPORT int leaked() { return 1; }"))
        self.assertEqual(["shows a name that no public header marks: Other::leaked()"],
                         self.found("struct KESTROVA_EXPORT Other { int leaked(); }; int Other::leaked() { return 1; }"))

    def test_a_marked_function_that_is_not_shown_is_found(self):
        self.HEADER += "KESTROVA_EXPORT int forgotten();"
        self.assertEqual(["does not show what a public header marks: forgotten"], self.found())

    def test_an_operation_that_is_not_shown_is_found(self):
        self.HEADER += 'struct KESTROVA_EXPORT Half { __attribute__((visibility("hidden"))) int other(); };'
        self.assertEqual(["does not show an operation of a marked class: Half::other()"], self.found("int Half::other() { return 1; }"))

    def test_a_global_constructor_is_found(self):
        for code in ("static int answer = start();", "__attribute__((constructor)) static void before() {}"):
            self.assertEqual(["runs 1 functions of its own before main"], self.found(code))

    def test_a_library_that_can_be_unloaded_is_found(self):
        self.assertEqual(["can be unloaded while its threads run: link it with -z nodelete"],
                         self.found("", "-Wl,-soname,libkestrova.so.1.2"))

    def test_another_name_and_none_are_found(self):
        for options in (["-Wl,-soname,libkestrova.so.1.3"], []):
            self.assertEqual(["is not named libkestrova.so.1.2"], self.found("", "-Wl,-z,nodelete", *options))


class NamedTests(Tree):
    def test_names_that_are_there_pass_and_others_are_found(self):
        self.write("tests/a/One.cpp", "TEST(One, Works) {}\nTEST_P(Two, Works) {}\n")
        suites = named_tests.tests_below(self.root / "tests")
        self.assertEqual([], named_tests.faults("`One.Works`, `Two.*`, `file.json`\n", suites))
        found = named_tests.faults("fine\n`One.Fails` and `Three.*`\n", suites)
        self.assertEqual(["line 2: no test is called One.Fails", "line 2: no test is called Three.*"], found)


class CxxSource(unittest.TestCase):
    def test_lines_stay_where_they_are(self):
        text = '/* a\nb */ int x; // c \\\n still c\nauto s = "// no";\n'
        code = cxx_source.without_comments(text)
        self.assertEqual(text.count("\n"), code.count("\n"))
        self.assertEqual(["", "     int x;", "", 'auto s = "// no";'], [line.rstrip() for line in code.splitlines()])


if __name__ == "__main__":
    unittest.main()
