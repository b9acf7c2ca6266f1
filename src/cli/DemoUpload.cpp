// The chapter about uploads, with real processes on all three sides.
#include "cli/DemoUpload.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

#include "cli/DemoGif.h"
#include "cli/Report.h"
#include "platform/JSONSerialization.h"
#include "platform/linux/DetachedProgram.h"
#include "platform/linux/FileDescriptor.h"

namespace cli {
namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Value;

constexpr std::uint16_t kWidth = 480;   // pixels
constexpr std::uint16_t kHeight = 360;  // pixels
constexpr int kFrames = 24;
constexpr std::chrono::seconds kLimit{60};
constexpr std::chrono::milliseconds kLook{10};

void require(bool condition, const std::string& reason) {
  if (!condition) throw std::runtime_error(reason);
}

/// `interruption` is absent for what has to be done on the way out.
void waitFor(const std::string& what, const Interruption* interruption, const std::function<bool()>& condition) {
  for (const auto limit = std::chrono::steady_clock::now() + kLimit; !condition(); std::this_thread::sleep_for(kLook)) {
    if (interruption) interruption->heed();
    require(std::chrono::steady_clock::now() < limit, what + " did not come within a minute");
  }
}

std::string contentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::optional<Dictionary> objectIn(std::string_view text) {
  const auto value = platform::JSONSerialization::JSONObjectWithData(platform::Data(text));
  return value && value->isObject() ? std::optional(value->object()) : std::nullopt;
}

std::string textIn(const Dictionary& object, const char* key) {
  const Value* value = object.find(key);
  return value && value->isString() ? std::string(value->string().view()) : "";
}

class Chapter {
 public:
  explicit Chapter(const UploadDemo& demo) : demo_(demo) {}
  void run() {
    const fs::path file = demo_.folder / "cat.gif";
    const std::string gif = makeAnimatedGif(kWidth, kHeight, kFrames);
    std::ofstream(file, std::ios::binary) << gif;
    printLine(fmt::format("    {} is an animated GIF of {} frames and {} bytes", file.filename().string(), kFrames, gif.size()));

    killHalfWay(file, gif.size());
    require(fs::remove(file), "the host's copy cannot be deleted");
    printLine("    the host deleted its own copy");

    Dictionary upload;
    waitFor("the outcome", demo_.interruption, [&] { return textIn(upload = onlyUpload(), "state") == "delivered"; });
    compare(gif);
    showLaunch(textIn(upload, "session"));
  }

  void endProcesses() {
    bool wasAny = false;
    do {
      wasAny = endLaunchedProcesses();
      endService();
    } while (wasAny);
  }

 private:
  std::unique_ptr<ChildProcess> start(const std::string& program, const std::vector<std::string>& arguments,
                                      const std::string& output) {
    return std::make_unique<ChildProcess>((demo_.programs / program).string(), arguments, demo_.environment,
                                          (demo_.folder / output).string());
  }
  std::unique_ptr<ChildProcess> kestrova(const std::vector<std::string>& command, const std::string& output) {
    std::vector<std::string> arguments = demo_.options;
    arguments.insert(arguments.end(), command.begin(), command.end());
    return start("kestrova", arguments, output);
  }

  /// The bytes that the server has of a GIF that has not come whole.
  std::uintmax_t partAtServer() const {
    std::error_code gone;
    for (const auto& entry : fs::directory_iterator(demo_.gifs, gone)) {
      const auto size = entry.path().extension() == ".part" ? entry.file_size(gone) : 0;
      if (!gone && size > 0) return size;
    }
    return 0;
  }

  void killHalfWay(const fs::path& file, std::size_t bytes) {
    printLine("  $ kestrova upload cat.gif --share-id demo-share --wait");
    auto application = kestrova({"upload", file.string(), "--share-id", "demo-share", "--wait"}, "upload-output");
    std::uintmax_t there = 0;
    waitFor("the half of the GIF", demo_.interruption, [&] {
      require(!application->hasEnded(),
              "the upload ended before half of it was there: " + contentOf(demo_.folder / "upload-output"));
      return (there = partAtServer()) >= bytes / 2;
    });
    application.reset();  // kill -9
    require(partAtServer() > 0, "the GIF was there before the application could be killed");
    printLine(fmt::format("    killed with kill -9 when the server had {} bytes", there));
  }

  Dictionary onlyUpload() {
    require(kestrova({"uploads"}, "uploads-output")->wait() == 0, "the uploads cannot be listed");
    const auto report = objectIn(contentOf(demo_.folder / "uploads-output"));
    require(report.has_value(), "the list of uploads is no JSON object");
    const auto list = report->objectForKey("uploads");
    require(list && list->isArray() && list->count() == 1, "there is not one upload");
    Dictionary upload = list->array().begin()->object();
    const std::string state = textIn(upload, "state");
    require(state != "failed" && state != "refused", "the upload " + state + ": " + Value(upload).description());
    return upload;
  }

  std::vector<Dictionary> entriesTaken() const {
    std::vector<Dictionary> taken;
    std::ifstream journal(demo_.journal);
    for (std::string line; std::getline(journal, line);) {
      const auto entry = objectIn(line);
      if (entry && textIn(*entry, "path") == "/gifs" && entry->objectForKey("taken") == Value(true)) taken.push_back(*entry);
    }
    return taken;
  }

  void compare(const std::string& gif) const {
    const auto taken = entriesTaken();
    require(taken.size() == 1, fmt::format("the server took the GIF {} times", taken.size()));
    require(textIn(taken[0], "shareId") == "demo-share", "the server took it for another share");
    require(contentOf(demo_.gifs / textIn(taken[0], "file")) == gif, "the server's file is not the one that was given");
    printLine(fmt::format("    the server's {} is byte for byte the one given, SHA-256 {}", textIn(taken[0], "file"),
                          textIn(taken[0], "sha256")));
  }

  /// What the launched process wrote down.
  void showLaunch(const std::string& session) const {
    const std::string log = contentOf(launchLog());
    require(log.find("launched for " + session) != std::string::npos, "the application was not launched for " + session);
    require(log.find("The upload is done: the server answered 200.") != std::string::npos,
            "the launched application saw no success");
    const fs::path uploads = demo_.application / "application-support/uploads";
    require(fs::is_empty(uploads), "an upload file was left behind");
    printLine("    the service launched the application for " + session);
    printLine("    it was told: The upload is done: the server answered 200.");
  }

  fs::path launchLog() const { return demo_.application / "application-support/command-launches.log"; }

  /// One that still lived when its service is gone would have another one started. False when there was none.
  bool endLaunchedProcesses() const {
    bool wasAny = false;
    std::istringstream log(contentOf(launchLog()));
    for (std::string line; std::getline(log, line);) {
      std::istringstream words(line);
      std::string time;
      pid_t process = 0;
      words >> time >> process;
      if (!words) continue;
      const auto end = platform::descriptorOfProcess(process);
      std::error_code gone;
      // It may have ended long ago, and its number be another program's.
      if (!end || fs::read_symlink(fmt::format("/proc/{}/exe", process), gone) != demo_.programs / "kestrova") continue;
      wasAny = true;
      endProcess(process, *end);
    }
    return wasAny;
  }

  static void endProcess(pid_t process, const platform::FileDescriptor& end) {
    (void)kill(process, SIGTERM);
    pollfd ended{end.get(), POLLIN, 0};
    require(poll(&ended, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count())) == 1,
            fmt::format("process {} did not end within a minute", process));
  }

  /// Who stops the demo early may do so while a command is starting the service. So one is started here: when that is done, there
  /// is one and it can be asked who it is, whoever of the two has started it.
  void endService() {
    require(start("kestrova-transferd", {"--background"}, "service-output")->wait() == 0, "it cannot be asked");
    require(start("kestrova-transferd", {"--status"}, "service-status")->wait() == 0, "it does not answer");
    const std::string said = contentOf(demo_.folder / "service-status");
    const auto at = said.find("process ");
    require(at != std::string::npos, "it said: " + said);
    const pid_t service = static_cast<pid_t>(std::stol(said.substr(at + 8)));
    if (const auto end = platform::descriptorOfProcess(service)) endProcess(service, *end);
  }

  const UploadDemo& demo_;
};

}  // namespace

std::optional<std::string> showUpload(const UploadDemo& demo) {
  try {
    Chapter(demo).run();
  } catch (const std::exception& failure) {
    return failure.what();
  }
  return std::nullopt;
}

void endUploads(const UploadDemo& demo) {
  try {
    Chapter(demo).endProcesses();
  } catch (const std::exception& failure) {
    printError(std::string("the demo's transfer service goes on until it is idle: ") + failure.what());
  }
}

}  // namespace cli
