// Asking the transfer service, and waiting for what it says.
#include "platform/linux/TransferInspection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <utility>

#include "platform/linux/FileErrors.h"
#include "platform/linux/FileTransferSpool.h"
#include "platform/linux/TransferDirectory.h"
#include "platform/linux/TransferIdentity.h"
#include "platform/linux/TransferServiceProcess.h"

namespace platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kPause = 20;  // milliseconds

Error serviceError(int code, const std::string& what) {
  return Error(kPOSIXErrorDomain, code, "The transfer service " + what + ".");
}

Error unreachable(int code) { return serviceError(code, "cannot be reached: " + systemErrorText(code)); }

bool isAbsence(int code) { return code == ENOENT || code == ECONNREFUSED; }

int millisecondsUntil(steady_clock::time_point deadline) {
  return static_cast<int>(std::max<std::int64_t>(0, std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count()));
}

}  // namespace

TransferInspection::TransferInspection(SystemOptions options)
    : options_(std::move(options)),
      directory_(options_.transferDirectory ? options_.transferDirectory : TransferDirectory::pathFromEnvironment()) {}

std::expected<std::optional<TransferInspection::Sessions>, Error> TransferInspection::sessions() {
  if (auto connected = connect(false); !connected) {
    if (isAbsence(static_cast<int>(connected.error().code())) && !isNeeded()) return std::nullopt;
    return std::unexpected(connected.error());
  }
  return list();
}

std::expected<TransferInspection::Sessions, Error> TransferInspection::sessionsOfStartedService() {
  if (auto connected = connect(true); !connected) return std::unexpected(connected.error());
  return list();
}

std::expected<void, Error> TransferInspection::cancel(const std::string& session) {
  const auto before = sessions();
  if (!before) return std::unexpected(before.error());
  if (!*before || std::ranges::find(**before, session, &Session::identifier) == (*before)->end())
    return std::unexpected(serviceError(ENOENT, "knows no session " + session));
  if (auto sent = send(transfer::Cancel{session}); !sent) return sent;
  // What is asked after it is answered after it.
  const auto after = list();
  return after ? std::expected<void, Error>() : std::unexpected(after.error());
}

// The connection.

std::expected<void, Error> TransferInspection::connect(bool startsService) {
  if (socket_.isOpen()) return {};
  if (!directory_) return std::unexpected(serviceError(ENOTDIR, "has no folder: there is no home directory"));
  auto made = connectedSocket();
  if (made) {
    socket_ = *std::move(made);
    return greet();
  }
  if (!isAbsence(made.error())) return std::unexpected(unreachable(made.error()));
  return startsService || isNeeded() ? startAndConnect() : std::unexpected(unreachable(made.error()));
}

bool TransferInspection::isNeeded() const {
  auto& random = Process::current().secureRandom;
  return FileTransferSpool(directory_, std::make_shared<TransferIdentity>(options_, random), {}, random).hasInterruptedTransfers();
}

// The program that is started ends when the service answers, or cannot.
std::expected<void, Error> TransferInspection::startAndConnect() {
  TransferServiceProcess service(options_, directory_);
  if (const int error = service.start())
    return std::unexpected(serviceError(error, "cannot be started: " + systemErrorText(error)));
  int error = ETIMEDOUT;
  for (const auto deadline = steady_clock::now() + kPatience; steady_clock::now() < deadline;) {
    pollfd ended{service.descriptor(), POLLIN, 0};
    (void)::poll(&ended, 1, service.descriptor() < 0 ? kPause : millisecondsUntil(deadline));
    (void)service.reap();
    auto made = connectedSocket();
    if (made) {
      socket_ = *std::move(made);
      return greet();
    }
    error = made.error();
    if (!isAbsence(error)) return std::unexpected(unreachable(error));
    if (service.descriptor() < 0) break;  // it has ended without a service that answers
  }
  return std::unexpected(serviceError(ETIMEDOUT, "was started and does not answer: " + systemErrorText(error)));
}

std::expected<FileDescriptor, int> TransferInspection::connectedSocket() const {
  if (::access(directory_->c_str(), F_OK) != 0) return std::unexpected(errno);  // a look makes no folder
  const auto directory = TransferDirectory::open(*directory_);
  if (!directory) return std::unexpected(static_cast<int>(directory.error().code()));
  return directory->connect();
}

std::expected<void, Error> TransferInspection::greet() {
  reader_ = transfer::MessageReader();
  auto identity = TransferIdentity(options_, Process::current().secureRandom).identity();
  if (!identity) return failure(identity.error());
  transfer::Hello hello;
  hello.application = *std::move(identity);
  hello.leavesLaunchCommand = true;
  if (auto sent = send(hello); !sent) return sent;
  const auto answer = receive(steady_clock::now() + kPatience);
  if (!answer) return std::unexpected(answer.error());
  if (std::holds_alternative<transfer::Welcome>(*answer)) return {};
  return failure(serviceError(EPROTO, "says something else than welcome"));
}

/// After it the next call connects again.
std::unexpected<Error> TransferInspection::failure(Error error) {
  socket_.close();
  return std::unexpected(std::move(error));
}

// Questions and answers.

std::expected<TransferInspection::Sessions, Error> TransferInspection::list() {
  const std::uint64_t request = ++lastRequest_;
  if (auto sent = send(transfer::List{request}); !sent) return std::unexpected(sent.error());
  Sessions sessions;
  for (const auto deadline = steady_clock::now() + kPatience;;) {
    auto message = receive(deadline);
    if (!message) return std::unexpected(message.error());
    if (auto* tasks = std::get_if<transfer::SessionTasks>(&*message); tasks && tasks->request == request)
      sessions.push_back({std::move(tasks->session), std::move(tasks->tasks)});
    if (const auto* end = std::get_if<transfer::Listed>(&*message); end && end->request == request) return sessions;
  }
}

std::expected<void, Error> TransferInspection::send(const transfer::Message& message) {
  const std::string line = encode(message);
  const auto deadline = steady_clock::now() + kPatience;
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t sent = ::send(socket_.get(), line.data() + done, line.size() - done, MSG_NOSIGNAL);
    if (sent > 0) done += static_cast<std::size_t>(sent);
    if (sent >= 0 || errno == EINTR) continue;
    pollfd waiting{socket_.get(), POLLOUT, 0};
    if (errno != EAGAIN) return failure(unreachable(errno));
    if (::poll(&waiting, 1, millisecondsUntil(deadline)) == 0) return failure(serviceError(ETIMEDOUT, "does not answer"));
  }
  return {};
}

std::expected<transfer::Message, Error> TransferInspection::receive(Deadline deadline) {
  std::array<char, 65536> buffer;
  for (;;) {
    if (auto message = reader_.next()) {
      if (!*message) return failure(serviceError(EPROTO, "says what is no message: " + message->error()));
      if (const auto* refused = std::get_if<transfer::Refused>(&**message))
        return failure(serviceError(EACCES, "refused: " + refused->reason));
      return **std::move(message);
    }
    pollfd waiting{socket_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, millisecondsUntil(deadline)) == 0) return failure(serviceError(ETIMEDOUT, "does not answer"));
    const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return failure(serviceError(got < 0 ? errno : ECONNRESET, "ended the connection"));
    reader_.append({buffer.data(), static_cast<std::size_t>(got)});
  }
}

}  // namespace platform
