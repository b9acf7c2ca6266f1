// Starting, watching and stopping of the program kestrova-devserver.
#include "support/DevServer.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "platform/Data.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "platform/linux/SpawnTexts.h"
#include "support/Event.h"
#include "support/Files.h"

extern char** environ;

namespace test {
namespace {

platform::Dictionary parsed(std::string_view text) {
  const auto value = platform::makeRapidJSONSerialization()->read(platform::Data(text));
  if (!value || !value->isObject()) throw std::runtime_error("no JSON object: " + std::string(text));
  return value->object();
}

/// A line of the log begins with its time; other lines are left as they are.
std::string withoutTime(const std::string& line) {
  const bool hasTime = line.size() > 25 && line[10] == 'T' && line[23] == 'Z';
  return hasTime ? line.substr(25) : line;
}

bool mentions(const std::vector<std::string>& arguments, std::string_view option) {
  return std::ranges::find(arguments, option) != arguments.end();
}

/// Waits for the end of a process by its descriptor.
bool hasEndedInTime(pid_t process) {
  const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
  if (descriptor < 0) return false;
  pollfd waiting{descriptor, POLLIN, 0};
  const int ready = ::poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count()));
  ::close(descriptor);
  return ready == 1;
}

}  // namespace

DevServer::DevServer(const std::string& state, const std::vector<std::string>& arguments)
    : state_(state.empty() ? directory_.path() + "/state" : state) {
  std::vector<std::string> all{"--port", "0", "--state", state_};
  if (!mentions(arguments, "--app") && !mentions(arguments, "--apps")) {
    std::ofstream(directory_.path() + "/secret") << kSecret << "\n";
    all.insert(all.end(), {"--app", kAppId, "--secret-file", directory_.path() + "/secret"});
  }
  if (mentions(arguments, "--port")) all.erase(all.begin(), all.begin() + 2);
  all.insert(all.end(), arguments.begin(), arguments.end());
  start(std::move(all));
  readReadyLine();
}

DevServer::~DevServer() {
  if (process_ > 0 && end_.empty()) {
    ::kill(process_, SIGKILL);
    waitForEnd();
  }
  if (reader_.joinable()) reader_.join();
}

void DevServer::start(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), KESTROVA_BIN_DIR "/kestrova-devserver");
  const std::vector<char*> pointers = platform::pointersTo(arguments);

  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  const std::string errorFile = directory_.path() + "/errors";
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int error = ::posix_spawn(&process_, pointers[0], &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  if (error != 0) {
    process_ = -1;
    fault_ = arguments[0] + ": " + std::strerror(error);
  }
  reader_ = std::thread([this, descriptor = pipe[0]] { readLines(descriptor); });
}

void DevServer::readLines(int descriptor) {
  std::string rest;
  std::array<char, 4096> block{};
  ssize_t count = 0;
  while ((count = ::read(descriptor, block.data(), block.size())) > 0 || (count < 0 && errno == EINTR)) {
    if (count > 0) rest.append(block.data(), static_cast<std::size_t>(count));
    std::lock_guard lock(mutex_);
    for (auto end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
      lines_.push_back(withoutTime(rest.substr(0, end)));
      rest.erase(0, end + 1);
    }
    changed_.notify_all();
  }
  ::close(descriptor);
  std::lock_guard lock(mutex_);
  outputEnded_ = true;
  changed_.notify_all();
}

void DevServer::readReadyLine() {
  if (!fault_.empty()) return;
  if (!waitForLine("ready {")) {
    fault_ = "the server is not ready: " + errors();
    return;
  }
  const auto all = lines();
  const auto line = std::ranges::find_if(all, [](const std::string& text) { return text.starts_with("ready {"); });
  const platform::Dictionary ready = parsed(line->substr(6));
  port_ = static_cast<std::uint16_t>(ready.objectForKey("port")->signedInteger());
  authorityFile_ = ready.objectForKey("caFile")->string().view();
}

// A line without its end is still being written.
std::vector<platform::Dictionary> DevServer::requests() const {
  std::vector<platform::Dictionary> entries;
  std::ifstream file(journalFile());
  for (std::string line; std::getline(file, line) && !file.eof();) entries.push_back(parsed(line));
  return entries;
}

std::vector<platform::Value> DevServer::takenRecords() const {
  std::vector<platform::Value> records;
  for (const platform::Dictionary& entry : requests()) {
    const platform::Value* posted = entry.find("records");
    if (!posted || !entry.objectForKey("taken")->boolean()) continue;
    records.insert(records.end(), posted->array().begin(), posted->array().end());
  }
  return records;
}

std::string DevServer::misbehave(const std::string& settings) const {
  HttpsClient client(port_, authorityFile_);
  if (!client.send("POST /dev/behaviour HTTP/1.1\r\nHost: " + host() + "\r\nContent-Length: " + std::to_string(settings.size()) +
                   "\r\n\r\n" + settings))
    return "cannot send: " + client.fault();
  const auto answer = client.read();
  if (!answer) return "no answer";
  return answer->status == 200 ? "" : answer->body;
}

std::vector<std::string> DevServer::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

bool DevServer::waitForLine(std::string_view text) {
  std::unique_lock lock(mutex_);
  const auto isThere = [&] {
    return std::ranges::any_of(lines_, [&](const std::string& line) { return line.find(text) != std::string::npos; });
  };
  changed_.wait_for(lock, kLimit, [&] { return isThere() || outputEnded_; });
  return isThere();
}

std::string DevServer::stop(int signal) {
  if (process_ <= 0) return "not started";
  ::kill(process_, signal);
  return waitForEnd();
}

std::string DevServer::waitForEnd() {
  if (!end_.empty()) return end_;
  if (process_ <= 0) return end_ = "not started";
  if (!hasEndedInTime(process_)) {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    return end_ = "still running at the limit";
  }
  int status = 0;
  ::waitpid(process_, &status, 0);
  // What it wrote last is read too before anybody asks for it.
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, kLimit, [&] { return outputEnded_; });
  return end_ = WIFEXITED(status) ? "exited with " + std::to_string(WEXITSTATUS(status))
                                  : "killed by signal " + std::to_string(WTERMSIG(status));
}

std::string DevServer::errors() const { return contentOf(directory_.path() + "/errors"); }

}  // namespace test
