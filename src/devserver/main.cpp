// kestrova-devserver: starts the development server, says where it is, and stops on SIGTERM and SIGINT.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <expected>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "devserver/Api.h"
#include "devserver/CertificateAuthority.h"
#include "devserver/Files.h"
#include "devserver/Gifs.h"
#include "devserver/Journal.h"
#include "devserver/Json.h"
#include "devserver/Options.h"
#include "devserver/Server.h"
#include "devserver/TlsConnection.h"
#include "platform/linux/StandardDescriptors.h"

namespace {

constexpr int kCannotStart = 2;

int fail(const std::string& reason) {
  devserver::printError(reason);
  return kCannotStart;
}

/// Turns the signals that end the server into something to wait for; every thread made after this inherits the mask. A shell that
/// starts a program in the background may have had SIGINT ignored, which would lose it.
int stopDescriptor() {
  sigset_t stopping;
  sigemptyset(&stopping);
  struct sigaction action{};
  action.sa_handler = SIG_DFL;
  for (const int number : {SIGTERM, SIGINT}) {
    sigaddset(&stopping, number);
    if (::sigaction(number, &action, nullptr) != 0) return -1;
  }
  action.sa_handler = SIG_IGN;
  if (::sigaction(SIGPIPE, &action, nullptr) != 0 || ::pthread_sigmask(SIG_BLOCK, &stopping, nullptr) != 0) return -1;
  return ::signalfd(-1, &stopping, SFD_CLOEXEC);
}

std::chrono::milliseconds systemTime() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
}

std::expected<void, std::string> announce(const devserver::Options& options, const devserver::Certificates& certificates,
                                          std::uint16_t port) {
  const std::string url = "https://localhost:" + std::to_string(port);
  const std::string ready =
      devserver::writeJson(platform::Dictionary{{"port", port}, {"url", url}, {"caFile", certificates.authority.string()}});
  if (options.readyFile)
    if (auto written = devserver::replaceFile(*options.readyFile, ready + "\n"); !written) return written;
  if (certificates.madeAuthority) devserver::printLine("a new certificate authority was made");
  devserver::printLine("trust it with SSL_CERT_FILE=" + certificates.authority.string());
  devserver::printLine("live page " + url + "/");
  devserver::printLine("journal " + options.journal.string());
  devserver::printLine("ready " + ready);
  return {};
}

int run(const devserver::Options& options, int stop) {
  // A file of an earlier run must not say that this one is ready.
  std::error_code ignored;
  if (options.readyFile) std::filesystem::remove(*options.readyFile, ignored);

  const auto certificates = devserver::prepareCertificates(options.state, std::chrono::system_clock::now());
  if (!certificates) return fail(certificates.error());
  auto context = devserver::makeTlsContext(*certificates);
  if (!context) return fail(context.error());
  devserver::Journal journal;
  if (const auto opened = journal.open(options.journal); !opened) return fail(opened.error());

  const auto gifs = devserver::Gifs::open(options.gifs);
  if (!gifs) return fail(gifs.error());

  const auto uploads = options.strictUploads ? devserver::Api::Uploads::kStrict : devserver::Api::Uploads::kRepeatable;
  devserver::Api api(options.keys, journal, **gifs, uploads, certificates->authority, systemTime);
  if (const auto changed = api.behaviour().change(options.behaviour); !changed) return fail(changed.error());
  devserver::Server server(api, *std::move(context), options.idleTimeout);
  if (const auto listening = server.listen(options.port); !listening) return fail(listening.error());
  if (const auto announced = announce(options, *certificates, server.port()); !announced) return fail(announced.error());
  server.run(stop);
  devserver::printLine("stopped");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  platform::holdStandardDescriptors();
  const auto options = devserver::parseOptions(argc, argv);
  if (!options) return options.error();
  const int stop = stopDescriptor();
  if (stop < 0) return fail("cannot wait for signals");
  return run(*options, stop);
}
