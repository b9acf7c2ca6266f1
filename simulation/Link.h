// The connection between the application and the transfer service, and the application's side of the spool, in a simulated world.
//
// Messages are taken from the wire one by one, in order and as their texts, when the scheduler wants it. A connection may
// break at any time; what had not been taken by then is lost.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/TransferSessions.h"
#include "simulation/Device.h"
#include "support/FaultyServices.h"
#include "transfer/core/Surroundings.h"
#include "transfer/protocol/Messages.h"

namespace simulation {

struct Connection {
  transfer::ConnectionId id = 0;
  bool isGreeted = false;   // the application has seen the welcome
  bool isOpenHere = true;   // the application's end
  bool isOpenThere = true;  // the service's end
  std::deque<transfer::Message> toService;
  std::deque<transfer::Message> toApplication;
};

class Link final : public platform::TransferLink {
 public:
  /// `point` may switch to another block, or end the process; it is called where no lock is held.
  explicit Link(std::function<void(std::string_view)> point) : point_(std::move(point)) {}

  void setListener(std::weak_ptr<platform::TransferLinkListener> listener) override { listener_ = std::move(listener); }
  void connect() override {
    isWanted = true;
    point_("TransferLink.connect");
  }
  void send(transfer::Message message) override {
    if (connection && connection->isGreeted && connection->isOpenHere) connection->toService.push_back(std::move(message));
  }
  void stop() override { listener_.reset(); }

  std::shared_ptr<platform::TransferLinkListener> listener() const { return listener_.lock(); }

  bool isWanted = false;
  std::shared_ptr<Connection> connection;  // null when there is none

 private:
  const std::function<void(std::string_view)> point_;
  std::weak_ptr<platform::TransferLinkListener> listener_;
};

class Spool final : public platform::TransferSpool {
 public:
  /// `fails` draws whether an operation fails; it may switch to another block, or end the process.
  Spool(Device& device, std::function<bool(std::string_view)> fails, std::function<void(const transfer::SpoolEntry&)> written)
      : device_(device), fails_(std::move(fails)), written_(std::move(written)) {}

  std::expected<std::uint64_t, platform::Error> reserveTaskIdentifier() override {
    if (fails_("TransferSpool.reserveTaskIdentifier")) return std::unexpected(test::MemoryTransferStore::fullDisk());
    return ++device_.lastTask;
  }
  std::expected<void, platform::Error> write(transfer::SpoolEntry entry) override {
    if (fails_("TransferSpool.write")) return std::unexpected(test::MemoryTransferStore::fullDisk());
    entry.application = applicationIdentity();
    entry.launchCommand = {"/usr/bin/app"};
    {
      const test::Unseen unseen;  // what is written here is no text of the client's
      device_.spool.put(std::to_string(entry.task) + ".task", encode(entry));
    }
    written_(entry);
    return {};
  }
  bool hasInterruptedTransfers() override { return !device_.spool.names().empty() || !device_.store->contents.tasks.empty(); }

 private:
  Device& device_;
  const std::function<bool(std::string_view)> fails_;
  const std::function<void(const transfer::SpoolEntry&)> written_;
};

}  // namespace simulation
