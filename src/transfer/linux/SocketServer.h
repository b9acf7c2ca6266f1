// The service's Unix socket: connections of the user's own processes, their messages in and out.
//
// The socket has mode 0600 in a folder of mode 0700, and the kernel's word on who connects is asked for as well. Nobody is waited
// for: a client that does not read is closed when what waits for it is past a bound.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferDirectory.h"
#include "transfer/core/Surroundings.h"
#include "transfer/linux/EventLoop.h"

namespace transfer {

class SocketServer final : public Connections {
 public:
  static constexpr std::size_t kMaxConnections = 256;
  /// What may wait for one client, in bytes.
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{8} * 1024 * 1024;
  /// How long a client that is being closed has to read what was sent to it.
  static constexpr std::chrono::seconds kClosingTime{10};

  /// Called on the loop's thread, never from inside an operation of the server.
  struct Handlers {
    std::function<void(ConnectionId)> opened;
    std::function<void(ConnectionId, const Message&)> arrived;
    /// Once; nothing more arrives from that connection.
    std::function<void(ConnectionId, const std::string& reason)> garbage;
    std::function<void(ConnectionId)> closed;
  };

  /// Loop and folder must outlive the server; listens from listen() on.
  SocketServer(EventLoop& loop, const platform::TransferDirectory& directory, Handlers handlers);
  /// Closes everything, tells nobody.
  ~SocketServer() override;
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  /// Takes the place of a socket that a service before has left; whoever calls it holds the folder's lock.
  std::expected<void, platform::Error> listen();
  /// Removes the socket. False when somebody has connected up to the very end: that one is a connection like any other.
  bool stopListening();

  void send(ConnectionId id, const Message& message) override;
  void close(ConnectionId id) override;

  /// Ends what was being closed for too long, and listens again after a lack of descriptors. To be called now and then.
  void tick();

 private:
  using Clock = std::chrono::steady_clock;

  struct Connection {
    platform::FileDescriptor socket;
    MessageReader reader;
    std::string out;
    bool isDeaf = false;     // nothing more is read
    bool isBroken = false;   // nothing more can be sent
    bool isEnding = false;   // its end has been posted
    bool wantsRoom = false;  // waits until the socket takes more
    std::optional<Clock::time_point> closingSince;
  };

  std::size_t acceptAll();
  void add(platform::FileDescriptor socket);
  void refuse(const platform::FileDescriptor& socket, const std::string& reason) const;
  void ready(ConnectionId id, std::uint32_t events);
  void readFrom(ConnectionId id);
  void flush(ConnectionId id, Connection& connection);
  void endSoon(ConnectionId id, Connection& connection);
  void end(ConnectionId id);

  EventLoop& loop_;
  const platform::TransferDirectory& directory_;
  const Handlers handlers_;
  platform::FileDescriptor listener_;
  bool isPaused_ = false;  // no descriptors are left
  ConnectionId lastId_ = 0;
  std::map<ConnectionId, Connection> connections_;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace transfer
