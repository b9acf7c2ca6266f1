// The transfer store's tables. A task and an event hold their entry and status as the protocol writes them, beside what the tables
// are searched and joined by.
#include "transfer/linux/SQLiteStore.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <utility>

#include "platform/SystemLog.h"
#include "platform/linux/FileErrors.h"
#include "transfer/linux/SQLiteDatabase.h"

namespace transfer {
namespace {

constexpr std::int64_t kSchemaVersion = 1;

constexpr const char* kSettings =
    "PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = FULL;"
    "PRAGMA foreign_keys = ON;";

constexpr const char* kSchema =
    "CREATE TABLE application ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, identifier TEXT NOT NULL, folder TEXT NOT NULL, token TEXT NOT NULL,"
    "  failedLaunches INTEGER NOT NULL DEFAULT 0, nextLaunchAt REAL NOT NULL DEFAULT 0,"
    "  UNIQUE (identifier, folder));"
    "CREATE TABLE launchArgument ("
    "  application INTEGER NOT NULL REFERENCES application ON DELETE CASCADE, position INTEGER NOT NULL, text TEXT NOT NULL,"
    "  PRIMARY KEY (application, position)) WITHOUT ROWID;"
    "CREATE TABLE session ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, application INTEGER NOT NULL REFERENCES application, identifier TEXT NOT NULL,"
    "  isInvalidated INTEGER NOT NULL DEFAULT 0,"
    "  UNIQUE (application, identifier));"
    "CREATE TABLE task ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, session INTEGER NOT NULL REFERENCES session ON DELETE CASCADE, number TEXT NOT NULL,"
    "  spoolName TEXT NOT NULL UNIQUE, hasLeftSpool INTEGER NOT NULL DEFAULT 0, hasEnded INTEGER NOT NULL DEFAULT 0,"
    "  entry TEXT NOT NULL, status TEXT NOT NULL,"
    "  UNIQUE (session, number));"
    "CREATE TABLE event ("
    "  session INTEGER NOT NULL REFERENCES session ON DELETE CASCADE, sequence INTEGER NOT NULL, status TEXT NOT NULL,"
    "  PRIMARY KEY (session, sequence)) WITHOUT ROWID;";

// A status is kept as the message that would tell it.
std::string statusText(const TaskStatus& status) { return encode(TaskEvent{.session = "-", .event = 0, .task = status}); }

std::optional<TaskStatus> statusOf(const std::string& text) {
  const std::expected<Message, std::string> message = decode(text);
  const TaskEvent* const event = message ? std::get_if<TaskEvent>(&*message) : nullptr;
  return event ? std::optional(event->task) : std::nullopt;
}

class TableStore final : public Store {
 public:
  TableStore(std::unique_ptr<SQLiteDatabase> database, std::string path) : database_(std::move(database)), path_(std::move(path)) {}

  /// Puts the settings in force and makes or checks the tables.
  Result<> prepare(const SQLiteStoreOptions& options);

  Result<Contents> load() override;
  Result<ApplicationId> saveApplication(const ApplicationIdentity& identity,
                                        const std::vector<std::string>& launchCommand) override;
  Result<> saveLaunches(ApplicationId application, std::uint64_t failedLaunches, double nextLaunchAt) override;
  Result<std::pair<SessionId, TaskId>> addTask(ApplicationId application, const SpoolEntry& entry, const std::string& spoolName,
                                               const TaskStatus& status) override;
  Result<> saveLeftSpool(TaskId task) override;
  Result<> saveTask(TaskId task, const TaskStatus& status) override;
  Result<> endTask(TaskId task, const TaskStatus& status, std::uint64_t sequence) override;
  Result<> saveInvalidated(SessionId session) override;
  Result<> removeEvent(SessionId session, std::uint64_t sequence) override;
  Result<> removeSession(SessionId session) override;

 private:
  /// One row, by its key; the error when there is none.
  template <class... Values>
  Result<> changeOne(const char* sql, const Values&... values) {
    return database_->transaction([&] { return changeOneWithin(sql, values...); });
  }
  template <class... Values>
  Result<> changeOneWithin(const char* sql, const Values&... values) {
    if (auto changed = database_->change(sql, values...); !changed) return changed;
    if (database_->changes() == 1) return {};
    return std::unexpected(misfit());
  }
  static platform::Error misfit() {
    return {platform::kCocoaErrorDomain, platform::kFileWriteUnknown,
            "The transfer store refuses a change that does not fit what it holds."};
  }
  platform::Error unreadable(std::string_view what) const { return sqliteError(SQLITE_CORRUPT, path_, what); }

  Result<std::int64_t> schemaVersion();
  /// Calls the body for each row; the body says whether it could read it.
  Result<> eachRow(const char* sql, const std::function<bool(const SQLiteStatement&)>& body);
  Result<> loadApplications(Contents& contents);
  Result<> loadSessions(Contents& contents);
  Result<> loadTasks(Contents& contents);
  Result<> loadEvents(Contents& contents);
  Result<> saveLaunchCommand(ApplicationId application, const std::vector<std::string>& launchCommand);
  Result<SessionId> sessionFor(ApplicationId application, const std::string& identifier);

  std::unique_ptr<SQLiteDatabase> database_;
  std::string path_;
};

Store::Result<std::int64_t> TableStore::schemaVersion() {
  SQLiteStatement statement = database_->statement("PRAGMA user_version");
  if (!statement.next()) return std::unexpected(database_->lastError(statement.result()));
  return statement.integer(0);
}

Store::Result<> TableStore::prepare(const SQLiteStoreOptions& options) {
  if (auto set = database_->run(kSettings); !set) return set;
  if (options.maxPageCount > 0)
    if (auto set = database_->run("PRAGMA max_page_count = " + std::to_string(options.maxPageCount)); !set) return set;
  const Result<std::int64_t> version = schemaVersion();
  if (!version) return std::unexpected(version.error());
  if (*version == kSchemaVersion) return {};
  if (*version != 0) {
    return std::unexpected(platform::Error(platform::kCocoaErrorDomain, platform::kFileReadUnknown,
                                           "The transfer store “" + path_ + "” has version " + std::to_string(*version) +
                                               ", which this service does not know; use the service that wrote it."));
  }
  return database_->transaction(
      [&] { return database_->run(std::string(kSchema) + "PRAGMA user_version = " + std::to_string(kSchemaVersion)); });
}

Store::Result<> TableStore::eachRow(const char* sql, const std::function<bool(const SQLiteStatement&)>& body) {
  SQLiteStatement statement = database_->statement(sql);
  while (statement.next())
    if (!body(statement)) return std::unexpected(unreadable("a row cannot be read"));
  if (statement.result() != SQLITE_DONE) return std::unexpected(database_->lastError(statement.result()));
  return {};
}

Store::Result<Contents> TableStore::load() {
  Contents contents;
  for (const auto part :
       {&TableStore::loadApplications, &TableStore::loadSessions, &TableStore::loadTasks, &TableStore::loadEvents})
    if (auto loaded = (this->*part)(contents); !loaded) return std::unexpected(loaded.error());
  return contents;
}

Store::Result<> TableStore::loadApplications(Contents& contents) {
  auto loaded = eachRow("SELECT id, identifier, folder, token, failedLaunches, nextLaunchAt FROM application ORDER BY id",
                        [&](const SQLiteStatement& row) {
                          StoredApplication& application = contents.applications.emplace_back();
                          application.id = row.integer(0);
                          application.identity = {.identifier = row.text(1), .folder = row.text(2), .token = row.text(3)};
                          application.failedLaunches = static_cast<std::uint64_t>(row.integer(4));
                          application.nextLaunchAt = row.number(5);
                          return true;
                        });
  if (!loaded) return loaded;
  auto next = contents.applications.begin();  // both are sorted by the application
  return eachRow("SELECT application, text FROM launchArgument ORDER BY application, position", [&](const SQLiteStatement& row) {
    while (next != contents.applications.end() && next->id != row.integer(0)) ++next;
    if (next == contents.applications.end()) return false;
    next->launchCommand.push_back(row.text(1));
    return true;
  });
}

Store::Result<> TableStore::loadSessions(Contents& contents) {
  return eachRow("SELECT id, application, identifier, isInvalidated FROM session ORDER BY id", [&](const SQLiteStatement& row) {
    contents.sessions.push_back(
        {.id = row.integer(0), .application = row.integer(1), .identifier = row.text(2), .isInvalidated = row.integer(3) != 0});
    return true;
  });
}

Store::Result<> TableStore::loadTasks(Contents& contents) {
  return eachRow("SELECT id, session, spoolName, hasLeftSpool, entry, status FROM task ORDER BY id",
                 [&](const SQLiteStatement& row) {
                   std::expected<SpoolEntry, std::string> entry = decodeSpoolEntry(row.text(4));
                   std::optional<TaskStatus> status = statusOf(row.text(5));
                   if (!entry || !status) return false;
                   contents.tasks.push_back({.id = row.integer(0),
                                             .session = row.integer(1),
                                             .entry = *std::move(entry),
                                             .spoolName = row.text(2),
                                             .hasLeftSpool = row.integer(3) != 0,
                                             .status = *std::move(status)});
                   return true;
                 });
}

Store::Result<> TableStore::loadEvents(Contents& contents) {
  return eachRow("SELECT session, sequence, status FROM event ORDER BY session, sequence", [&](const SQLiteStatement& row) {
    std::optional<TaskStatus> status = statusOf(row.text(2));
    if (!status) return false;
    contents.events.push_back(
        {.session = row.integer(0), .sequence = static_cast<std::uint64_t>(row.integer(1)), .task = *std::move(status)});
    return true;
  });
}

Store::Result<ApplicationId> TableStore::saveApplication(const ApplicationIdentity& identity,
                                                         const std::vector<std::string>& launchCommand) {
  return database_->transaction([&]() -> Result<ApplicationId> {
    const auto saved = database_->change(
        "INSERT INTO application (identifier, folder, token) VALUES (?, ?, ?) "
        "ON CONFLICT (identifier, folder) DO UPDATE SET token = excluded.token",
        std::string_view(identity.identifier), std::string_view(identity.folder), std::string_view(identity.token));
    if (!saved) return std::unexpected(saved.error());
    SQLiteStatement find = database_->statement("SELECT id FROM application WHERE identifier = ? AND folder = ?");
    find.bind(std::string_view(identity.identifier)).bind(std::string_view(identity.folder));
    if (!find.next()) return std::unexpected(database_->lastError(find.result()));
    const ApplicationId id = find.integer(0);
    if (auto command = saveLaunchCommand(id, launchCommand); !command) return std::unexpected(command.error());
    return id;
  });
}

Store::Result<> TableStore::saveLaunchCommand(ApplicationId application, const std::vector<std::string>& launchCommand) {
  if (auto removed = database_->change("DELETE FROM launchArgument WHERE application = ?", application); !removed) return removed;
  std::int64_t position = 0;
  for (const std::string& argument : launchCommand) {
    auto added = database_->change("INSERT INTO launchArgument (application, position, text) VALUES (?, ?, ?)", application,
                                   position++, std::string_view(argument));
    if (!added) return added;
  }
  return {};
}

Store::Result<> TableStore::saveLaunches(ApplicationId application, std::uint64_t failedLaunches, double nextLaunchAt) {
  return changeOne("UPDATE application SET failedLaunches = ?, nextLaunchAt = ? WHERE id = ?",
                   static_cast<std::int64_t>(failedLaunches), nextLaunchAt, application);
}

Store::Result<SessionId> TableStore::sessionFor(ApplicationId application, const std::string& identifier) {
  {
    SQLiteStatement find = database_->statement("SELECT id FROM session WHERE application = ? AND identifier = ?");
    find.bind(application).bind(std::string_view(identifier));
    if (find.next()) return find.integer(0);
    if (find.result() != SQLITE_DONE) return std::unexpected(database_->lastError(find.result()));
  }
  const auto added =
      database_->change("INSERT INTO session (application, identifier) VALUES (?, ?)", application, std::string_view(identifier));
  if (!added) return std::unexpected(added.error());
  return database_->lastRow();
}

Store::Result<std::pair<SessionId, TaskId>> TableStore::addTask(ApplicationId application, const SpoolEntry& entry,
                                                                const std::string& spoolName, const TaskStatus& status) {
  return database_->transaction([&]() -> Result<std::pair<SessionId, TaskId>> {
    const Result<SessionId> session = sessionFor(application, entry.session);
    if (!session) return std::unexpected(session.error());
    // The number fills 64 bits without a sign, which SQLite's own numbers do not.
    const auto added = database_->change("INSERT INTO task (session, number, spoolName, entry, status) VALUES (?, ?, ?, ?, ?)",
                                         *session, std::string_view(std::to_string(entry.task)), std::string_view(spoolName),
                                         std::string_view(encode(entry)), std::string_view(statusText(status)));
    if (!added) return std::unexpected(added.error());
    return std::pair(*session, TaskId{database_->lastRow()});
  });
}

Store::Result<> TableStore::saveLeftSpool(TaskId task) { return changeOne("UPDATE task SET hasLeftSpool = 1 WHERE id = ?", task); }

Store::Result<> TableStore::saveTask(TaskId task, const TaskStatus& status) {
  return changeOne("UPDATE task SET status = ? WHERE id = ? AND hasEnded = 0", std::string_view(statusText(status)), task);
}

Store::Result<> TableStore::endTask(TaskId task, const TaskStatus& status, std::uint64_t sequence) {
  const std::string text = statusText(status);
  return database_->transaction([&]() -> Result<> {
    auto ended =
        changeOneWithin("UPDATE task SET status = ?, hasEnded = 1 WHERE id = ? AND hasEnded = 0", std::string_view(text), task);
    if (!ended) return ended;
    return changeOneWithin("INSERT INTO event (session, sequence, status) SELECT session, ?, ? FROM task WHERE id = ?",
                           static_cast<std::int64_t>(sequence), std::string_view(text), task);
  });
}

Store::Result<> TableStore::saveInvalidated(SessionId session) {
  return changeOne("UPDATE session SET isInvalidated = 1 WHERE id = ?", session);
}

Store::Result<> TableStore::removeEvent(SessionId session, std::uint64_t sequence) {
  return database_->change("DELETE FROM event WHERE session = ? AND sequence = ?", session, static_cast<std::int64_t>(sequence));
}

Store::Result<> TableStore::removeSession(SessionId session) {
  return database_->change("DELETE FROM session WHERE id = ?", session);
}

Store::Result<std::unique_ptr<Store>> openOnce(const std::string& path, const SQLiteStoreOptions& options) {
  auto database = SQLiteDatabase::open(path);
  if (!database) return std::unexpected(database.error());
  auto store = std::make_unique<TableStore>(*std::move(database), path);
  if (auto prepared = store->prepare(options); !prepared) return std::unexpected(prepared.error());
  // Read once at the opening, so that damage shows while the file can still be moved aside.
  if (const auto contents = store->load(); !contents) return std::unexpected(contents.error());
  return store;
}

std::string freeAsideName(const std::string& path) {
  for (int n = 1;; ++n) {
    std::string name = path + ".corrupt-" + std::to_string(n);
    if (::access(name.c_str(), F_OK) != 0) return name;
  }
}

// The log goes with its file; left behind, it would be played into the new one.
Store::Result<> moveAside(const std::string& path) {
  const std::string aside = freeAsideName(path);
  if (std::rename(path.c_str(), aside.c_str()) != 0) return std::unexpected(platform::fileWritingError(errno, path, false));
  for (const char* const suffix : {"-wal", "-shm"}) {
    if (std::rename((path + suffix).c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT)
      return std::unexpected(platform::fileWritingError(errno, path + suffix, false));
  }
  platform::SystemLog::systemLog().log("The transfer store was damaged. It lies in " + aside +
                                       " now; uploads that only it knew are not made. The service goes on with an empty one.");
  return {};
}

}  // namespace

Store::Result<std::unique_ptr<Store>> SQLiteStore::open(const std::string& path, SQLiteStoreOptions options) {
  auto store = openOnce(path, options);
  if (store || !isDamage(store.error())) return store;
  if (auto moved = moveAside(path); !moved) return std::unexpected(moved.error());
  return openOnce(path, options);
}

}  // namespace transfer
