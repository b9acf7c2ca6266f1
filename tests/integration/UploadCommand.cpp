// The upload commands over real programs: the command, the development server, the transfer service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/CommandTest.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Files.h"
#include "support/Program.h"

namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Value;
using test::becomes;
using test::contentOf;
using test::DevServer;
using test::Program;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class UploadCommand : public test::CommandTest {
 protected:
  ~UploadCommand() override { endService(); }

  Program::Variables withService(const DevServer* server) {
    Program::Variables all = variables(server);
    all.emplace_back("KESTROVA_TRANSFER_DIR", transfers());
    return all;
  }
  Run command(const std::vector<std::string>& arguments, const DevServer* server) {
    Program program(test::binary("kestrova"), arguments, withService(server));
    program.closeInput();
    return finish(program);
  }

  std::string gifFile(std::size_t bytes = 3'000'000) {
    gif_ = test::gifOf(bytes);
    return file("cat.gif", gif_);
  }
  fs::path gifs() const { return home.path() + "/gifs"; }
  std::vector<std::string> keepGifs(std::vector<std::string> more = {}) const {
    more.insert(more.end(), {"--gifs", gifs().string()});
    return more;
  }
  /// Waits until the server has so much of a GIF, and not all.
  bool waitForPart(std::uintmax_t bytes) const {
    return becomes([&] {
      for (const auto& entry : fs::directory_iterator(gifs())) {
        std::error_code gone;
        const auto size = entry.file_size(gone);
        if (!gone && entry.path().extension() == ".part" && size >= bytes) return true;
      }
      return false;
    });
  }

  std::vector<Dictionary> uploads(const DevServer* server) {
    const Run done = command({"uploads", "--json"}, server);
    EXPECT_EQ(done.end, "exited with 0") << done.errors;
    std::vector<Dictionary> all;
    const auto list = done.report.objectForKey("uploads");
    if (list && list->isArray())
      for (const Value& element : list->array()) all.push_back(element.object());
    return all;
  }
  static std::string text(const Dictionary& object, const char* key) {
    const auto value = object.objectForKey(key);
    return value ? value->description() : "";
  }
  /// Waits until the only upload has that state.
  bool waitForState(const DevServer* server, const std::string& state) {
    return becomes([&] {
      const auto all = uploads(server);
      return all.size() == 1 && text(all[0], "state") == state;
    });
  }
  fs::path support() const { return home.path() + "/home/" + DevServer::kAppId + "/application-support"; }
  std::vector<std::string> uploadFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(support() / "uploads")) names.push_back(entry.path().filename().string());
    return names;
  }
  static std::uint64_t taken(const DevServer& server) {
    std::uint64_t count = 0;
    for (const Dictionary& entry : server.requests()) count += entry.objectForKey("taken") == Value(true) ? 1 : 0;
    return count;
  }

  std::string gif_;
};

TEST_F(UploadCommand, WaitTellsTheServersAnswer) {
  const DevServer server(keepGifs());
  const Run done = command({"upload", gifFile(), "--share-id", "abc", "--user-id", "user", "--wait", "--json"}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(text(done.report, "state"), "delivered");
  EXPECT_EQ(done.number("statusCode"), 200U);
  EXPECT_EQ(contentOf(gifs() / "000001.gif"), gif_);
  EXPECT_EQ(text(server.requests().at(0), "shareId"), "abc");
  EXPECT_THAT(uploadFiles(), IsEmpty());
  const auto all = uploads(&server);
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(text(all[0], "session"), text(done.report, "session"));
  EXPECT_EQ(text(all[0], "shareId"), "abc");
  EXPECT_EQ(all[0].objectForKey("bytes"), Value(3'000'000));
}

TEST_F(UploadCommand, WaitShowsPeople) {
  const DevServer server;
  const Run done = command({"upload", gifFile(), "--share-id", "abc", "--wait"}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_THAT(done.output,
              testing::MatchesRegex("The upload is done: the server answered 200.\nsession [^ ]*GifUpload-[-0-9A-F]+\n"));
  EXPECT_EQ(done.errors, "");  // done before the first line of progress is due
}

TEST_F(UploadCommand, WithoutWaitTheHostsFileMayGoAtOnceAndALaunchTakesTheOutcome) {
  const DevServer server(keepGifs({"--read-rate", "1000000"}));
  const std::string path = gifFile();
  const Run done = command({"upload", path, "--share-id", "abc", "--json"}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(text(done.report, "state"), "waiting");
  ASSERT_TRUE(fs::remove(path));
  ASSERT_TRUE(waitForState(&server, "delivered"));
  EXPECT_EQ(contentOf(gifs() / "000001.gif"), gif_);
  EXPECT_EQ(taken(server), 1U);
  EXPECT_THAT(uploadFiles(), IsEmpty());
  const std::string log = contentOf(support() / "command-launches.log");
  EXPECT_THAT(log, HasSubstr("launched for " + text(done.report, "session")));
  EXPECT_THAT(log, HasSubstr("The upload is done: the server answered 200."));
}

TEST_F(UploadCommand, KilledHalfWayItIsLaunchedForTheOutcome) {
  const DevServer server(keepGifs({"--read-rate", "3000000"}));
  const std::string path = gifFile();
  Program program(test::binary("kestrova"), {"upload", path, "--share-id", "abc", "--wait"}, withService(&server));
  ASSERT_TRUE(waitForPart(1'500'000));
  program.signal(SIGKILL);
  EXPECT_EQ(program.waitForEnd(), "killed by signal 9");
  ASSERT_TRUE(fs::remove(path));
  ASSERT_TRUE(waitForState(&server, "delivered"));
  EXPECT_EQ(contentOf(gifs() / "000001.gif"), gif_);
  EXPECT_EQ(taken(server), 1U);
  EXPECT_THAT(uploadFiles(), IsEmpty());
}

TEST_F(UploadCommand, ListShowsWhatIsUnderWayAndCancelEndsIt) {
  const DevServer server(keepGifs({"--read-rate", "100000"}));
  const Run begun = command({"upload", gifFile(), "--share-id", "abc", "--json"}, &server);
  EXPECT_EQ(begun.end, "exited with 0") << begun.errors;
  ASSERT_TRUE(waitForState(&server, "running"));
  const std::string session = text(begun.report, "session");
  const auto before = uploads(&server);
  EXPECT_EQ(text(before.at(0), "tries"), "1");
  EXPECT_THAT(command({"uploads"}, &server).output, HasSubstr(session + "  running  "));

  const std::string id = session.substr(session.rfind("GifUpload-") + 10);
  const Run cancelled = command({"uploads", "cancel", id}, &server);
  EXPECT_EQ(cancelled.end, "exited with 0") << cancelled.errors;
  EXPECT_EQ(cancelled.output, "The upload " + session + " is cancelled.\n");
  ASSERT_TRUE(waitForState(&server, "failed"));
  const auto after = uploads(&server);
  EXPECT_EQ(after.at(0).objectForKey("error")->objectForKey("code"), Value(-999));
  EXPECT_THAT(uploadFiles(), ElementsAre(session));  // until the sweep
  const Run again = command({"uploads", "cancel", id}, &server);
  EXPECT_EQ(again.end, "exited with 2");
}

TEST_F(UploadCommand, RefusedUploadIsLost) {
  const DevServer server({"--status", "404"});
  const Run done = command({"upload", gifFile(), "--share-id", "abc", "--wait"}, &server);
  EXPECT_EQ(done.end, "exited with 4");
  EXPECT_THAT(done.output, testing::StartsWith("The upload was refused: the server answered 404.\n"));
}

TEST_F(UploadCommand, CertificateThatIsRefusedFailsAtOnce) {
  const DevServer server;
  const DevServer another;
  Program::Variables all = withService(&server);
  all.emplace_back("SSL_CERT_FILE", another.authorityFile());
  Program program(test::binary("kestrova"), {"upload", gifFile(), "--share-id", "abc", "--wait", "--json"}, all);
  program.closeInput();
  const Run done = finish(program);
  EXPECT_EQ(done.end, "exited with 4") << done.errors;
  EXPECT_EQ(text(done.report, "state"), "failed");
  EXPECT_EQ(done.report.objectForKey("error")->objectForKey("code"), Value(-1202));
}

TEST_F(UploadCommand, ServerThatIsAwayKeepsTheUpload) {
  const Run done = command({"upload", gifFile(), "--share-id", "abc", "--wait", "--timeout", "0.5", "--json"}, nullptr);
  EXPECT_EQ(done.end, "exited with 3") << done.errors;
  EXPECT_EQ(text(done.report, "state"), "waiting");
  ASSERT_TRUE(waitForState(nullptr, "waiting"));
  const auto all = uploads(nullptr);
  EXPECT_EQ(all.at(0).objectForKey("error")->objectForKey("code"), Value(-1004));
  EXPECT_TRUE(all.at(0).objectForKey("nextTryAt").has_value());
}

TEST_F(UploadCommand, ServiceThatCannotBeStartedKeepsTheUpload) {
  Program::Variables all = withService(nullptr);
  all.emplace_back("KESTROVA_TRANSFERD", "/nowhere/kestrova-transferd");
  Program program(test::binary("kestrova"), {"upload", gifFile(), "--share-id", "abc", "--json"}, all);
  program.closeInput();
  const Run done = finish(program);
  EXPECT_EQ(done.end, "exited with 3");
  // The platform's own line in the system log comes before or after.
  EXPECT_THAT(done.errors, testing::HasSubstr("kestrova: The transfer service cannot be started: No such file or directory.\n"));
  EXPECT_FALSE(fs::is_empty(transfers() + "/spool"));
}

TEST_F(UploadCommand, ListWithoutAServiceStartsNone) {
  ASSERT_EQ(command({"event", "opened"}, nullptr).end, "exited with 3");
  const Run done = command({"uploads"}, nullptr);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(done.output, (support() / "command-uploads.json").string() + ": 0 uploads; the transfer service is not needed\n");
  EXPECT_FALSE(fs::exists(transfers()));
}

TEST_F(UploadCommand, BadInputIsNamed) {
  const auto said = [&](const std::vector<std::string>& arguments) {
    const Run done = command(arguments, nullptr);
    return done.end + ": " + done.errors;
  };
  const std::string text = file("notes.txt", "GIF88a is none");
  const std::string missing = home.path() + "/missing.gif";
  EXPECT_EQ(said({"upload", text, "--share-id", "a"}),
            "exited with 2: kestrova: " + text + " is no GIF: it begins with neither GIF87a nor GIF89a\n");
  EXPECT_EQ(said({"upload", missing, "--share-id", "a"}),
            "exited with 2: kestrova: cannot read " + missing + ": No such file or directory\n");
  EXPECT_EQ(said({"upload", home.path(), "--share-id", "a"}),
            "exited with 2: kestrova: cannot read " + home.path() + ": Is a directory\n");
  EXPECT_EQ(said({"upload", gifFile(), "--share-id", "a b"}),
            "exited with 2: kestrova: --share-id: 'a b' is no share identifier: letters, digits and -._~ only\n");
  EXPECT_EQ(said({"upload", gifFile()}),
            "exited with 2: kestrova: upload needs --share-id\nRun `kestrova upload --help` to see what it takes.\n");
  EXPECT_EQ(said({"uploads", "cancel", "x"}), "exited with 2: kestrova: no transfer service runs, and no upload waits for one\n");
  EXPECT_EQ(said({"handle-events"}),
            "exited with 2: kestrova: there are no events to handle: the transfer service starts this command\n");
}

}  // namespace
