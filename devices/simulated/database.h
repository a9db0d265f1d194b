// SPDX-License-Identifier: Apache-2.0
// SQLite with its failures as StoreError.
#ifndef KELMTROVA_DEVICES_SIMULATED_DATABASE_H
#define KELMTROVA_DEVICES_SIMULATED_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "devices/simulated/failure.h"

namespace kelm::devices {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// One connection to a database, for one thread at a time.
class Database {
 public:
  // Opens the file at `path`, which error texts call `name`; null opens a new database in memory.
  Database(const char *path, const std::string &name, int flags);

  // Runs statements whose rows do not matter.
  void execute(const char *sql);
  std::int64_t number(std::string_view sql);
  // Gives up a write-ahead log; waits for other connections, which SQLite itself does not here.
  void leaveLog();
  bool readOnly() const { return sqlite3_db_readonly(handle_.get(), "main") == 1; }
  bool inTransaction() const { return !sqlite3_get_autocommit(handle_.get()); }
  const std::string &name() const { return name_; }

  // SQLite's last failure.
  [[noreturn]] void fail() const;
  // The contents are not what they must be.
  [[noreturn]] void damaged(std::string_view what) const;

 private:
  friend class Query;
  struct Close {
    void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
  };
  struct Finalize {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
  };
  sqlite3_stmt *prepared(std::string_view sql);

  std::string name_;
  std::unique_ptr<sqlite3, Close> handle_;
  std::map<std::string_view, std::unique_ptr<sqlite3_stmt, Finalize>> statements_;
};

// One run of a statement; column numbers count from 0, parameters from 1. Statements stay prepared, so their text must
// be a literal.
class Query {
 public:
  Query(Database &database, std::string_view sql) : database_(database), statement_(database.prepared(sql)) {}
  ~Query() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  Query(const Query &) = delete;
  Query &operator=(const Query &) = delete;

  Query &bind(int index, std::int64_t value) { return checked(sqlite3_bind_int64(statement_, index, value)); }
  Query &bind(int index, std::string_view text) {
    return checked(sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
  }
  Query &bind(int index, ByteView bytes) {
    return checked(sqlite3_bind_blob64(statement_, index, bytes.empty() ? "" : static_cast<const void *>(bytes.data()),
                                       bytes.size(), SQLITE_STATIC));
  }
  // The whole row of another query, column by column.
  Query &bindRow(const Query &from);
  // Whether there is a (further) row.
  bool next();
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  Bytes bytes(int column) const;
  std::string text(int column) const;
  bool isInteger(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_INTEGER; }

 private:
  Query &checked(int result) {
    if (result != SQLITE_OK) database_.fail();
    return *this;
  }

  Database &database_;
  sqlite3_stmt *statement_;
};

// A stretch of work that happens whole or not at all; it is undone unless committed. It waits until no other connection
// writes, and keeps others from writing; on a database that may only be read it reads one state of it.
class Transaction {
 public:
  explicit Transaction(Database &database) : database_(database) { begin(); }
  ~Transaction();
  Transaction(const Transaction &) = delete;
  Transaction &operator=(const Transaction &) = delete;
  void begin();
  void commit();

 private:
  Database &database_;
};

}  // namespace kelm::devices

#endif
