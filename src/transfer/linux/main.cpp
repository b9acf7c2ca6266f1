// kestrova-transferd: the transfer service of one user. docs/transfer-service.md says how it works.
#include <fcntl.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "platform/Exception.h"
#include "platform/Process.h"
#include "platform/SystemLog.h"
#include "platform/linux/StandardDescriptors.h"
#include "transfer/linux/Daemon.h"
#include "transfer/linux/DieAt.h"
#include "transfer/linux/Options.h"
#include "transfer/linux/SQLiteStore.h"
#include "transfer/linux/Startup.h"

namespace {

using platform::FileDescriptor;
using platform::TransferDirectory;

constexpr int kFailed = 1;
constexpr int kNotRunning = 3;  // as service managers have it for a status

int fail(const std::string& reason) {
  platform::SystemLog::systemLog().log("kestrova-transferd: " + reason);
  return kFailed;
}

void say(const std::string& line) {
  std::puts(line.c_str());
  (void)std::fflush(stdout);  // whoever does not read it does not want it
}

/// What ends the service is waited for with everything else; every thread made after this inherits the mask.
void blockSignals() {
  sigset_t stopping;
  sigemptyset(&stopping);
  for (const int number : {SIGTERM, SIGINT}) {
    (void)signal(number, SIG_DFL);
    sigaddset(&stopping, number);
  }
  (void)pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
}

std::string runsAlready(pid_t process) { return "kestrova-transferd runs already, as process " + std::to_string(process); }

/// What is reported when all is well; any other text says why it is not.
constexpr const char* kServes = "serves";

/// Gives the text to whoever waits at the other end, and lets go of it.
void report(FileDescriptor& waiting, const std::string& text) {
  if (waiting.isOpen()) (void)waiting.writeAll(text);
  (void)waiting.close();
}

/// `waiting` is the end of a pipe on which somebody waits for the service to listen; closed when nobody does.
int serve(const TransferDirectory& directory, const transfer::Options& options, FileDescriptor waiting) {
  const auto failed = [&waiting](const platform::Error& error) {
    report(waiting, error.localizedDescription());
    return fail(error.localizedDescription());
  };
  const auto lock = transfer::takeLock(directory);
  if (!lock) return failed(lock.error());
  if (!lock->isOpen()) {
    report(waiting, kServes);
    if (!options.background) say(runsAlready(transfer::answeringService(directory).value_or(0)));
    return EXIT_SUCCESS;
  }
  blockSignals();
  const auto store = transfer::SQLiteStore::open(directory.store());
  if (!store) return failed(store.error());
  transfer::Daemon daemon(directory, **store, options);
  const auto ended = daemon.run([&waiting] { report(waiting, kServes); });
  if (!ended) return failed(ended.error());
  return EXIT_SUCCESS;
}

/// In the child: leaves the caller's session, terminal, folder and descriptors behind. The first child ends, so that the service
/// can never get a terminal again.
void detach() {
  (void)setsid();
  if (const pid_t second = fork(); second != 0) _exit(second < 0 ? kFailed : EXIT_SUCCESS);
  (void)chdir("/");
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) return;  // better a service that keeps the caller's descriptors than none
  for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) (void)dup2(null, standard);
}

std::string allFrom(const FileDescriptor& pipe) {
  std::string text;
  char piece[512];
  for (ssize_t count = 0; (count = read(pipe.get(), piece, sizeof piece)) > 0;) text.append(piece, static_cast<std::size_t>(count));
  return text;
}

int serveInBackground(const TransferDirectory& directory, const transfer::Options& options) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return fail("no pipe for the start in the background");
  FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  const pid_t child = fork();
  if (child < 0) return fail("no process for the start in the background");
  if (child == 0) {
    (void)reading.close();
    detach();
    return serve(directory, options, std::move(writing));
  }
  (void)writing.close();
  (void)waitpid(child, nullptr, 0);
  const std::string word = allFrom(reading);
  if (word == kServes) return EXIT_SUCCESS;
  return fail(word.empty() ? "the service ended before it listened" : word);
}

int showStatus(const TransferDirectory& directory) {
  const auto process = transfer::answeringService(directory);
  say(process ? "running, as process " + std::to_string(*process) + ", in " + directory.path()
              : "not running, in " + directory.path());
  return process ? EXIT_SUCCESS : kNotRunning;
}

int run(const transfer::Options& options) {
  // It launches programs and reads files on the word of its user; with anybody else's rights that would be a gift.
  if (getauxval(AT_SECURE) != 0 || getuid() != geteuid()) return fail("does not run with more rights than its user's");
  const auto path = options.directory ? options.directory : TransferDirectory::pathFromEnvironment();
  if (!path) return fail("there is no home directory, and KESTROVA_TRANSFER_DIR is not set");
  const auto directory = TransferDirectory::open(*path);
  if (!directory) return fail(directory.error().localizedDescription());
  if (options.status) return showStatus(*directory);
  return options.background ? serveInBackground(*directory, options) : serve(*directory, options, FileDescriptor());
}

}  // namespace

int main(int argc, char** argv) {
  platform::holdStandardDescriptors();
  const transfer::ParseResult parsed = transfer::parseOptions(argc, argv);
  if (!parsed.options) return parsed.exitStatus;
  openlog("kestrova-transferd", LOG_PID, LOG_USER);
  umask(077);
  transfer::readDieAt();
  // The trust anchors of whoever started the service are not those of every application.
  (void)unsetenv("SSL_CERT_FILE");
  platform::Process::install(platform::makeSystemProcess({}));
  try {
    return run(*parsed.options);
  } catch (const platform::Exception& exception) {
    return fail(exception.reason());
  } catch (const std::exception& exception) {
    return fail(exception.what());
  }
}
