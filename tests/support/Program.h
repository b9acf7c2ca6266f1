// A program beside a test: started without a shell, with its input fed and its output read line by line.
//
//     test::Program program(test::binary("kestrova"), {"queue", "--json"}, {{"KESTROVA_HOME", home}});
//     EXPECT_EQ(program.waitForEnd(), "exited with 0");
//     EXPECT_EQ(program.output(), "…");
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/Event.h"

namespace test {

/// The path of one of the project's own programs.
std::string binary(std::string_view name);

class Program {
 public:
  using Variables = std::vector<std::pair<std::string, std::string>>;

  /// `variables` are laid over this process's environment. Throws std::runtime_error when the program cannot be started.
  Program(const std::string& path, const std::vector<std::string>& arguments, const Variables& variables = {});
  /// Kills it if it still runs.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t process() const { return process_; }
  /// Writes to its standard input; false when nobody reads that any more.
  bool write(std::string_view text);
  void closeInput();
  void signal(int number) const;

  /// Waits until that many lines are on its standard output; false when it ends, or the limit comes, before.
  [[nodiscard]] bool waitForLines(std::size_t count);
  /// Waits for a line on standard output or standard error that holds the text.
  [[nodiscard]] bool waitForLine(std::string_view text);
  /// Waits for its end: "exited with 0", "killed by signal 9" or "still running at the limit", after which it was killed.
  std::string waitForEnd();

  std::string output() const;
  std::string errors() const;
  std::vector<std::string> outputLines() const;

 private:
  void readAll(int descriptor, std::string& text);

  pid_t process_ = -1;
  int input_ = -1;
  int killed_ = -1;  // readable once the program was killed
  std::string end_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string output_;
  std::string errors_;
  int readersAtWork_ = 2;
  std::thread outputReader_;
  std::thread errorReader_;
};

}  // namespace test
