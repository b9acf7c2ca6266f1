// The transfer store in one SQLite file: write-ahead log, synced at each commit.
#pragma once

#include <memory>
#include <string>

#include "transfer/core/Store.h"

namespace transfer {

struct SQLiteStoreOptions {
  /// The largest size of the file in pages; 0 leaves it to the system. A test's full disk.
  int maxPageCount = 0;
};

class SQLiteStore {
 public:
  SQLiteStore() = delete;

  /// Opens the store at `path`, an absolute path in a folder of the user's own; makes it, mode 0600, when there is none. A file
  /// that is no store, or a damaged one, is moved aside to `<path>.corrupt-<n>`, which the system log tells, and an empty one takes
  /// its place. Fails when the file cannot be opened or was written by a later version of the service. The store is for one thread
  /// at a time.
  static Store::Result<std::unique_ptr<Store>> open(const std::string& path, SQLiteStoreOptions options = {});
};

}  // namespace transfer
