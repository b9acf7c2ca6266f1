// The stage of the upload tests: a client, a GIF of the host, and a transfer service stepped by hand.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companions/KSVConstants.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {

inline constexpr const char* kGif = "/host/cat.gif";
inline constexpr const char* kGifBytes = "GIF89a and more";

inline std::shared_ptr<const KSVShare> shareWithId(std::optional<std::string> shareId) {
  auto code = std::make_shared<KSVReferralCode>();
  code->userId = "user-7";
  code->shareId = std::move(shareId);
  auto share = std::make_shared<KSVShare>();
  share->referralCode = std::move(code);
  return share;
}

class UploadTest : public testing::Test {
 protected:
  explicit UploadTest(TestProcessOptions options = {}) : process(std::move(options)) {
    if (process.namesIn("/host").empty()) process.memoryFiles().setBytesAtPath(kGif, kGifBytes);
    client = process.makeClient();
    process.runAll();
    process.plan().clearCalls();
  }

  static platform::URL gif() { return platform::URL::fileURLWithPath(kGif); }
  void upload(const std::shared_ptr<const KSVShare>& share = shareWithId("share-1")) { client->uploadGIFForShare(gif(), share); }
  /// The upload files, which are named after their sessions.
  std::vector<std::string> uploadFiles() { return process.namesIn(process.supportPath("uploads")); }
  std::string onlySession() {
    const auto files = uploadFiles();
    return files.size() == 1 ? files.front() : "not one but " + std::to_string(files.size());
  }
  std::vector<bool> indicator() { return process.application().settings(); }
  MemoryTransferService& service() { return process.transfers(); }
  /// Answers the upload that runs and lets everything follow.
  void succeed(std::int64_t status = 200) {
    process.runAll();
    service().answerUpload(status);
    process.runAll();
  }
  void fail(std::int64_t code) {
    process.runAll();
    service().failUpload(platform::urlError(code));
    process.runAll();
  }

  TestProcess process;
  std::shared_ptr<KSVData> client;
};

}  // namespace test
