// Starting, feeding and watching of programs.
#include "support/Program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

#include "platform/linux/SpawnTexts.h"
#include "support/ChildProcess.h"

namespace test {
namespace {

struct Pipe {
  int reading = -1;
  int writing = -1;
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    reading = ends[0];
    writing = ends[1];
  }
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

std::string binary(std::string_view name) { return std::string(KESTROVA_BIN_DIR) + "/" + std::string(name); }

Program::Program(const std::string& path, const std::vector<std::string>& arguments, const Variables& variables)
    : killed_(eventfd(0, EFD_CLOEXEC)) {
  std::vector<std::string> texts{path};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = platform::environmentWith({variables.rbegin(), variables.rend()});  // the last counts
  const Pipe input;
  const Pipe output;
  const Pipe errors;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.reading, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.writing, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors.writing, STDERR_FILENO);
  const int failure = posix_spawnp(&process_, path.c_str(), &actions, nullptr, platform::pointersTo(texts).data(),
                                   platform::pointersTo(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  for (const int end : {input.reading, output.writing, errors.writing}) close(end);
  input_ = input.writing;
  if (failure != 0) throw std::runtime_error("cannot start " + path);

  outputReader_ = std::thread([this, reading = output.reading] { readAll(reading, output_); });
  errorReader_ = std::thread([this, reading = errors.reading] { readAll(reading, errors_); });
}

Program::~Program() {
  if (end_.empty()) {
    kill(process_, SIGKILL);
    waitForEnd();
  }
  closeInput();
  close(killed_);
}

void Program::readAll(int descriptor, std::string& text) {
  std::array<char, 4096> buffer;
  while (true) {
    // What a killed program has started may hold the other end for ever; what is there by then is read.
    std::array<pollfd, 2> polled{pollfd{descriptor, POLLIN, 0}, pollfd{killed_, POLLIN, 0}};
    if (poll(polled.data(), polled.size(), -1) < 0) continue;
    const ssize_t count = polled[0].revents != 0 ? read(descriptor, buffer.data(), buffer.size()) : 0;
    if (count < 0 && errno == EINTR) continue;
    const std::lock_guard lock(mutex_);
    if (count <= 0) {
      --readersAtWork_;
      changed_.notify_all();
      break;
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
    changed_.notify_all();
  }
  close(descriptor);
}

bool Program::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(input_, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void Program::closeInput() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

void Program::signal(int number) const { kill(process_, number); }

bool Program::waitForLines(std::size_t count) {
  std::unique_lock lock(mutex_);
  const auto arrived = [&] { return static_cast<std::size_t>(std::ranges::count(output_, '\n')) >= count; };
  changed_.wait_for(lock, kLimit, [&] { return arrived() || readersAtWork_ == 0; });
  return arrived();
}

bool Program::waitForLine(std::string_view text) {
  std::unique_lock lock(mutex_);
  const auto arrived = [&] { return output_.find(text) != std::string::npos || errors_.find(text) != std::string::npos; };
  changed_.wait_for(lock, kLimit, [&] { return arrived() || readersAtWork_ == 0; });
  return arrived();
}

std::string Program::waitForEnd() {
  if (!end_.empty()) return end_;
  end_ = test::waitForEnd(process_);
  // A program that ends by itself may leave its output to another one, which is read to its end.
  if (!end_.starts_with("exited")) (void)eventfd_write(killed_, 1);
  outputReader_.join();
  errorReader_.join();
  return end_;
}

std::string Program::output() const {
  const std::lock_guard lock(mutex_);
  return output_;
}
std::string Program::errors() const {
  const std::lock_guard lock(mutex_);
  return errors_;
}
std::vector<std::string> Program::outputLines() const { return linesOf(output()); }

}  // namespace test
