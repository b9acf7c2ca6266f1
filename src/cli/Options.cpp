// Reading of arguments and environment.
#include "cli/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/Report.h"
#include "companions/Kestrova.h"
#include "platform/linux/UsageErrors.h"

namespace cli {
namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? std::optional<std::string>(value) : std::nullopt;
}

/// The content of a file without the line feed at its end.
std::string readSecretFile(const std::string& path) {
  std::error_code error;
  std::ifstream file;
  if (std::filesystem::is_directory(path, error)) error = std::make_error_code(std::errc::is_a_directory);
  if (!error) file.open(path, std::ios::binary);
  if (error || !file) throw CLI::ValidationError("--secret-file", "cannot read " + path + (error ? ": " + error.message() : ""));
  std::string secret((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) secret.pop_back();
  if (secret.empty()) throw CLI::ValidationError("--secret-file", path + " holds no secret");
  return secret;
}

/// The folder as it is meant where the command was given.
std::string absoluteFolder(const std::string& name) {
  std::error_code error;
  const auto path = std::filesystem::absolute(name, error);
  if (name.empty() || error)
    throw CLI::ValidationError("--home", "\"" + name + "\" is no folder" + (error && !name.empty() ? ": " + error.message() : ""));
  return path.string();
}

bool isOn(const std::optional<std::string>& value) { return value && !value->empty() && *value != "0"; }

bool needsServer(Command command) {
  constexpr std::array kLocal{Command::kQueue,   Command::kStatus,        Command::kDoctor,
                              Command::kTail,    Command::kShareList,     Command::kDemo,
                              Command::kUploads, Command::kUploadsCancel, Command::kHandleEvents};
  return std::ranges::find(kLocal, command) == kLocal.end();
}

void requireForSending(const Options& options) {
  if (!options.apiHost) throw CLI::RequiredError("--api-host (or KESTROVA_API_HOST)");
  if (!options.secret) throw CLI::RequiredError("--secret-file (or KESTROVA_SECRET)");
}

void requireHost(const std::string& host) {
  if (Kestrova::isAPIHost(host)) return;
  throw CLI::ValidationError("--api-host", "\"" + host + "\" is no host name with an optional port, as in api.example.com:8443");
}

void requireArguments(const Options& options) {
  if (options.command == Command::kEvent && options.eventName.empty()) throw CLI::ValidationError("the event's name is empty");
  // The transfer service knows its applications by their identifiers.
  const bool usesTransferService =
      options.command == Command::kUpload || options.command == Command::kUploads || options.command == Command::kUploadsCancel;
  if (usesTransferService && !options.bundleId) throw CLI::RequiredError("--bundle-id (or KESTROVA_BUNDLE_ID)");
}

CLI::App* addCommand(CLI::App& parent, const char* name, const char* description, Options& options, Command command) {
  CLI::App* subcommand = parent.add_subcommand(name, description);
  subcommand->fallthrough();
  subcommand->callback([&options, command] { options.command = command; });
  return subcommand;
}

void addShareCommands(CLI::App& app, Options& options) {
  CLI::App* share = app.add_subcommand("share", "submit shares, refresh them, list them");
  share->fallthrough();
  share->require_subcommand(1);
  CLI::App* submit = addCommand(*share, "submit", "submit a share and tell its referral code", options, Command::kShareSubmit);
  submit->add_option("--data", options.jsonData, "the share's data, a JSON object")->type_name("JSON")->required();
  submit->add_option("--url", options.shareURL, "the share's address")->type_name("URL");
  CLI::App* refresh =
      addCommand(*share, "refresh", "ask the server for the current form of shares", options, Command::kShareRefresh);
  refresh->add_option("REFERRAL-CODE", options.referralCodes, "the codes of the shares")->type_name("")->required();
  addCommand(*share, "list", "show the shares that this command has submitted or asked for", options, Command::kShareList);
}

void addUploadCommands(CLI::App& app, Options& options) {
  CLI::App* upload = addCommand(app, "upload", "upload a GIF for a share, in the background", options, Command::kUpload);
  upload->add_option("FILE", options.uploadFile, "the GIF; it may be deleted once the command has ended")
      ->type_name("")
      ->required();
  upload->add_option("--share-id", options.shareId, "the share's identifier on the server")->type_name("ID")->required();
  upload->add_option("--user-id", options.userId, "the identifier of the user who shared it")->type_name("ID");
  upload->add_flag("--wait", options.wait, "wait for the outcome, for as long as --timeout says");

  CLI::App* uploads = app.add_subcommand("uploads", "list uploads: what the transfer service has, and the outcomes known here");
  uploads->fallthrough();
  uploads->require_subcommand(0, 1);
  // A parent's callback runs after that of its subcommand.
  uploads->callback([&options, uploads] {
    if (uploads->get_subcommands().empty()) options.command = Command::kUploads;
  });
  CLI::App* cancel = addCommand(*uploads, "cancel", "end an upload that has not ended", options, Command::kUploadsCancel);
  cancel->add_option("ID", options.uploadSession, "the upload's session, as uploads lists it")->type_name("")->required();

  // For the transfer service alone, which launches the command with it.
  addCommand(app, "handle-events", "take the outcome of uploads that ended meanwhile", options, Command::kHandleEvents)->group("");
}

void addCommands(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  const auto add = [&](const char* name, const char* description, Command command) {
    return addCommand(app, name, description, options, command);
  };

  CLI::App* event = add("event", "report one event and send it", Command::kEvent);
  event->add_option("NAME", options.eventName, "the event's name")->type_name("")->required();
  event->add_option("--data", options.eventData, "the event's data, a JSON object")->type_name("JSON");
  CLI::App* events =
      add("events", "report the events of a file, one JSON object a line: {\"event\": \"...\", \"data\": {...}}", Command::kEvents);
  events->add_option("FILE", options.inputFile, "a path, or - for standard input")->type_name("")->required();
  add("flush", "send what waits on disk", Command::kFlush);
  add("queue", "show what waits on disk", Command::kQueue);
  add("status", "show identity, clock correction, paths and switched-off features", Command::kStatus);
  add("doctor", "tell what is well with the delivery, what is not, and what to do", Command::kDoctor);
  add("tail", "follow the debug trace of a running application, that of other commands too, until Ctrl-C", Command::kTail);
  addShareCommands(app, options);
  CLI::App* patch = add("patch", "add data to the session-started event that the server holds", Command::kPatch);
  patch->add_option("JSON", options.jsonData, "what to add, a JSON object")->type_name("")->required();
  add("cookie-match", "have the system's browser match this device", Command::kCookieMatch);
  addUploadCommands(app, options);
  add("demo", "show the whole road of an event against a development server of its own", Command::kDemo);
}

constexpr const char* kFooter =
    R"(Environment: KESTROVA_API_HOST, KESTROVA_API_VERSION, KESTROVA_BUNDLE_ID, KESTROVA_HOME and KESTROVA_DEBUG=1 stand for the
options of those names, KESTROVA_SECRET for what --secret-file holds. SSL_CERT_FILE names trust anchors to use instead of the
system's. With NO_COLOR set nothing is coloured.

Exit status: 0 everything delivered, 1 the command itself failed, 2 bad usage or bad input, 3 something kept for later, 4 something lost
(4 before 3 before 2). A batch whose signature the server refuses is lost. Shares and patches are not kept: what does not arrive is lost.
An upload that goes on without the command is kept; one that failed, or that the server refused, is lost.
A refresh without an answer and a match that did not complete end with 1, a refresh with codes that the server does not know with 2.
The doctor ends with 1 when something keeps events or uploads from arriving.

Events leave ten at a time, at a session start, and when the input ends. One home is used by one command at a time; others wait.

Examples:
  export SSL_CERT_FILE=$HOME/.local/state/kestrova-devserver/ca.pem      # trusts the development server
  kestrova --api-host localhost:8443 --bundle-id com.example.app --secret-file secret event opened --data '{"screen": "home"}'
  kestrova events events.jsonl --json
  kestrova share submit --data '{"gif": "g169a7"}' --url https://share.example.com/ab
  kestrova share refresh YxTqP2ma9BcDeFgHiJ
  kestrova upload cat.gif --share-id BcDeFgHiJ --wait
  kestrova queue
  kestrova doctor)";

}  // namespace

ParseResult parseOptions(int argc, char** argv) {
  Options options;
  std::optional<std::string> secretFile;
  options.apiHost = environment("KESTROVA_API_HOST");
  options.apiVersion = environment("KESTROVA_API_VERSION").value_or(options.apiVersion);
  options.bundleId = environment("KESTROVA_BUNDLE_ID");
  options.home = environment("KESTROVA_HOME");
  options.secret = environment("KESTROVA_SECRET");
  options.debug = isOn(environment("KESTROVA_DEBUG"));

  CLI::App app("kestrova: a host application with the SDK inside, for people and scripts", "kestrova");
  app.footer("`kestrova --help` has the options of all commands, the environment, exit statuses and examples.");
  app.get_formatter()->column_width(34);
  app.set_version_flag("--version", "kestrova " KESTROVA_VERSION);
  app.add_option("--api-host", options.apiHost, "host of the API, with :PORT where it is not 443")->type_name("HOST");
  app.add_option("--api-version", options.apiVersion, "API version (default 1)")->type_name("VERSION");
  app.add_option("--bundle-id", options.bundleId, "the application's reverse-DNS identifier; without it events count as a test's")
      ->type_name("ID");
  app.add_option("--home", options.home, "folder for the application's state instead of the user's data folder")->type_name("DIR");
  app.add_option("--secret-file", secretFile, "file that holds the API secret")->type_name("FILE");
  app.add_option("--timeout", options.timeout, "seconds to wait for outcomes (default 30)")
      ->type_name("SECONDS")
      ->check(platform::usage::numberFrom(0.0, 1e6));
  app.add_flag("--debug", options.debug, "print trace lines to standard error as they are stored");
  app.add_flag("--json", options.json, "the report as one JSON object on standard output");
  addCommands(app, options);
  app.footer(kFooter);  // not for the commands, which have taken the other one

  try {
    app.parse(argc, argv);
    if (secretFile) options.secret = readSecretFile(*secretFile);
    requireArguments(options);
    if (options.home) options.home = absoluteFolder(*options.home);
    if (needsServer(options.command)) requireForSending(options);
    if (options.apiHost) requireHost(*options.apiHost);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return {std::nullopt, app.exit(error)};
    printError(platform::usage::refusalFor(app, error));
    return {std::nullopt, kBadInput};
  }
  return {std::move(options), 0};
}

}  // namespace cli
