// One request and its answer over libcurl: no redirects, no second try. Used by the loop's thread only.
#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"
#include "platform/linux/CurlSockets.h"
#include "platform/linux/HTTPBodySource.h"
#include "platform/linux/HTTPResponseHead.h"

namespace platform {

/// What a completed exchange brought.
struct HTTPAnswer {
  HTTPURLResponseRef response;
  Data body;
};

class CurlTransfer {
 public:
  using Clock = std::chrono::steady_clock;

  struct Settings {
    std::chrono::milliseconds requestTimeout{};
    std::uint64_t maxResponseBytes = 0;
    std::optional<std::string> trustAnchorsFile;  // the system's when absent
    std::string hostsWithoutProxy;
    CURLSH* share = nullptr;         // the cookies; null: none are kept or sent
    bool keepsAnswerBody = true;     // otherwise it counts against the bound and is thrown away
    CurlSockets* sockets = nullptr;  // through which connections are opened; never null in a transfer
  };

  enum class Connection { kAny, kNew };

  /// The request must be one that refusalOfRequest lets pass. A source stands in for the request's body, where the request has one.
  /// All of them must outlive the transfer.
  CurlTransfer(const URLRequest& request, const Settings& settings, Connection connection, HTTPBodySource* source = nullptr);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  CURL* easy() const { return easy_.get(); }

  /// When the transfer is to be given up unless there is progress before.
  Clock::time_point deadline() const { return lastProgress_ + settings_.requestTimeout; }

  /// Ended before anything was sent, as the kept connection turned out to be closed by the server. The request is then to go out
  /// over a new one.
  bool metClosedConnection() const { return metClosedConnection_; }

  /// What became of it, once the library has ended it with `code`. The body is moved out.
  std::expected<HTTPAnswer, Error> outcome(CURLcode code);

 private:
  template <auto free>
  struct Free {
    void operator()(auto* object) const { free(object); }
  };

  void configureConnection();
  void configureRequest();
  void configureBody();
  void configureCallbacks();
  void configureFields();
  bool wasAnsweredEarly(CURLcode code) const;
  Error error(CURLcode code) const;
  std::int64_t connectErrorCode() const;
  std::int64_t certificateErrorCode() const;
  void noteProgress() { lastProgress_ = Clock::now(); }

  // Called by the library with this object as `context`.
  static std::size_t onHeaderLine(char* bytes, std::size_t size, std::size_t count, void* context);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* context);
  static std::size_t onWantsBody(char* buffer, std::size_t size, std::size_t count, void* context);
  static int onProgress(void* context, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded);
  static int onAboutToSend(void* context, char*, char*, int, int localPort);
  static curl_socket_t onOpenSocket(void* context, curlsocktype, curl_sockaddr* address);
  static int onCloseSocket(void* sockets, curl_socket_t descriptor);

  const URLRequest& request_;
  const Settings& settings_;
  std::unique_ptr<CURL, Free<curl_easy_cleanup>> easy_;
  std::unique_ptr<curl_slist, Free<curl_slist_free_all>> fields_;
  std::array<char, CURL_ERROR_SIZE> detail_{};

  HTTPResponseHead head_;
  std::string body_;
  std::uint64_t bodyBytes_ = 0;  // received, kept or not
  std::optional<MemoryBodySource> ownSource_;
  HTTPBodySource* source_ = nullptr;  // null: the request has no body
  std::optional<Error> sourceFailure_;
  std::uint64_t readBytes_ = 0;  // taken from the source
  curl_off_t movedBytes_ = 0;
  bool madeConnection_ = false;
  bool metClosedConnection_ = false;
  bool wasSent_ = false;
  std::optional<std::int64_t> failure_;  // decided by a callback of ours
  Clock::time_point lastProgress_ = Clock::now();
};

}  // namespace platform
