// The C interface over the facade: checks what a caller gives, and keeps every exception on this side.
#include "capi/kestrova.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVFeatureControl.h"
#include "companions/Kestrova.h"
#include "platform/BackgroundURLSession.h"
#include "platform/Exception.h"
#include "platform/JSONSerialization.h"
#include "platform/JSONWriter.h"

namespace capi {
namespace {

// How many callbacks the thread is inside of.
thread_local int callbacksUnderWay = 0;

/// A host's callbacks until they are released. Traces and answers have a lock each, because a line of the trace may come from
/// within a callback for an answer while another thread is inside the callback for the trace.
class Callbacks final : public KSVDelegate {
 public:
  explicit Callbacks(const kestrova_options& options) : options_(options) {}

  void setUserId(const platform::Value& userId) override { answer(options_.on_user_id, userId); }
  void setAppIdentifier(const platform::Value& appIdentifier) override { answer(options_.on_app_identifier, appIdentifier); }
  void handleEventsFromServer(const platform::Value& notifications) override { answer(options_.on_notifications, notifications); }

  void done(kestrova_done_callback callback, void* context) {
    pass(answers_, [&] { callback(context); });
  }

  void trace(std::string_view line) { call(traces_, options_.on_trace, line); }

  /// Waits for the callbacks that are under way, and lets none begin any more.
  void release() {
    close(answers_);
    close(traces_);
  }

 private:
  struct Gate {
    std::recursive_mutex mutex;  // an executor or a trace may call from within a callback
    bool isClosed = false;
  };

  static void close(Gate& gate) {
    const std::lock_guard lock(gate.mutex);
    gate.isClosed = true;
  }

  template <class Work>
  static void pass(Gate& gate, const Work& work) {
    const std::lock_guard lock(gate.mutex);
    if (gate.isClosed) return;
    ++callbacksUnderWay;
    work();
    --callbacksUnderWay;
  }

  /// Both kinds of callback that are given a text.
  template <class Callback>
  void call(Gate& gate, Callback callback, std::string_view text) {
    const std::string terminated(text);
    pass(gate, [&] { callback(options_.context, terminated.c_str(), terminated.size()); });
  }

  void answer(kestrova_json_callback callback, const platform::Value& value) {
    if (!callback) return;
    // The writer takes arrays and objects only, the server sends texts and numbers too.
    const auto text = platform::JSONTextOfValue(platform::Array{value});
    if (!text) return;
    std::string_view inBrackets = text->view();
    inBrackets.remove_prefix(1);
    inBrackets.remove_suffix(1);
    call(answers_, callback, inBrackets);
  }

  const kestrova_options options_;  // of its texts none is read
  Gate answers_;
  Gate traces_;
};

/// Whether the process's client is given out.
struct Loan {
  std::mutex mutex;
  bool isGivenOut = false;
};

std::shared_ptr<Loan> loan() { return platform::Process::current().sharedInstance<Loan>(); }

/// Runs the work of a function; whatever it throws becomes a code.
template <class Work>
kestrova_status guarded(const Work& work) noexcept {
  try {
    return work();
  } catch (const platform::Exception&) {
    return KESTROVA_ERROR_REFUSED;
  } catch (const std::bad_alloc&) {
    return KESTROVA_ERROR_NO_MEMORY;
  } catch (...) {
    return KESTROVA_ERROR_INTERNAL;
  }
}

kestrova_status checkedText(const char* text) {
  if (!text) return KESTROVA_ERROR_NULL_ARGUMENT;
  if (!platform::isWellFormedUtf8(text)) return KESTROVA_ERROR_BAD_UTF8;
  return KESTROVA_OK;
}

/// As checkedText; an empty text is none, and what may be absent is fine when it is.
kestrova_status checkedOption(const char* text, bool mayBeAbsent) {
  if (!text && mayBeAbsent) return KESTROVA_OK;
  const kestrova_status status = checkedText(text);
  return status == KESTROVA_OK && !*text ? KESTROVA_ERROR_BAD_OPTIONS : status;
}

kestrova_status checkedPath(const char* path, bool mayBeAbsent) {
  if (!path) return mayBeAbsent ? KESTROVA_OK : KESTROVA_ERROR_NULL_ARGUMENT;
  return *path == '/' ? KESTROVA_OK : KESTROVA_ERROR_BAD_PATH;
}

/// An absolute path, or none, that the transfer service is told of, in JSON.
kestrova_status checkedToldPath(const char* path) {
  const kestrova_status status = checkedPath(path, true);
  return status == KESTROVA_OK && path ? checkedText(path) : status;
}

/// Null, or an absolute path and what follows it.
kestrova_status checkedCommand(const char* const* command) {
  if (!command) return KESTROVA_OK;
  kestrova_status status = checkedPath(*command, false);
  for (const char* const* word = command; status == KESTROVA_OK && *word; ++word) status = checkedText(*word);
  return status;
}

kestrova_status firstFault(std::initializer_list<kestrova_status> statuses) {
  for (const kestrova_status status : statuses)
    if (status != KESTROVA_OK) return status;
  return KESTROVA_OK;
}

kestrova_status checkedOptions(const kestrova_options& options) {
  const kestrova_status fault =
      firstFault({checkedOption(options.app_id, false), checkedOption(options.secret, false),
                  checkedOption(options.api_host, false), checkedOption(options.api_version, true),
                  checkedToldPath(options.home_directory), checkedPath(options.transfer_directory, true),
                  checkedPath(options.transfer_service_path, true), checkedCommand(options.launch_command)});
  if (fault != KESTROVA_OK) return fault;
  const bool isFine =
      Kestrova::isAPIHost(options.api_host) && std::isfinite(options.request_timeout) && options.request_timeout >= 0;
  return isFine ? KESTROVA_OK : KESTROVA_ERROR_BAD_OPTIONS;
}

std::optional<std::string> optionalText(const char* text) { return text ? std::optional<std::string>(text) : std::nullopt; }

platform::SystemOptions systemOptions(const kestrova_options& options) {
  platform::SystemOptions system;
  system.bundleIdentifier = options.app_id;
  system.homeDirectory = optionalText(options.home_directory);
  system.transferDirectory = optionalText(options.transfer_directory);
  system.transferServicePath = optionalText(options.transfer_service_path);
  for (const char* const* word = options.launch_command; word && *word; ++word) system.launchCommand.emplace_back(*word);
  if (options.request_timeout > 0) system.requestTimeout = options.request_timeout;
  if (options.max_response_bytes > 0) system.maxResponseBytes = options.max_response_bytes;
  return system;
}

using Block = platform::DispatchQueue::Block;

void runBlock(void* block) {
  const std::unique_ptr<Block> owned(static_cast<Block*>(block));
  (*owned)();
}

Kestrova::Configuration configuration(const kestrova_options& options) {
  Kestrova::Configuration configuration;
  configuration.secret = options.secret;
  configuration.apiHost = options.api_host;
  configuration.apiVersion = optionalText(options.api_version);
  configuration.system = systemOptions(options);
  configuration.debug = options.debug != 0;
  if (options.executor) {
    configuration.mainExecutor = [executor = options.executor, context = options.context](Block block) {
      executor(context, runBlock, std::make_unique<Block>(std::move(block)).release());
    };
  }
  return configuration;
}

struct ObjectResult {
  kestrova_status status;
  platform::Dictionary object;
};

ObjectResult objectOf(const char* json) {
  const kestrova_status status = checkedText(json);
  if (status != KESTROVA_OK) return {.status = status, .object = {}};
  const auto value = platform::JSONSerialization::JSONObjectWithData(platform::Data(json));
  if (!value || !value->isObject()) return {.status = KESTROVA_ERROR_BAD_JSON, .object = {}};
  return {.status = KESTROVA_OK, .object = value->object()};
}

/// Reads the share and hands it on.
template <class Work>
kestrova_status withShare(const char* json, const Work& work) {
  const ObjectResult read = objectOf(json);
  if (read.status != KESTROVA_OK) return read.status;
  const std::shared_ptr<const KSVShare> share = KSVShare::deserialize(read.object);
  if (!share) return KESTROVA_ERROR_BAD_SHARE;
  work(share);
  return KESTROVA_OK;
}

}  // namespace
}  // namespace capi

struct kestrova_client {
  std::shared_ptr<Kestrova> facade;
  std::shared_ptr<capi::Callbacks> callbacks;
};

namespace capi {
namespace {

kestrova_status start(const kestrova_options& options, kestrova_client** client) {
  auto given = std::make_unique<kestrova_client>();
  given->facade = Kestrova::start(configuration(options));
  if (!given->facade->data()) return KESTROVA_ERROR_NO_MEMORY;
  const std::shared_ptr<Loan> current = loan();
  const std::lock_guard lock(current->mutex);
  if (current->isGivenOut) return KESTROVA_ERROR_ALREADY_STARTED;

  given->callbacks = std::make_shared<Callbacks>(options);
  given->facade->setDelegate(given->callbacks);
  KSVDebugger::Listener listener;
  if (options.on_trace) listener = [callbacks = given->callbacks](std::string_view line) { callbacks->trace(line); };
  KSVDebugger::sharedDebugger()->setListener(std::move(listener));
  current->isGivenOut = true;
  *client = given.release();
  return KESTROVA_OK;
}

}  // namespace
}  // namespace capi

const char* kestrova_status_name(kestrova_status status) {
  switch (status) {
    case KESTROVA_OK:
      return "KESTROVA_OK";
    case KESTROVA_ERROR_NULL_ARGUMENT:
      return "KESTROVA_ERROR_NULL_ARGUMENT";
    case KESTROVA_ERROR_BAD_OPTIONS:
      return "KESTROVA_ERROR_BAD_OPTIONS";
    case KESTROVA_ERROR_BAD_PATH:
      return "KESTROVA_ERROR_BAD_PATH";
    case KESTROVA_ERROR_BAD_UTF8:
      return "KESTROVA_ERROR_BAD_UTF8";
    case KESTROVA_ERROR_BAD_JSON:
      return "KESTROVA_ERROR_BAD_JSON";
    case KESTROVA_ERROR_BAD_SHARE:
      return "KESTROVA_ERROR_BAD_SHARE";
    case KESTROVA_ERROR_ALREADY_STARTED:
      return "KESTROVA_ERROR_ALREADY_STARTED";
    case KESTROVA_ERROR_IN_CALLBACK:
      return "KESTROVA_ERROR_IN_CALLBACK";
    case KESTROVA_ERROR_NO_MEMORY:
      return "KESTROVA_ERROR_NO_MEMORY";
    case KESTROVA_ERROR_REFUSED:
      return "KESTROVA_ERROR_REFUSED";
    case KESTROVA_ERROR_NOT_LAUNCHED:
      return "KESTROVA_ERROR_NOT_LAUNCHED";
    case KESTROVA_ERROR_INTERNAL:
      return "KESTROVA_ERROR_INTERNAL";
  }
  return "unknown status";
}

const char* kestrova_version(void) { return KESTROVA_VERSION; }

kestrova_status kestrova_start(const kestrova_options* options, kestrova_client** client) {
  if (client) *client = nullptr;
  if (!options || !client) return KESTROVA_ERROR_NULL_ARGUMENT;
  if (options->struct_size != sizeof(kestrova_options)) return KESTROVA_ERROR_BAD_OPTIONS;
  if (capi::callbacksUnderWay > 0) return KESTROVA_ERROR_IN_CALLBACK;
  return capi::guarded([&] {
    const kestrova_status fault = capi::checkedOptions(*options);
    return fault == KESTROVA_OK ? capi::start(*options, client) : fault;
  });
}

kestrova_status kestrova_release(kestrova_client* client) {
  if (!client) return KESTROVA_ERROR_NULL_ARGUMENT;
  if (capi::callbacksUnderWay > 0) return KESTROVA_ERROR_IN_CALLBACK;
  return capi::guarded([&] {
    const std::unique_ptr<kestrova_client> given(client);
    given->callbacks->release();
    const std::shared_ptr<capi::Loan> current = capi::loan();
    const std::lock_guard lock(current->mutex);
    current->isGivenOut = false;
    return KESTROVA_OK;
  });
}

kestrova_status kestrova_event(kestrova_client* client, const char* name, const char* data) {
  if (!client) return KESTROVA_ERROR_NULL_ARGUMENT;
  return capi::guarded([&] {
    const kestrova_status fault = capi::checkedText(name);
    if (fault != KESTROVA_OK) return fault;
    if (!data) {
      client->facade->event(name);
      return KESTROVA_OK;
    }
    capi::ObjectResult read = capi::objectOf(data);
    if (read.status == KESTROVA_OK) client->facade->event(name, std::move(read.object));
    return read.status;
  });
}

kestrova_status kestrova_new_session(kestrova_client* client) {
  if (!client) return KESTROVA_ERROR_NULL_ARGUMENT;
  return capi::guarded([&] {
    client->facade->markNewSession();
    return KESTROVA_OK;
  });
}

kestrova_status kestrova_flush(kestrova_client* client) {
  if (!client) return KESTROVA_ERROR_NULL_ARGUMENT;
  return capi::guarded([&] {
    client->facade->flush();
    return KESTROVA_OK;
  });
}

kestrova_status kestrova_submit_share(kestrova_client* client, const char* share) {
  if (!client) return KESTROVA_ERROR_NULL_ARGUMENT;
  return capi::guarded([&] {
    return capi::withShare(share, [&](const std::shared_ptr<const KSVShare>& read) { client->facade->data()->submitShare(read); });
  });
}

kestrova_status kestrova_upload_gif(kestrova_client* client, const char* path, const char* share) {
  if (!client) return KESTROVA_ERROR_NULL_ARGUMENT;
  return capi::guarded([&] {
    const kestrova_status fault = capi::checkedPath(path, false);
    if (fault != KESTROVA_OK) return fault;
    return capi::withShare(share, [&](const std::shared_ptr<const KSVShare>& read) {
      client->facade->data()->uploadGIFForShare(platform::URL::fileURLWithPath(path), read);
    });
  });
}

kestrova_status kestrova_handle_launch(kestrova_client* client, kestrova_done_callback done, void* context) {
  if (!client || !done) return KESTROVA_ERROR_NULL_ARGUMENT;
  return capi::guarded([&] {
    const std::optional<std::string> session = Kestrova::sessionOfLaunch();
    if (!session) return KESTROVA_ERROR_NOT_LAUNCHED;
    platform::BackgroundURLSessions::backgroundSessions().notifyWhenEventsAreDelivered(
        *session, [callbacks = client->callbacks, done, context] { callbacks->done(done, context); });
    client->facade->data()->handleEventsForBackgroundURLSessionCompletionHandler(*session, [] {});
    return KESTROVA_OK;
  });
}

kestrova_status kestrova_feature_enabled(kestrova_client* client, int feature, int* enabled) {
  if (!client || !enabled) return KESTROVA_ERROR_NULL_ARGUMENT;
  constexpr int kFeatures = 64;
  if (feature < 0 || feature >= kFeatures) return KESTROVA_ERROR_BAD_OPTIONS;
  return capi::guarded([&] {
    *enabled = KSVFeatureControl::sharedFeatureControl()->isFeatureEnabled(feature) ? 1 : 0;
    return KESTROVA_OK;
  });
}
