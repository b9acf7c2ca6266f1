// A small host application in a process of its own, which uploads GIFs, writes down every outcome that its client sees, and can be
// made to die at any step of that. A test program that calls runUploadingApplication for the arguments below is that application:
//
//     int main(int argc, char** argv) {
//       if (const auto status = test::runUploadingApplication(argc, argv)) return *status;
//       …
//
// Started by a person it takes commands from standard input, "upload <path> <share>" one a line, takes up all sessions that the
// application has ever made, and ends with its input. Launched by the transfer service it takes up the one session and ends when
// its events are delivered. One of them works at a time, the others wait.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Process.h"

namespace test {

/// Where such an application and its service keep everything.
struct ApplicationPlace {
  std::string root;

  std::string home() const { return root + "/home"; }
  std::string transfers() const { return root + "/transfers"; }
  std::string log() const { return root + "/log"; }
  /// Names the step at which the next application to come there dies: "step", or "step both" for the service as well.
  std::string death() const { return root + "/death"; }
  /// Read-locked by every process of the application that lives; without it none comes to life.
  std::string alive() const { return root + "/alive"; }
  /// Write-locked by the one that works.
  std::string working() const { return root + "/working"; }

  /// The program that is started as the service: a link that the test makes. While it is missing no service can be started.
  std::string serviceProgram() const { return root + "/transferd"; }

  std::string uploads() const;
  std::vector<std::string> command(const std::string& apiHost) const;
  platform::SystemOptions options(const std::string& apiHost) const;
  /// A process that holds a lock on the file; 0 when none does.
  static pid_t holderOf(const std::string& lockFile);
  /// The service that listens; 0 when none does.
  pid_t service() const;
};

/// A line of the log. The words, each said for a session, in the order in which they come: "starting" (with its share), "accepted",
/// "begun" (a delegate operation for a task), "completed" or "failed" (what the client's trace says of the task), "returned" (the
/// operation), "finished" (the stored events are delivered); and for no session "dies" (with the step), "says" (to the system log)
/// and "left". Each line begins with the time, in milliseconds of the steady clock.
struct ApplicationRecord {
  pid_t process = 0;
  std::string word;
  std::string session;
  std::string detail;  // task, share or step

  bool isOutcome() const { return word == "completed" || word == "failed"; }
};

std::vector<ApplicationRecord> readLog(const ApplicationPlace& place);

/// The exit status, once it has done its work; absent when the arguments are not those of the application.
std::optional<int> runUploadingApplication(int argc, char** argv);
/// Dies here when a test wants it; nothing in a process that is not the application. Steps of the application itself: "launched",
/// "resumed", "operation-begins", "operation-returned", "finished"; a program may add its own.
void reachStep(std::string_view step);

}  // namespace test
