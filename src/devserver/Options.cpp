// Reading of the command line and of the files that it names.
#include "devserver/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "devserver/Behaviour.h"
#include "devserver/Files.h"
#include "devserver/Journal.h"
#include "devserver/Json.h"
#include "platform/linux/UsageErrors.h"

namespace devserver {
namespace {

constexpr const char* kDescription =
    "kestrova-devserver: the API on this machine, over HTTPS with a certificate authority of its own, for development and tests.\n"
    "It verifies every signature, keeps what it receives, and misbehaves on request. A browser at its address shows live what "
    "arrives.";

constexpr const char* kFooter =
    R"(Misbehaviour can also be changed while the server runs: POST an object of the same names to /dev/behaviour.
A value may be written as @FILE. A secret never stands on a command line. Exit status: 0 after SIGTERM or SIGINT, 2 when it cannot start.

Examples:
  kestrova-devserver --app com.example.app --secret-file secret
  kestrova-devserver --port 0 --ready-file ready.json --apps apps.json       {"com.example.app": "the secret"}
  kestrova-devserver --apps apps.json --clock-offset 3600
  kestrova-devserver --apps apps.json --status '{"code": 500, "next": 3}' --delay 250
  kestrova-devserver --apps apps.json --answer '{"status": 307, "headers": {"Location": "/shares"}}'
  kestrova-devserver --apps apps.json --stale '{"time": 1795205979, "tsm": "wrong", "next": 2}'
  kestrova-devserver --apps apps.json --directives '{"referralCode": "abcdefgh", "features": 3}')";

[[noreturn]] void fail(const std::string& message) { throw CLI::ValidationError(message, CLI::ExitCodes::ValidationError); }

template <class T>
T require(std::expected<T, std::string> result) {
  if (!result) fail(result.error());
  return *std::move(result);
}

/// Where the user's programs keep state that is worth keeping (XDG base directories).
std::filesystem::path defaultState() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state == '/')
    return std::filesystem::path(state) / "kestrova-devserver";
  if (const char* home = std::getenv("HOME"); home && *home == '/')
    return std::filesystem::path(home) / ".local/state/kestrova-devserver";
  fail("there is no home folder to keep state in: name a folder with --state");
}

void addApplication(HawkVerifier::Keys& keys, const std::string& id, std::string secret, const std::string& source) {
  const bool allowed = std::ranges::all_of(id, [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
  if (id.empty() || !allowed) fail("'" + id + "' is no application id: printable ASCII without quotes and backslashes");
  if (secret.empty()) fail(source + " holds no secret");
  if (!keys.emplace(id, std::move(secret)).second) fail("the application " + id + " is given twice");
}

std::string readSecret(const std::string& file) {
  std::string secret = require(readFile(file));
  while (secret.ends_with('\n') || secret.ends_with('\r')) secret.pop_back();
  return secret;
}

void addApplicationsOf(HawkVerifier::Keys& keys, const std::string& file) {
  const auto apps = readJsonObject(require(readFile(file)));
  // What is wrong is told without a word of the file's content, which is secret.
  if (!apps) fail(file + R"( is no JSON object of the form {"com.example.app": "the secret"})");
  for (const auto& [id, secret] : *apps) {
    if (!secret.isString()) fail(file + ": the secret of " + std::string(id.view()) + " is no text");
    addApplication(keys, std::string(id.view()), std::string(secret.string().view()), file);
  }
}

platform::Value readSetting(const std::string& name, const std::string& text) {
  const auto value = readJsonScalar(text.starts_with('@') ? require(readFile(text.substr(1))) : text);
  if (!value) fail("--" + name + ": " + value.error() + " Quote it for the shell.");
  return *value;
}

/// What each misbehaviour option says in the help.
std::string helpOf(const std::string& name) {
  static const std::map<std::string, std::string> kHelp{
      {"clock-offset", "SECONDS that the server's clock is ahead"},
      {"delay", "MILLISECONDS to wait before each answer"},
      {"drop", "close the connection on the next N requests without an answer"},
      {"status", R"(answer the next requests with a status: 500 or {"code", "next"})"},
      {"answer", R"(answer the next requests with {"status", "headers", "body", "next"})"},
      {"stale", R"(challenge the next requests: {"time", "tsm": "good"|"wrong"|"missing", "next"})"},
      {"directives", "the JSON object that answers /events"},
      {"read-rate", "BYTES of a body that are read in a second on each connection"},
      {"close-every", "close a connection, unannounced, after each Nth request on it"}};
  return kHelp.at(name);
}

struct RawOptions {
  std::int64_t port = 8443;
  std::string state;
  std::string journal;
  std::string readyFile;
  std::string gifs;
  bool strictUploads = false;
  std::vector<std::string> apps;
  std::vector<std::string> secretFiles;
  std::vector<std::string> appsFiles;
  double idleTimeout = 60;
  std::map<std::string, std::string> behaviour;
};

void declare(CLI::App& app, RawOptions& raw) {
  app.footer(kFooter);
  app.get_formatter()->column_width(28);
  app.set_version_flag("--version", "kestrova-devserver " KESTROVA_VERSION);
  app.add_option("--port", raw.port, "port on loopback; 0 picks a free one (8443)")
      ->type_name("N")
      ->check(platform::usage::numberFrom<std::int64_t>(0, std::numeric_limits<std::uint16_t>::max()));
  app.add_option("--state", raw.state, "folder for certificates and journal (the user's state folder)")->type_name("DIR");
  app.add_option("--journal", raw.journal, "what was received, one JSON object a line (journal.jsonl in the state folder)")
      ->type_name("FILE");
  app.add_option("--ready-file", raw.readyFile, "written once the server listens: {\"port\", \"url\", \"caFile\"}")
      ->type_name("FILE");
  app.add_option("--gifs", raw.gifs, "folder for uploaded GIFs (a temporary one)")->type_name("DIR");
  app.add_flag("--strict-uploads", raw.strictUploads, "let the signature of an upload in once and for a minute, like any other");
  app.add_option("--app", raw.apps, "an application's id; one --secret-file for each")->type_name("ID")->allow_extra_args(false);
  app.add_option("--secret-file", raw.secretFiles, "file that holds the secret of the --app in the same place")
      ->type_name("FILE")
      ->allow_extra_args(false);
  app.add_option("--apps", raw.appsFiles, "JSON object of ids and secrets")->type_name("FILE")->allow_extra_args(false);
  app.add_option("--idle-timeout", raw.idleTimeout, "seconds without progress after which a connection is closed (60)")
      ->type_name("SECONDS")
      ->check(platform::usage::numberFrom(0.05, 3600.0));
  for (const std::string& name : behaviourNames())
    app.add_option("--" + name, raw.behaviour[name], helpOf(name))->type_name("JSON")->group("Misbehaviour");
}

Options optionsOf(const CLI::App& app, const RawOptions& raw) {
  Options options;
  options.port = static_cast<std::uint16_t>(raw.port);
  options.state = raw.state.empty() ? defaultState() : std::filesystem::absolute(raw.state);
  options.journal = raw.journal.empty() ? options.state / "journal.jsonl" : std::filesystem::absolute(raw.journal);
  if (!raw.readyFile.empty()) options.readyFile = std::filesystem::absolute(raw.readyFile);
  if (!raw.gifs.empty()) options.gifs = std::filesystem::absolute(raw.gifs);
  options.strictUploads = raw.strictUploads;
  options.idleTimeout = std::chrono::milliseconds(static_cast<std::int64_t>(raw.idleTimeout * 1000));

  if (raw.apps.size() != raw.secretFiles.size()) fail("each --app needs its own --secret-file");
  for (std::size_t at = 0; at < raw.apps.size(); ++at)
    addApplication(options.keys, raw.apps[at], readSecret(raw.secretFiles[at]), raw.secretFiles[at]);
  for (const std::string& file : raw.appsFiles) addApplicationsOf(options.keys, file);
  if (options.keys.empty()) fail("no application: name one with --app ID --secret-file FILE, or more with --apps FILE");

  for (const auto& [name, text] : raw.behaviour)
    if (app.count("--" + name) > 0) options.behaviour.setObjectForKey(readSetting(name, text), name);
  if (const auto changed = Behaviour().change(options.behaviour); !changed) fail(changed.error());
  return options;
}

}  // namespace

std::expected<Options, int> parseOptions(int argc, const char* const* argv) {
  RawOptions raw;
  CLI::App app(kDescription, "kestrova-devserver");
  declare(app, raw);
  try {
    app.parse(argc, argv);
    return optionsOf(app, raw);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return std::unexpected(app.exit(error));
    printError(platform::usage::refusalFor(app, error));
    return std::unexpected(2);
  }
}

}  // namespace devserver
