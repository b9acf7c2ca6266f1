// The listening side: sockets on loopback, one thread a connection, and the end of it all.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <list>
#include <memory>
#include <string>

#include "devserver/Api.h"
#include "devserver/HttpConnection.h"
#include "devserver/TlsConnection.h"

namespace devserver {

class Server {
 public:
  /// More connections than this at once are closed as they come.
  static constexpr std::size_t kMaxConnections = 512;

  Server(Api& api, TlsContext context, std::chrono::milliseconds idleTimeout);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens on 127.0.0.1 and, where the machine has it, on ::1, both on the same port; 0 picks a free one.
  std::expected<void, std::string> listen(std::uint16_t port);
  std::uint16_t port() const { return port_; }

  /// Accepts until `stopDescriptor` becomes readable, then ends every connection and joins its thread.
  void run(int stopDescriptor);

 private:
  struct Worker;

  void accept(int listener);
  void serve(Worker& worker, std::uint64_t number);
  void reap(bool all);

  Api& api_;
  const TlsContext context_;
  const std::chrono::milliseconds idleTimeout_;
  StopSignal stop_;
  std::uint16_t port_ = 0;
  int listener4_ = -1;
  int listener6_ = -1;
  std::uint64_t accepted_ = 0;
  std::list<std::unique_ptr<Worker>> workers_;
};

}  // namespace devserver
