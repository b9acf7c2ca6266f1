// One exchange over libcurl: its options, callbacks and outcome.
#include "platform/linux/CurlTransfer.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <new>
#include <utility>

namespace platform {
namespace {

// Codes whose texts are the generic one.
constexpr std::int64_t kURLErrorUnknown = -1;
constexpr std::int64_t kURLErrorCannotDecodeContentData = -1016;
constexpr std::int64_t kURLErrorCannotParseResponse = -1017;

/// A body longer than this is read in pieces of this length: with the library's shorter ones the turns of the loop would cost a
/// third of the throughput.
constexpr long kLongBody = 512L * 1024;

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::ranges::any_of(names, [&](std::string_view other) {
    return std::ranges::equal(name, other, [](char a, char b) { return lowered(a) == lowered(b); });
  });
}

/// The URL without its fragment, which stays at home, and without user name and password, which the library would make a header of.
std::string textForWire(const URL& url) {
  const std::string_view text = url.absoluteString();
  const std::size_t begin = text.find("://") + 3;
  const std::size_t end = std::min(text.find_first_of("/?#", begin), text.size());
  std::string_view authority = text.substr(begin, end - begin);
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  std::string_view rest = text.substr(end);
  rest = rest.substr(0, rest.find('#'));
  std::string wire = "https://" + std::string(authority);
  if (!rest.starts_with('/')) wire += '/';
  return wire.append(rest);
}

bool isBlank(std::string_view text) { return text.find_first_not_of(" \t") == std::string_view::npos; }

}  // namespace

CurlTransfer::CurlTransfer(const URLRequest& request, const Settings& settings, Connection connection, HTTPBodySource* source)
    : request_(request), settings_(settings), easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
  if (request.HTTPBody()) source_ = source ? source : &ownSource_.emplace(request.HTTPBody()->bytes());
  configureConnection();
  configureRequest();
  configureBody();
  configureFields();
  configureCallbacks();
  curl_easy_setopt(easy_.get(), CURLOPT_FRESH_CONNECT, connection == Connection::kNew ? 1L : 0L);
}

void CurlTransfer::configureConnection() {
  CURL* easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  // One file only. With a folder beside it the library could not keep the loaded anchors from one connection to the next, and each
  // handshake would cost the reading of the whole bundle.
  curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
  if (settings_.trustAnchorsFile) curl_easy_setopt(easy, CURLOPT_CAINFO, settings_.trustAnchorsFile->c_str());
  curl_easy_setopt(easy, CURLOPT_NOPROXY, settings_.hostsWithoutProxy.c_str());
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // The library's own limit would be five minutes, whatever ours is.
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings_.requestTimeout.count()));
  // A cancelled transfer must not wait for the resolver's thread, and with it every other transfer of the loop.
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  if (!settings_.share) return;
  curl_easy_setopt(easy, CURLOPT_SHARE, settings_.share);
  curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");  // no file: it only switches cookies on
}

void CurlTransfer::configureRequest() {
  CURL* easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_URL, textForWire(*request_.URL()).c_str());
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);  // what was signed is what is sent
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
}

// The body is pulled by a callback, and no callback is given that could go back to its start: the library then ends with an error
// where it would otherwise send a request for the second time (platform row U12).
void CurlTransfer::configureBody() {
  CURL* easy = easy_.get();
  const std::string& method = request_.HTTPMethod();
  if (method == "HEAD") {  // a body makes no sense here and would have the library wait for one in the answer
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (source_ || isOneOf(method, {"POST", "PUT", "PATCH"})) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(source_ ? source_->length() : 0));
    if (source_ && source_->length() > kLongBody) curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kLongBody);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  }
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
}

// Exactly the request's own fields (platform row U6). What frames the message is the library's business: a length that is not the
// body's, or a second framing, would make two requests of one.
void CurlTransfer::configureFields() {
  const auto append = [this](const std::string& line) {
    curl_slist* list = curl_slist_append(fields_.get(), line.c_str());
    if (!list) throw std::bad_alloc();
    fields_.release();  // NOLINT(bugprone-unused-return-value): the list took it in
    fields_.reset(list);
  };
  for (const auto& [name, value] : request_.allHTTPHeaderFields()) {
    if (isOneOf(name, {"Host", "Content-Length", "Transfer-Encoding"})) continue;
    if (isOneOf(name, {"Cookie"}))
      curl_easy_setopt(easy_.get(), CURLOPT_COOKIE, value.c_str());  // goes out in one field with the session's cookies
    else
      append(isBlank(value) ? name + ";"
                            : std::string(name).append(": ").append(value));  // a name with a semicolon is a field without a value
  }
  for (const char* own : {"Accept", "Content-Type", "Expect", "User-Agent"})
    if (!request_.valueForHTTPHeaderField(own))
      append(std::string(own) + ":");  // a name with a colon is the library's own, left out
  curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, fields_.get());
}

void CurlTransfer::configureCallbacks() {
  CURL* easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, detail_.data());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlTransfer::onHeaderLine);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlTransfer::onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_READFUNCTION, &CurlTransfer::onWantsBody);
  curl_easy_setopt(easy, CURLOPT_READDATA, this);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &CurlTransfer::onProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &CurlTransfer::onAboutToSend);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlTransfer::onOpenSocket);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
  // The connection keeps these two beyond the transfer.
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &CurlTransfer::onCloseSocket);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, settings_.sockets);
}

std::size_t CurlTransfer::onHeaderLine(char* bytes, std::size_t size, std::size_t count, void* context) {
  auto& self = *static_cast<CurlTransfer*>(context);
  self.noteProgress();
  if (self.head_.addLine({bytes, size * count})) return size * count;
  self.failure_ = kURLErrorDataLengthExceedsMaximum;
  return 0;
}

std::size_t CurlTransfer::onBody(char* bytes, std::size_t size, std::size_t count, void* context) {
  auto& self = *static_cast<CurlTransfer*>(context);
  self.noteProgress();
  const std::size_t length = size * count;
  if (length > self.settings_.maxResponseBytes - self.bodyBytes_) {
    self.failure_ = kURLErrorDataLengthExceedsMaximum;
    return 0;
  }
  self.bodyBytes_ += length;
  if (self.settings_.keepsAnswerBody) self.body_.append(bytes, length);
  return length;
}

std::size_t CurlTransfer::onWantsBody(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& self = *static_cast<CurlTransfer*>(context);
  if (!self.source_ || self.readBytes_ == self.source_->length()) return 0;
  const std::size_t room = std::min<std::uint64_t>(size * count, self.source_->length() - self.readBytes_);
  auto length = self.source_->readAt(buffer, room, self.readBytes_);
  if (!length) {
    self.sourceFailure_ = std::move(length.error());
    return CURL_READFUNC_ABORT;
  }
  self.readBytes_ += *length;
  return *length;
}

int CurlTransfer::onProgress(void* context, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto& self = *static_cast<CurlTransfer*>(context);
  if (downloaded + uploaded != self.movedBytes_) {
    self.movedBytes_ = downloaded + uploaded;
    self.noteProgress();
    if (self.source_) self.source_->wasSent(static_cast<std::uint64_t>(uploaded));
  }
  return 0;
}

// Called when there is a connection, right before the request goes out. A second call means that the library is about to send it
// again on another connection, which it does on its own for what has no body.
int CurlTransfer::onAboutToSend(void* context, char*, char*, int, int localPort) {
  auto& self = *static_cast<CurlTransfer*>(context);
  self.noteProgress();
  if (self.wasSent_) {
    self.failure_ = kURLErrorNetworkConnectionLost;
    return CURL_PREREQFUNC_ABORT;
  }
  // The library takes a kept connection for a living one when the server has closed it in the polite way, with a last word of TLS.
  // A server has nothing to say before it is asked: now is the last moment at which another connection can be taken.
  if (!self.madeConnection_ && self.settings_.sockets->hasInput(static_cast<std::uint16_t>(localPort))) {
    self.metClosedConnection_ = true;
    return CURL_PREREQFUNC_ABORT;
  }
  self.wasSent_ = true;
  return CURL_PREREQFUNC_OK;
}

curl_socket_t CurlTransfer::onOpenSocket(void* context, curlsocktype, curl_sockaddr* address) {
  auto& self = *static_cast<CurlTransfer*>(context);
  self.madeConnection_ = true;
  return self.settings_.sockets->open(*address);
}

int CurlTransfer::onCloseSocket(void* sockets, curl_socket_t descriptor) {
  static_cast<CurlSockets*>(sockets)->close(descriptor);
  return 0;
}

std::expected<HTTPAnswer, Error> CurlTransfer::outcome(CURLcode code) {
  if (code != CURLE_OK && !wasAnsweredEarly(code)) return std::unexpected(error(code));
  auto response = std::make_shared<HTTPURLResponse>(*request_.URL(), head_.statusCode(), head_.fields());
  return HTTPAnswer{std::move(response), Data(String(std::exchange(body_, {})))};
}

/// A server that has seen enough answers before it has the whole body and closes: the rest then cannot be sent. Where the answer's
/// body is of no use the answer is there.
bool CurlTransfer::wasAnsweredEarly(CURLcode code) const {
  return code == CURLE_SEND_ERROR && head_.isComplete() && !settings_.keepsAnswerBody;
}

Error CurlTransfer::error(CURLcode code) const {
  if (sourceFailure_) return *sourceFailure_;
  std::int64_t mapped = kURLErrorUnknown;
  switch (code) {
    // After the request was sent it is the answer that is of no known protocol.
    case CURLE_UNSUPPORTED_PROTOCOL:
      mapped = wasSent_ ? kURLErrorCannotParseResponse : kURLErrorUnsupportedURL;
      break;
    case CURLE_URL_MALFORMAT:
      mapped = kURLErrorBadURL;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      mapped = kURLErrorCannotFindHost;
      break;
    case CURLE_COULDNT_CONNECT:
    case CURLE_PROXY:
      mapped = connectErrorCode();
      break;
    case CURLE_OPERATION_TIMEDOUT:
      mapped = kURLErrorTimedOut;
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_FAIL_REWIND:
      mapped = kURLErrorNetworkConnectionLost;
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_INVALIDCERTSTATUS:
      mapped = kURLErrorSecureConnectionFailed;
      break;
    case CURLE_PEER_FAILED_VERIFICATION:
      mapped = certificateErrorCode();
      break;
    case CURLE_BAD_CONTENT_ENCODING:
      mapped = kURLErrorCannotDecodeContentData;
      break;
    // The library's own bound on the length of a header line shows as a lack of memory.
    case CURLE_OUT_OF_MEMORY:
      mapped = kURLErrorDataLengthExceedsMaximum;
      break;
    case CURLE_WEIRD_SERVER_REPLY:
      mapped = kURLErrorCannotParseResponse;
      break;
    default:
      break;
  }
  const Error known = urlError(failure_.value_or(mapped), *request_.URL()->host());
  return Error(known.domain(), known.code(), known.localizedDescription(), detail_.data());
}

std::int64_t CurlTransfer::connectErrorCode() const {
  long systemError = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_OS_ERRNO, &systemError);
  if (systemError == ENETUNREACH || systemError == ENETDOWN) return kURLErrorNotConnectedToInternet;
  return systemError == ETIMEDOUT ? kURLErrorTimedOut : kURLErrorCannotConnectToHost;
}

std::int64_t CurlTransfer::certificateErrorCode() const {
  long verdict = X509_V_OK;
  curl_easy_getinfo(easy_.get(), CURLINFO_SSL_VERIFYRESULT, &verdict);
  const bool outOfDates = verdict == X509_V_ERR_CERT_HAS_EXPIRED || verdict == X509_V_ERR_CERT_NOT_YET_VALID;
  return outOfDates ? kURLErrorServerCertificateHasBadDate : kURLErrorServerCertificateUntrusted;
}

}  // namespace platform
