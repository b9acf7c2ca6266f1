// Reading of requests with Boost.Beast's parser, and writing of answers.
//
// This is the one source file that includes Beast: it is slow to compile.
#include "devserver/HttpConnection.h"

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "devserver/HttpDate.h"

namespace devserver {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using std::chrono::steady_clock;

constexpr std::uint32_t kMaxHeader = 16 * 1024;
constexpr std::size_t kBlock = 65536;
/// How long a whole body may take, however steadily it comes.
constexpr std::chrono::minutes kMaxBodyTime{10};
/// The longest rest of a refused body that is read and thrown away to keep the connection.
constexpr std::uint64_t kMaxThrownAway = 1024ULL * 1024;
/// How many items a live stream sends at once, and how long it is silent.
constexpr std::size_t kLiveChunk = 1000;
constexpr std::chrono::seconds kHeartbeat{5};

/// What Beast reads from; the names are Beast's.
class Stream {
 public:
  explicit Stream(TlsConnection& connection) : connection_(connection) {}

  template <class Buffers>
  std::size_t read_some(const Buffers& buffers) {  // NOLINT(readability-identifier-naming)
    boost::system::error_code error;
    const std::size_t count = read_some(buffers, error);
    if (error) throw boost::system::system_error(error);
    return count;
  }

  template <class Buffers>
  // NOLINTNEXTLINE(readability-identifier-naming)
  std::size_t read_some(const Buffers& buffers, boost::system::error_code& error) {
    for (auto at = asio::buffer_sequence_begin(buffers); at != asio::buffer_sequence_end(buffers); ++at) {
      const asio::mutable_buffer buffer(*at);
      if (buffer.size() == 0) continue;
      const std::size_t count = connection_.read(static_cast<char*>(buffer.data()), buffer.size());
      error = count ? boost::system::error_code() : asio::error::make_error_code(asio::error::eof);
      return count;
    }
    error = {};
    return 0;
  }

 private:
  TlsConnection& connection_;
};

using Parser = http::request_parser<http::buffer_body>;

std::string_view viewOf(beast::string_view text) { return {text.data(), text.size()}; }
beast::string_view beastView(std::string_view text) { return {text.data(), text.size()}; }

bool isPrintable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c > ' ' && c <= '~'; });
}

RequestHead headOf(const Parser& parser, std::uint64_t connection) {
  const auto& request = parser.get();
  RequestHead head;
  head.method = viewOf(request.method_string());
  head.target = viewOf(request.target());
  head.host = viewOf(request[http::field::host]);
  head.contentType = viewOf(request[http::field::content_type]);
  if (request.count(http::field::authorization)) head.authorization = viewOf(request[http::field::authorization]);
  if (request.count(http::field::origin)) head.origin = viewOf(request[http::field::origin]);
  head.fetchSite = viewOf(request["Sec-Fetch-Site"]);
  head.hasPageMark = request.count("X-Kestrova-Page") > 0;
  head.acceptsHtml = viewOf(request[http::field::accept]).find("text/html") != std::string_view::npos;
  if (request.count("Last-Event-ID")) head.lastEventId = viewOf(request["Last-Event-ID"]);
  head.isAmbiguous = request.count(http::field::host) != 1 || request.count(http::field::authorization) > 1;
  head.connection = connection;
  return head;
}

bool hasField(const Answer& answer, std::string_view name) {
  return std::ranges::any_of(answer.fields,
                             [&](const auto& field) { return beast::iequals(beastView(field.first), beastView(name)); });
}

/// The status line, the fields that an answer itself has, and the server's time, which an answer that was ordered may tell
/// otherwise.
std::string wireHead(const Answer& answer, std::chrono::milliseconds serverTime) {
  const std::string_view reason = viewOf(http::obsolete_reason(http::int_to_status(static_cast<unsigned>(answer.status))));
  std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " " + std::string(reason) + "\r\n";
  for (const auto& [name, value] : answer.fields) text.append(name).append(": ").append(value).append("\r\n");
  if (!hasField(answer, "Date")) text += "Date: " + httpDate(serverTime) + "\r\n";
  return text;
}

/// The text of an answer on the wire.
std::string wireText(const Answer& answer, std::chrono::milliseconds serverTime, bool close, bool withBody) {
  std::string text = wireHead(answer, serverTime);
  if (answer.status != 204 && answer.status != 304) text += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
  if (close) text += "Connection: close\r\n";
  text += "\r\n";
  if (withBody && answer.status != 204 && answer.status != 304) text += answer.body;
  return text;
}

class Session {
 public:
  Session(TlsConnection& connection, Api& api, StopSignal& stop, std::uint64_t number, std::chrono::milliseconds idleTimeout)
      : connection_(connection), stream_(connection), api_(api), stop_(stop), number_(number), idleTimeout_(idleTimeout) {}

  void run() {
    while (!stop_.isRaised() && serveOne()) continue;
  }

 private:
  enum class Body { kComplete, kTooLong, kBroken };

  /// True when another request may follow on the connection.
  bool serveOne() {
    Parser parser;
    parser.header_limit(kMaxHeader);
    parser.body_limit(boost::none);  // the plan for each request has its own
    connection_.setReadDeadline(steady_clock::now() + idleTimeout_);
    boost::system::error_code error;
    http::read_header(stream_, buffer_, parser, error);
    if (error) return refuseHeader(error);
    connection_.setReadDeadline(steady_clock::now() + kMaxBodyTime);
    if (!isPrintable(viewOf(parser.get().target()))) return refuseUnparsed(400, "Bad target");

    Exchange exchange(api_, headOf(parser, number_));
    switch (readBody(parser, exchange)) {
      case Body::kBroken:
        exchange.abandon();
        return false;
      case Body::kTooLong:
        exchange.refuseLongBody();
        break;
      case Body::kComplete:
        break;
    }
    return answer(parser, exchange.finish());
  }

  /// Reads as much of the body as the exchange wants.
  Body readBody(Parser& parser, Exchange& exchange) {
    const Exchange::Plan plan = exchange.plan();
    if (!plan.wantsBody) return Body::kComplete;
    if (parser.content_length().value_or(0) > plan.maxBody) return Body::kTooLong;
    if (beast::iequals(parser.get()[http::field::expect], "100-continue") && !parser.is_done() &&
        !connection_.write("HTTP/1.1 100 Continue\r\n\r\n"))
      return Body::kBroken;
    std::uint64_t left = plan.maxBody;
    while (!parser.is_done()) {
      std::string_view piece;
      if (!readPiece(parser, piece)) return Body::kBroken;
      if (piece.size() > left) return Body::kTooLong;
      left -= piece.size();
      if (!exchange.take(piece)) return Body::kComplete;  // refused: the answer says why
      if (!keepPace(piece.size())) return Body::kBroken;
    }
    return Body::kComplete;
  }

  /// Rests as long as the rate for bodies asks for; false when the server stops.
  bool keepPace(std::size_t bytes) {
    const std::int64_t rate = api_.behaviour().readRate();
    if (rate == 0) return true;
    return stop_.wait(std::chrono::milliseconds(static_cast<std::int64_t>(bytes) * 1000 / rate));
  }

  bool readPiece(Parser& parser, std::string_view& piece) {
    auto& body = parser.get().body();
    body.data = block_.data();
    body.size = block_.size();
    boost::system::error_code error;
    http::read_some(stream_, buffer_, parser, error);
    if (error && error != http::error::need_buffer) return false;
    piece = {block_.data(), block_.size() - body.size};
    return true;
  }

  /// Sends an answer and sees to what is left of the request; true when the connection stays.
  bool answer(Parser& parser, const Reaction& reaction) {
    if (reaction.delay.count() > 0 && !stop_.wait(reaction.delay)) return false;
    if (!reaction.answer) return false;
    if (reaction.follows) return follow(*reaction.answer, *reaction.follows);
    // A client that waits for leave to send its body may send it or not after a refusal: nobody could tell where the next request
    // starts.
    const bool waits = parser.get().count(http::field::expect) > 0 && !parser.is_done();
    const bool close = !parser.get().keep_alive() || waits || restOf(parser) > kMaxThrownAway || isClosing(*reaction.answer);
    const bool withBody = parser.get().method() != http::verb::head;
    const bool announced = hasField(*reaction.answer, "Connection");
    if (!connection_.write(wireText(*reaction.answer, api_.serverTime(), close && !announced, withBody))) return false;
    if (close) {
      if (parser.is_done())
        connection_.closeOrderly();
      else
        connection_.closeLingering();
      return false;
    }
    if (!throwAwayRest(parser)) return false;
    ++served_;
    const std::int64_t closeEvery = api_.behaviour().closeEvery();
    if (closeEvery == 0 || served_ % closeEvery != 0) return true;
    connection_.closeOrderly();
    return false;
  }

  /// Sends the feed's items as they come, until one side ends. No other request follows.
  bool follow(const Answer& answer, std::uint64_t last) {
    bool isThere = connection_.write(wireHead(answer, api_.serverTime()) + "Connection: close\r\n\r\n" + answer.body);
    while (isThere && !stop_.isRaised()) {
      const Feed::Chunk chunk = api_.feed().after(last, kLiveChunk, kHeartbeat);
      last = chunk.last;
      // A comment in the place of nothing shows whether anybody is still there.
      isThere = connection_.write(chunk.empty ? ":\n\n" : "id: " + std::to_string(last) + "\ndata: " + chunk.items + "\n\n");
    }
    connection_.closeOrderly();
    return false;
  }

  static bool isClosing(const Answer& answer) {
    return std::ranges::any_of(answer.fields, [](const auto& field) {
      return beast::iequals(beastView(field.first), "Connection") && beast::iequals(beastView(field.second), "close");
    });
  }

  /// How much of the body is still to come; more than is ever thrown away when nobody knows.
  static std::uint64_t restOf(const Parser& parser) {
    if (parser.is_done()) return 0;
    const auto rest = parser.content_length_remaining();
    return rest ? *rest : kMaxThrownAway + 1;
  }

  bool throwAwayRest(Parser& parser) {
    connection_.setReadDeadline(steady_clock::now() + idleTimeout_);
    std::string_view ignored;
    while (!parser.is_done())
      if (!readPiece(parser, ignored)) return false;
    return true;
  }

  /// A header that cannot be read is answered only when there was one.
  bool refuseHeader(const boost::system::error_code& error) {
    if (error == http::error::end_of_stream || error == asio::error::eof || error == http::error::partial_message) {
      connection_.closeOrderly();
      return false;
    }
    if (error == http::error::header_limit || error == http::error::buffer_overflow)
      return refuseUnparsed(431, "Header fields too large");
    return refuseUnparsed(400, "Malformed request: " + error.message());
  }

  bool refuseUnparsed(int status, const std::string& reason) {
    printLine(timeText() + " " + std::to_string(status) + " - - " + reason);
    const Answer refusal{status, {{"Content-Type", "text/plain; charset=utf-8"}}, reason + "\n"};
    if (connection_.write(wireText(refusal, api_.serverTime(), true, true))) connection_.closeLingering();
    return false;
  }

  TlsConnection& connection_;
  Stream stream_;
  Api& api_;
  StopSignal& stop_;
  const std::uint64_t number_;
  const std::chrono::milliseconds idleTimeout_;
  beast::flat_buffer buffer_{kBlock};
  std::vector<char> block_ = std::vector<char>(kBlock);
  std::int64_t served_ = 0;
};

}  // namespace

void StopSignal::raise() {
  {
    std::lock_guard lock(mutex_);
    raised_ = true;
  }
  changed_.notify_all();
}

bool StopSignal::isRaised() const {
  std::lock_guard lock(mutex_);
  return raised_;
}

bool StopSignal::wait(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex_);
  return !changed_.wait_for(lock, time, [this] { return raised_; });
}

void serveConnection(TlsConnection& connection, Api& api, StopSignal& stop, std::uint64_t number,
                     std::chrono::milliseconds idleTimeout) {
  if (connection.handshake()) Session(connection, api, stop, number, idleTimeout).run();
}

}  // namespace devserver
