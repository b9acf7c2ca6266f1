// The spool on the disk: tasks for the service, and the numbers of the application's tasks.
//
// A task is written under a name with a leading dot, synchronised, renamed to `<random>.task`, and the folder synchronised. The
// numbers come from `transfer-tasks` in the application's folder, twenty digits that are changed in place under a lock held for
// that alone; they are synchronised with the next task, so that no task on the disk has a number that could be given again.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/SecureRandom.h"
#include "platform/linux/TransferIdentity.h"
#include "platform/linux/TransferSessions.h"

namespace platform {

class FileTransferSpool final : public TransferSpool {
 public:
  /// `directory` is the folder shared with the service, absent when there is no home. Touches no file.
  FileTransferSpool(std::optional<std::string> directory, std::shared_ptr<TransferIdentity> identity,
                    std::vector<std::string> launchCommand, std::shared_ptr<SecureRandom> random);

  std::expected<std::uint64_t, Error> reserveTaskIdentifier() override;
  std::expected<void, Error> write(transfer::SpoolEntry entry) override;
  bool hasInterruptedTransfers() override;

 private:
  const std::optional<std::string> directory_;
  const std::shared_ptr<TransferIdentity> identity_;
  const std::vector<std::string> launchCommand_;
  const std::shared_ptr<SecureRandom> random_;
};

}  // namespace platform
