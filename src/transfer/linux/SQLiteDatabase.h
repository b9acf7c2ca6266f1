// A connection to an SQLite file: statements that are prepared once, and transactions that end whole or not at all.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace transfer {

/// One use of a prepared statement; it is ready for the next use when this is gone.
class SQLiteStatement {
 public:
  explicit SQLiteStatement(sqlite3_stmt* statement) : statement_(statement) {}
  ~SQLiteStatement();
  SQLiteStatement(const SQLiteStatement&) = delete;
  SQLiteStatement& operator=(const SQLiteStatement&) = delete;

  SQLiteStatement& bind(std::int64_t number);
  SQLiteStatement& bind(double number);
  SQLiteStatement& bind(std::string_view text);
  SQLiteStatement& bind(const std::optional<double>& number);
  /// Whether there is a row. A failure shows in the database's result and ends the rows.
  bool next();

  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  double number(int column) const { return sqlite3_column_double(statement_, column); }
  std::string text(int column) const;
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  /// SQLITE_DONE after the last row.
  int result() const { return result_; }

 private:
  int bound() { return ++lastBound_; }
  void note(int result) {
    if (result != SQLITE_OK && bindResult_ == SQLITE_OK) bindResult_ = result;
  }

  sqlite3_stmt* statement_;  // null when it could not be prepared
  int lastBound_ = 0;
  int bindResult_ = SQLITE_OK;
  int result_ = SQLITE_ERROR;
};

class SQLiteDatabase {
 public:
  template <class T = void>
  using Result = std::expected<T, platform::Error>;

  /// Opens or makes the file, mode 0600.
  static Result<std::unique_ptr<SQLiteDatabase>> open(const std::string& path);
  ~SQLiteDatabase();
  SQLiteDatabase(const SQLiteDatabase&) = delete;
  SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

  /// Runs statements that yield nothing that matters.
  Result<> run(const std::string& sql);
  /// `sql` must be a text that lives as long as the program.
  SQLiteStatement statement(const char* sql);
  /// Runs a prepared statement that yields no rows.
  template <class... Values>
  Result<> change(const char* sql, const Values&... values) {
    SQLiteStatement use = statement(sql);
    (use.bind(values), ...);
    while (use.next()) {
    }
    return use.result() == SQLITE_DONE ? Result<>() : std::unexpected(lastError(use.result()));
  }
  /// Runs the body in a transaction: committed when the body succeeds, else taken back whole.
  template <class Body>
  auto transaction(const Body& body) -> decltype(body()) {
    if (auto begun = change("BEGIN IMMEDIATE"); !begun) return std::unexpected(begun.error());
    auto result = body();
    if (result) {
      auto committed = change("COMMIT");
      if (committed) return result;
      result = std::unexpected(committed.error());
    }
    takeBack();
    return result;
  }

  std::int64_t lastRow() const { return sqlite3_last_insert_rowid(database_); }
  int changes() const { return sqlite3_changes(database_); }
  /// What the last call failed with.
  platform::Error lastError(int code) const;

 private:
  SQLiteDatabase(sqlite3* database, std::string path) : database_(database), path_(std::move(path)) {}
  void takeBack();

  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  sqlite3* database_;
  std::string path_;
  std::map<const char*, std::unique_ptr<sqlite3_stmt, Finalizer>> statements_;
};

/// The error for one of SQLite's result codes; its text says what to do. The code itself stays underneath.
platform::Error sqliteError(int code, const std::string& path, std::string_view detail);
/// Whether an error says that the file is no database, or a damaged one.
bool isDamage(const platform::Error& error);

}  // namespace transfer
