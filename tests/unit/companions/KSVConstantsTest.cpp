// The external constants, and the source file that the build generates for them.
#include "companions/KSVConstants.h"

#include <cstdio>
#include <string>
#include <utility>

#include "CompanionsTest.h"
#include "platform/Exception.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using Constant = const std::string& (*)();

std::string raiseOf(Constant constant) {
  try {
    return "yields " + constant();
  } catch (const platform::Exception& exception) {
    return exception.name() + ": " + exception.reason();
  }
}

TEST_F(CompanionsTest, ConstantsAreReadFromTheProcessRecord) {
  process.constants = {"started", "matched", "skew", "7", "api.example.com:8443"};
  EXPECT_EQ(kSessionStartedKey(), "started");
  EXPECT_EQ(kDidCookieMatchKey(), "matched");
  EXPECT_EQ(kHawkLocalTimeSkew(), "skew");
  EXPECT_EQ(kAPIVersionString(), "7");
  EXPECT_EQ(kAPIHost(), "api.example.com:8443");
}

TEST_F(CompanionsTest, AConstantThatWasNotSetRaisesAndIsNamed) {
  EXPECT_EQ(raiseOf(kSessionStartedKey), "NSInternalInconsistencyException: kSessionStartedKey is used before it was set");
  EXPECT_EQ(raiseOf(kDidCookieMatchKey), "NSInternalInconsistencyException: kDidCookieMatchKey is used before it was set");
  EXPECT_EQ(raiseOf(kHawkLocalTimeSkew), "NSInternalInconsistencyException: kHawkLocalTimeSkew is used before it was set");
  EXPECT_EQ(raiseOf(kAPIVersionString), "NSInternalInconsistencyException: kAPIVersionString is used before it was set");
  EXPECT_EQ(raiseOf(kAPIHost), "NSInternalInconsistencyException: kAPIHost is used before it was set");
}

TEST_F(CompanionsTest, AnEmptyConstantIsSet) {
  process.constants.apiHost = "";
  EXPECT_EQ(kAPIHost(), "");
}

/// Exit status and everything that was written.
std::pair<int, std::string> run(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return {-1, "popen failed"};
  std::string output;
  char buffer[4096];
  for (std::size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
  return {pclose(pipe), output};
}

std::string configuration(const TemporaryDirectory& folder, const std::string& options) {
  return "cmake -S " KESTROVA_SOURCE_DIR "/tests/package/constants -B " + folder.path() +
         " -DKESTROVA_SOURCE_DIR=" KESTROVA_SOURCE_DIR " " + options;
}

TEST(GeneratedConstants, HoldWhatTheBuildWasGiven) {
  const TemporaryDirectory folder;
  const auto [configured, configureOutput] =
      run(configuration(folder, "-DHOST_API_HOST=api.example.com:8443 '-DMORE_ARGUMENTS=API_VERSION;2'"));
  ASSERT_EQ(configured, 0) << configureOutput;
  const auto [built, buildOutput] = run("cmake --build " + folder.path());
  ASSERT_EQ(built, 0) << buildOutput;
  const auto [status, printed] = run(folder.path() + "/host");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(printed, "api.example.com:8443\n2\n(absent)\nmatched (by cookie) $ %s\n(absent)\n");
}

TEST(GeneratedConstants, AreRefusedWhenTheyCouldBreakTheSourceFile) {
  for (const char* options :
       {"-DHOST_API_HOST=", "-DHOST_API_HOST=api.example.com/path", "'-DHOST_API_HOST=a\"b'",
        "-DHOST_API_HOST=a '-DMORE_ARGUMENTS=API_VERSION;1\"2'", "-DHOST_API_HOST=a '-DMORE_ARGUMENTS=API_VERISON;1'"}) {
    const TemporaryDirectory folder;
    const auto [status, output] = run(configuration(folder, options));
    EXPECT_NE(status, 0) << options;
    EXPECT_NE(output.find("kestrova_constants: "), std::string::npos) << options << "\n" << output;
  }
}

}  // namespace
}  // namespace test
