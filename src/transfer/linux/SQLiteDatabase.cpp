// SQLite's C interface, its failures as errors.
#include "transfer/linux/SQLiteDatabase.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"

namespace transfer {
namespace {

constexpr const char* kSQLiteErrorDomain = "SQLiteErrorDomain";
constexpr int kBusyTimeout = 5000;  // milliseconds

struct Explanation {
  std::int64_t code;
  const char* text;
};

Explanation explanationOf(int code) {
  switch (code & 0xff) {
    case SQLITE_FULL:
      return {platform::kFileWriteOutOfSpace, "because the volume is out of space; free some, the service goes on by itself"};
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return {platform::kFileWriteNoPermission,
              "because its permissions do not let the service write it; give it to its user, mode 600"};
    case SQLITE_CANTOPEN:
      return {platform::kFileWriteNoPermission, "because it cannot be opened; look at the permissions of its folder"};
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return {platform::kPropertyListReadCorrupt, "because it is damaged; start the service anew, which moves it aside"};
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return {platform::kFileWriteUnknown, "because another program keeps it locked; end that program"};
    case SQLITE_IOERR:
      return {platform::kFileWriteUnknown, "because its volume fails or is out of space; look at the volume"};
    default:
      return {platform::kFileWriteUnknown, "because of a failure that the service does not know"};
  }
}

// SQLite would make the file with the mode that the user's mask leaves.
std::expected<void, platform::Error> makePrivate(const std::string& path) {
  const platform::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (file.get() < 0) return std::unexpected(platform::fileWritingError(errno, path, true));
  return {};
}

}  // namespace

platform::Error sqliteError(int code, const std::string& path, std::string_view detail) {
  const Explanation explanation = explanationOf(code);
  return {platform::kCocoaErrorDomain,
          explanation.code,
          "The transfer store “" + path + "” couldn’t be used " + explanation.text + ". (" + std::string(detail) + ")",
          {},
          std::make_shared<platform::Error>(kSQLiteErrorDomain, code, std::string(detail))};
}

bool isDamage(const platform::Error& error) {
  if (!error.underlyingError() || error.underlyingError()->domain() != kSQLiteErrorDomain) return false;
  const std::int64_t code = error.underlyingError()->code() & 0xff;
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

SQLiteStatement::~SQLiteStatement() {
  if (!statement_) return;
  static_cast<void>(sqlite3_reset(statement_));  // repeats the failure that next() has shown
  static_cast<void>(sqlite3_clear_bindings(statement_));
}

SQLiteStatement& SQLiteStatement::bind(std::int64_t number) {
  note(sqlite3_bind_int64(statement_, bound(), number));
  return *this;
}

SQLiteStatement& SQLiteStatement::bind(double number) {
  note(sqlite3_bind_double(statement_, bound(), number));
  return *this;
}

SQLiteStatement& SQLiteStatement::bind(std::string_view text) {
  note(sqlite3_bind_text64(statement_, bound(), text.data() ? text.data() : "", text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
  return *this;
}

SQLiteStatement& SQLiteStatement::bind(const std::optional<double>& number) {
  if (number) return bind(*number);
  note(sqlite3_bind_null(statement_, bound()));
  return *this;
}

bool SQLiteStatement::next() {
  if (!statement_ || bindResult_ != SQLITE_OK) return false;
  result_ = sqlite3_step(statement_);
  return result_ == SQLITE_ROW;
}

std::string SQLiteStatement::text(int column) const {
  const unsigned char* const text = sqlite3_column_text(statement_, column);
  if (!text) return {};
  return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

SQLiteDatabase::Result<std::unique_ptr<SQLiteDatabase>> SQLiteDatabase::open(const std::string& path) {
  if (auto made = makePrivate(path); !made) return std::unexpected(made.error());
  sqlite3* handle = nullptr;
  const int code =
      sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
  // There is a handle also after a failure, and it is to be closed.
  std::unique_ptr<SQLiteDatabase> database(new SQLiteDatabase(handle, path));
  if (code != SQLITE_OK) return std::unexpected(sqliteError(code, path, sqlite3_errstr(code)));
  if (const int set = sqlite3_busy_timeout(handle, kBusyTimeout); set != SQLITE_OK)
    return std::unexpected(sqliteError(set, path, sqlite3_errstr(set)));
  return database;
}

SQLiteDatabase::~SQLiteDatabase() {
  statements_.clear();
  static_cast<void>(sqlite3_close_v2(database_));  // what is committed is on the disk
}

SQLiteDatabase::Result<> SQLiteDatabase::run(const std::string& sql) {
  const int code = sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) return std::unexpected(lastError(code));
  return {};
}

SQLiteStatement SQLiteDatabase::statement(const char* sql) {
  auto& known = statements_[sql];
  if (!known) {
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) == SQLITE_OK) known.reset(prepared);
  }
  return SQLiteStatement(known.get());
}

platform::Error SQLiteDatabase::lastError(int code) const {
  // A statement that could not be prepared has told its code to the connection only.
  const int known = code == SQLITE_ERROR ? sqlite3_extended_errcode(database_) : code;
  return sqliteError(known, path_, sqlite3_errmsg(database_));
}

// Some failures, a full disk among them, have ended the transaction already.
void SQLiteDatabase::takeBack() {
  if (sqlite3_get_autocommit(database_) != 0) return;
  static_cast<void>(sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr));
}

}  // namespace transfer
