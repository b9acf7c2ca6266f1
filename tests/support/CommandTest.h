// The kestrova command beside a test: run with a home of its own, its report read.
//
//     class Command : public test::CommandTest {};
//     TEST_F(Command, Status) {
//       const Run done = run({"--json", "status"});
//       EXPECT_EQ(done.end, "exited with 0") << done.errors;
//     }
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"

namespace test {

class CommandTest : public testing::Test {
 protected:
  struct Run {
    std::string end;
    std::string output;
    std::string errors;
    platform::Dictionary report;  // with --json

    std::uint64_t number(std::string_view key) const {
      const auto value = report.objectForKey(key);
      return value ? static_cast<std::uint64_t>(value->integerValue()) : ~std::uint64_t{0};
    }
  };

  std::string file(const std::string& name, std::string_view text) {
    const std::string path = home.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  Program::Variables variables(const DevServer* server) {
    Program::Variables all{{"KESTROVA_BUNDLE_ID", DevServer::kAppId},
                           {"KESTROVA_HOME", home.path() + "/home"},
                           {"KESTROVA_SECRET", DevServer::kSecret},
                           {"KESTROVA_API_HOST", server ? server->host() : "localhost:1"}};
    if (server) all.emplace_back("SSL_CERT_FILE", server->authorityFile());
    return all;
  }

  Run finish(Program& program) {
    Run result;
    result.end = program.waitForEnd();
    result.output = program.output();
    result.errors = program.errors();
    const auto value = platform::makeRapidJSONSerialization()->read(platform::Data(result.output));
    if (value && value->isObject()) result.report = value->object();
    return result;
  }
  Run run(const std::vector<std::string>& arguments, const DevServer* server = nullptr, Program::Variables more = {}) {
    Program::Variables all = variables(server);
    all.insert(all.end(), more.begin(), more.end());
    Program program(binary("kestrova"), arguments, all);
    program.closeInput();
    return finish(program);
  }

  /// The transfer service's folder, for tests that have one.
  std::string transfers() const { return home.path() + "/transfers"; }
  /// The service of this test's folder; 0 when none runs.
  pid_t serviceProcess() const {
    Program status(binary("kestrova-transferd"), {"--status"}, {{"KESTROVA_TRANSFER_DIR", transfers()}});
    const bool isRunning = status.waitForEnd() == "exited with 0";
    const std::string said = status.output();
    return isRunning ? static_cast<pid_t>(std::stol(said.substr(said.find("process ") + 8))) : 0;
  }
  /// It has to end before its folder goes.
  void endService() const {
    if (const pid_t service = serviceProcess(); service > 0) ::kill(service, SIGTERM);
    EXPECT_TRUE(becomes([&] { return serviceProcess() == 0; }));
  }

  TemporaryDirectory home;
};

}  // namespace test
