// Uploads over libcurl: the file is streamed from the disk, whatever its length, by the same loop that loads URLs (platform rows U4
// to U12).
//
// No cookies are kept or sent, as uploads of several applications share the loop. The answer's body is read and thrown away.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "platform/linux/CurlLoop.h"
#include "transfer/core/Surroundings.h"
#include "transfer/linux/EventLoop.h"

namespace transfer {

class CurlUploads final : public Uploads {
 public:
  /// Called on the event loop's thread.
  struct Handlers {
    std::function<void(TaskId, std::uint64_t bytesSent, std::uint64_t bytesExpected)> progressed;
    std::function<void(TaskId, const UploadOutcome&)> ended;
  };
  struct Options {
    std::uint64_t maxAnswerBytes = std::uint64_t{16} * 1024 * 1024;  // a longer answer ends with -1103
    std::chrono::milliseconds progressInterval{200};                 // progress is not told of more often, for each upload
    StepHook stepHook = nullptr;                                     // "body-half": half of a body is sent; on the loading thread
  };

  /// The event loop must outlive the uploads.
  CurlUploads(EventLoop& events, Handlers handlers, Options options);
  CurlUploads(EventLoop& events, Handlers handlers) : CurlUploads(events, std::move(handlers), Options{}) {}
  /// Gives up what is running and joins the loop's thread.
  ~CurlUploads() override;
  CurlUploads(const CurlUploads&) = delete;
  CurlUploads& operator=(const CurlUploads&) = delete;

  void start(TaskId task, const SpoolEntry& entry) override;
  void stop(TaskId task) override;

 private:
  class Upload;

  void fail(TaskId task, const platform::Error& error);
  void progressed(const Upload& upload, std::uint64_t bytesSent) const;
  void ended(const Upload& upload, const UploadOutcome& outcome);
  bool isCurrent(const Upload& upload) const;

  EventLoop& events_;
  const Handlers handlers_;
  const Options options_;
  std::map<TaskId, std::shared_ptr<Upload>> uploads_;
  // What is posted finds its way back through this, which is emptied when the uploads are gone.
  const std::shared_ptr<CurlUploads*> self_ = std::make_shared<CurlUploads*>(this);
  const std::shared_ptr<platform::CurlLoop> loop_;
};

/// Whether waiting can help against what ended an upload: the network, the name server or the server was away, or a connection was
/// cut.
bool mayBeTriedAgain(const platform::Error& error);

}  // namespace transfer
