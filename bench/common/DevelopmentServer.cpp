// Starting the server, and what its ready file says.
#include "common/DevelopmentServer.h"

#include <sched.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "platform/Process.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

void keepToProcessor(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  sched_setaffinity(0, sizeof set, &set);  // threads and children made from here on inherit it
}

}  // namespace

DevelopmentServer::DevelopmentServer(const std::vector<std::string>& moreArguments) {
  std::string name = (fs::temp_directory_path() / "kestrova-bench-XXXXXX").string();
  if (!mkdtemp(name.data())) throw std::runtime_error("cannot make a temporary folder");
  folder_ = name;
  std::ofstream(folder_ / "apps.json") << "{\"" << kApplication << "\": \"" << kSecret << "\"}";
  std::vector<std::string> arguments = {"--port",       "0",
                                        "--state",      (folder_ / "state").string(),
                                        "--apps",       (folder_ / "apps.json").string(),
                                        "--ready-file", (folder_ / "ready").string()};
  arguments.insert(arguments.end(), moreArguments.begin(), moreArguments.end());
  keepToProcessor(1);
  process_ = std::make_unique<cli::ChildProcess>(std::string(KESTROVA_BIN_DIR) + "/kestrova-devserver", arguments,
                                                 cli::Environment{}, "/dev/null");
  keepToProcessor(0);
  while (!fs::exists(folder_ / "ready")) {
    if (process_->hasEnded()) throw std::runtime_error("the development server did not start");
    std::this_thread::yield();
  }
  readReadyFile();
}

DevelopmentServer::~DevelopmentServer() {
  process_.reset();
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void DevelopmentServer::readReadyFile() {
  std::ifstream file(folder_ / "ready");
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const auto ready = platform::makeSystemProcess({})->json->read(platform::Data(text)).value();
  host_ = "localhost:" + std::to_string(ready.objectForKey("port")->integerValue());
  caFile_ = ready.objectForKey("caFile")->string().view();
  setenv("SSL_CERT_FILE", caFile_.c_str(), 1);
}

}  // namespace bench
