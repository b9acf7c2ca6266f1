// What the benchmarks share: the real services in a folder of their own, with the network left out, and records to work on.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "client/KSVData.h"
#include "platform/Process.h"
#include "platform/Value.h"

namespace bench {

/// The real services of this machine over a temporary folder; requests are taken and answered with 200 and {} at once, without a
/// network.
class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  std::shared_ptr<KSVData> makeClient();
  std::filesystem::path queueFile() const;
  /// A queue file of `count` records of `bytes` bytes each, their line feeds included.
  void writeQueue(std::uint64_t count, std::size_t bytes) const;

 private:
  std::filesystem::path folder_;
  std::unique_ptr<platform::Process> process_;
  std::unique_ptr<platform::Process::Scope> scope_;
};

/// Five properties of an ordinary event.
platform::Dictionary fiveProperties();
/// An event record as the client builds it, about 250 bytes of JSON.
platform::Value sampleRecord();
/// A batch of ten records, about 2.5 KB of JSON.
platform::Array sampleBatch();

}  // namespace bench
