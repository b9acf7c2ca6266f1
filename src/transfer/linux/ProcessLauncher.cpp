// Starting an application's process and seeing it end.
#include "transfer/linux/ProcessLauncher.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/DetachedProgram.h"
#include "platform/linux/FileErrors.h"
#include "platform/linux/SpawnTexts.h"

namespace transfer {
namespace {

using platform::Error;

Error launchError(int error, const std::string& program) {
  return Error(platform::kPOSIXErrorDomain, error,
               "The application “" + program + "” could not be launched: " + platform::systemErrorText(error) + ".");
}

bool holdsNul(const std::vector<std::string>& texts) {
  return std::ranges::any_of(texts, [](const std::string& text) { return text.find('\0') != std::string::npos; });
}

}  // namespace

ProcessLauncher::~ProcessLauncher() {
  for (const auto& [descriptor, running] : running_) loop_.unwatch(descriptor);
}

std::expected<void, Error> ProcessLauncher::launch(ApplicationId application, const std::vector<std::string>& command,
                                                   const std::string& session, const std::optional<std::string>& trustAnchors) {
  std::vector<std::string> environment = platform::environmentForOthersWith({{"KESTROVA_BACKGROUND_SESSION", session},
                                                                             {"KESTROVA_TRANSFER_DIR", transferFolder_},
                                                                             {"KESTROVA_TRANSFERD_DIE_AT", std::nullopt},
                                                                             {"SSL_CERT_FILE", trustAnchors}});
  // A relative path would be looked up below /, and a text that ends early would say something else than what was registered.
  if (command.empty() || !command.front().starts_with('/') || holdsNul(command) || holdsNul(environment))
    return std::unexpected(launchError(EINVAL, command.empty() ? "" : command.front()));
  const auto process = platform::startDetachedProgram(command, std::move(environment));
  if (!process) return std::unexpected(launchError(process.error(), command.front()));
  auto descriptor = platform::descriptorOfProcess(*process);
  if (!descriptor) {  // its end would never be seen
    (void)kill(*process, SIGKILL);
    (void)waitpid(*process, nullptr, 0);
    return std::unexpected(launchError(descriptor.error(), command.front()));
  }
  const int number = descriptor->get();
  running_.emplace(number, Running{application, session, *std::move(descriptor)});
  loop_.watch(number, EPOLLIN, [this, number](std::uint32_t) { processEnded(number); });
  return {};
}

void ProcessLauncher::processEnded(int descriptor) {
  siginfo_t ignored{};
  (void)waitid(P_PIDFD, static_cast<id_t>(descriptor), &ignored, WEXITED | WNOHANG);
  loop_.unwatch(descriptor);
  const auto ended = running_.extract(descriptor);
  ended_(ended.mapped().application, ended.mapped().session);
}

}  // namespace transfer
