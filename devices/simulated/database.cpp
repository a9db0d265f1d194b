// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/database.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <new>
#include <thread>

namespace kelm::devices {
namespace {

// Another process holds the store for one command only; this is a wait for a process that was stopped.
constexpr int kBusySeconds = 5;

constexpr std::string_view kRollback = "ROLLBACK";

// What the system said to a failed input or output; 0 when it is not known. SQLite's own copy of the number is not
// always filled, and the one left behind may be that of a step which cleaned up.
int whyFailed(sqlite3 *database, int left) {
  constexpr int kTelling[] = {ENOSPC, EDQUOT, EFBIG, EROFS, EACCES, EPERM};
  const int known = sqlite3_system_errno(database);
  const int error = known ? known : left;
  return std::ranges::find(kTelling, error) != std::end(kTelling) ? error : 0;
}

// The same for a file that SQLite cannot open.
int whyNotOpened(const std::string &path, int error) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  return error ? error : EACCES;
}

}  // namespace

Database::Database(const char *path, const std::string &name, int flags) : name_(name) {
  // SQLite takes some names for more than a path; one that begins with a folder it does not.
  const std::string plain = !path ? ":memory:" : *path == '/' ? path : std::string("./") + path;
  sqlite3 *database = nullptr;
  const int result =
      sqlite3_open_v2(plain.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
  handle_.reset(database);
  if (!database) throw std::bad_alloc();
  if (result == SQLITE_CANTOPEN) throw systemFailure(name_, whyNotOpened(plain, sqlite3_system_errno(database)));
  if (result != SQLITE_OK) fail();
  sqlite3_busy_timeout(database, kBusySeconds * 1000);
}

void Database::execute(const char *sql) {
  if (sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

void Database::leaveLog() {
  using std::chrono::steady_clock;
  const auto end = steady_clock::now() + std::chrono::seconds(kBusySeconds);
  while (sqlite3_exec(handle_.get(), "PRAGMA journal_mode = DELETE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    if ((sqlite3_errcode(handle_.get()) & 0xFF) != SQLITE_BUSY || steady_clock::now() >= end) fail();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

std::int64_t Database::number(std::string_view sql) {
  Query query(*this, sql);
  return query.next() ? query.integer(0) : 0;
}

sqlite3_stmt *Database::prepared(std::string_view sql) {
  auto &statement = statements_[sql];
  if (!statement) {
    sqlite3_stmt *made = nullptr;
    const int result = sqlite3_prepare_v3(handle_.get(), sql.data(), static_cast<int>(sql.size()),
                                          SQLITE_PREPARE_PERSISTENT, &made, nullptr);
    if (result != SQLITE_OK) fail();
    statement.reset(made);
  }
  return statement.get();
}

void Database::fail() const {
  const int left = errno;
  const int result = sqlite3_extended_errcode(handle_.get());
  if (result == SQLITE_NOMEM || result == SQLITE_IOERR_NOMEM) throw std::bad_alloc();
  switch (result & 0xFF) {
    case SQLITE_CANTOPEN:
    case SQLITE_IOERR:
      if (const int error = whyFailed(handle_.get(), left)) throw systemFailure(name_, error);
      throw StoreError(SIMULATOR_STORE_FAILED, name_ + ": " + sqlite3_errmsg(handle_.get()));
    case SQLITE_FULL:
      throw systemFailure(name_, ENOSPC);
    case SQLITE_PERM:
    case SQLITE_AUTH:
      throw systemFailure(name_, EACCES);
    case SQLITE_NOTADB:
      throw StoreError(SIMULATOR_NOT_A_STORE, name_ + ": not the store of a token");
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      throw StoreError(SIMULATOR_STORE_BUSY, name_ + ": another program has held the token for more than " +
                                                 std::to_string(kBusySeconds) + " seconds");
    case SQLITE_READONLY:
      if (result == SQLITE_READONLY_DIRECTORY) throw systemFailure(name_, EACCES);
      if (result == SQLITE_READONLY_DBMOVED) {
        throw StoreError(SIMULATOR_STORE_FAILED, name_ + ": was moved or removed while in use");
      }
      throw StoreError(SIMULATOR_STORE_READ_ONLY, name_ + ": may only be read");
    // A schema that lacks what the statements name, values that cannot be there.
    case SQLITE_CORRUPT:
    case SQLITE_ERROR:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
    case SQLITE_FORMAT:
    case SQLITE_TOOBIG:
      damaged(sqlite3_errmsg(handle_.get()));
    default:
      throw StoreError(SIMULATOR_STORE_FAILED, name_ + ": " + sqlite3_errmsg(handle_.get()));
  }
}

void Database::damaged(std::string_view what) const {
  throw StoreError(SIMULATOR_STORE_DAMAGED, name_ + ": the store of the token is damaged (" + std::string(what) + ")");
}

Query &Query::bindRow(const Query &from) {
  for (int column = 0; column < sqlite3_column_count(from.statement_); ++column) {
    checked(sqlite3_bind_value(statement_, column + 1, sqlite3_column_value(from.statement_, column)));
  }
  return *this;
}

bool Query::next() {
  const int result = sqlite3_step(statement_);
  if (result != SQLITE_ROW && result != SQLITE_DONE) database_.fail();
  return result == SQLITE_ROW;
}

// SQLite answers null both for an empty value and for exhausted memory.
Bytes Query::bytes(int column) const {
  const auto *data = static_cast<const std::uint8_t *>(sqlite3_column_blob(statement_, column));
  if (!data && sqlite3_errcode(database_.handle_.get()) == SQLITE_NOMEM) throw std::bad_alloc();
  return data ? Bytes(data, data + sqlite3_column_bytes(statement_, column)) : Bytes();
}

std::string Query::text(int column) const {
  const Bytes data = bytes(column);
  return {data.begin(), data.end()};
}

void Transaction::begin() {
  // Prepared now: to undo must not need memory.
  const Query undo(database_, kRollback);
  Query(database_, database_.readOnly() ? "BEGIN" : "BEGIN IMMEDIATE").next();
}

void Transaction::commit() { Query(database_, "COMMIT").next(); }

Transaction::~Transaction() {
  if (!database_.inTransaction()) return;
  try {
    Query(database_, kRollback).next();
  } catch (...) {
    // SQLite rolls back by itself when the connection closes.
  }
}

}  // namespace kelm::devices
