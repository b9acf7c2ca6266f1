// What outlives every process of a simulated world: the disk, the user defaults, the spool, the service's store, and the clock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "support/ManualClock.h"
#include "support/MemoryFileManager.h"
#include "support/MemoryTransferStore.h"
#include "support/MemoryUserDefaults.h"
#include "support/TestProcess.h"
#include "support/TransferSurroundings.h"

namespace simulation {

/// The end of a simulated process. No exception of the standard library and none of the platform's: nothing in the product catches
/// it.
struct ProcessDeath {};

/// One upload that was made durable, and what has become of it.
struct UploadRecord {
  std::uint64_t ends = 0;     // the service has stored that it ended
  std::uint64_t begunIn = 0;  // the last life in which the delegate was told of it; 0: none
  bool isRecorded = false;    // that the delegate was told
};

struct Device {
  static constexpr const char* kFolder = "/application";
  static constexpr const char* kQueueFile = "/application/application-support/event-queue.json";
  static constexpr const char* kGif = "/pictures/cat.gif";

  static std::string uploadFile(const std::string& session) {
    return std::string(kFolder) + "/application-support/uploads/" + session;
  }

  std::shared_ptr<test::ManualClock> clock = std::make_shared<test::ManualClock>(test::TestProcess::kStartTime);
  std::shared_ptr<test::MemoryFileManager> files = std::make_shared<test::MemoryFileManager>(kFolder, clock);
  std::shared_ptr<test::MemoryUserDefaults::Store> defaults = std::make_shared<test::MemoryUserDefaults::Store>();
  std::shared_ptr<test::MemoryTransferStore::Disk> store = std::make_shared<test::MemoryTransferStore::Disk>();
  test::MemorySpool spool;
  std::uint64_t lastTask = 0;                   // the counter file of the application's upload tasks
  std::map<std::string, UploadRecord> uploads;  // by session
};

inline transfer::ApplicationIdentity applicationIdentity() {
  return {.identifier = "com.example.app", .folder = Device::kFolder, .token = std::string(64, 'a')};
}

}  // namespace simulation
