// What the companions' tests share: a process record over files in memory, with a plan that can spoil any call.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/OpenSSLDigest.h"
#include "support/FaultPlan.h"
#include "support/FaultyServices.h"
#include "support/ManualClock.h"
#include "support/MemoryFileManager.h"

namespace test {

class CompanionsTest : public testing::Test {
 protected:
  CompanionsTest() {
    process.clock = clock;
    process.secureRandom = std::make_shared<platform::GetrandomSecureRandom>();
    process.digest = std::make_shared<platform::OpenSSLDigest>();
    process.fileManager = faulty(files, plan);
    scope.emplace(process);
  }

  static platform::URL supportFile(std::string_view name) {
    return platform::FileManager::defaultManager().applicationSupportDirectory()->URLByAppendingPathComponent(name);
  }

  std::shared_ptr<FaultPlan> plan = std::make_shared<FaultPlan>();
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(1795205979.0);
  std::shared_ptr<MemoryFileManager> files = std::make_shared<MemoryFileManager>();
  platform::Process process;
  std::optional<platform::Process::Scope> scope;
};

}  // namespace test
