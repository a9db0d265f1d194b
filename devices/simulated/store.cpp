// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/store.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace kelm::devices {
namespace {

// "KELT": tells a token's store from other SQLite databases.
constexpr std::int64_t kApplicationId = 0x4B454C54;
constexpr std::int64_t kLayoutVersion = 1;
// Another process holds the store for one command only; this is a wait for a process that was stopped.
constexpr int kBusyMilliseconds = 5000;

constexpr std::size_t kCounterFileSize = 8;
constexpr std::size_t kBlockFileSize = 0x80;

constexpr const char *kSchema = R"(
  CREATE TABLE parameter (name TEXT PRIMARY KEY, value NOT NULL) WITHOUT ROWID;
  CREATE TABLE file (fid INTEGER PRIMARY KEY, content BLOB NOT NULL);
  CREATE TABLE image (first_line INTEGER PRIMARY KEY, lines INTEGER NOT NULL, pixels BLOB NOT NULL);
  PRAGMA application_id = 0x4B454C54;
  PRAGMA user_version = 1;
)";

// In the order of Store::Sql.
constexpr const char *kStatements[] = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT value FROM parameter WHERE name = ?",
    "INSERT OR REPLACE INTO parameter VALUES (?, ?)",
    "SELECT content FROM file WHERE fid = ?",
    "INSERT INTO file VALUES (?, ?)",
    "UPDATE file SET content = ?2 WHERE fid = ?1",
    "DELETE FROM file WHERE fid = ?",
    "SELECT fid FROM file ORDER BY fid",
    "SELECT total(length(content)) FROM file",
    "SELECT first_line, lines, length(pixels) / lines FROM image ORDER BY first_line DESC LIMIT 1",
    "DELETE FROM image",
    "INSERT OR REPLACE INTO image VALUES (?, ?, ?)",
    "SELECT lines, pixels FROM image ORDER BY first_line",
    "PRAGMA quick_check(1)",
};

struct NamedValue {
  std::string_view name;
  std::int64_t value;
};

// The parameters with which every token starts; the other ones come from the personalisation.
constexpr NamedValue kFirstParameters[] = {
    {kPinRequired, 0}, {kPinTriesLeft, kMaxPinTries}, {kVerifyMode, 0},
    {kTimeOut, 10},    {kSecurityLevel, 3},           {kImageGain, 0x80},
    {kFingerCache, 0},
};

}  // namespace

// One run of a prepared statement; column numbers count from 0, parameters from 1.
class Query {
 public:
  Query(Store &store, Store::Sql sql) : store_(store), statement_(store.prepared(sql)) {}
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
  bool next() {
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) store_.fail();
    return result == SQLITE_ROW;
  }
  std::int64_t integer(int column) { return sqlite3_column_int64(statement_, column); }
  Bytes bytes(int column) {
    const auto *data = static_cast<const std::uint8_t *>(sqlite3_column_blob(statement_, column));
    return data ? Bytes(data, data + sqlite3_column_bytes(statement_, column)) : Bytes();
  }
  std::string text(int column) {
    const auto *data = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
    return data ? data : "";
  }

 private:
  Query &checked(int result) {
    if (result != SQLITE_OK) store_.fail();
    return *this;
  }

  Store &store_;
  sqlite3_stmt *statement_;
};

Store::Store(const std::string &path, int flags) : name_(path) {
  sqlite3 *database = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  database_.reset(database);
  if (!database) throw std::bad_alloc();
  if (result != SQLITE_OK) fail();
  sqlite3_extended_result_codes(database, 1);
  sqlite3_busy_timeout(database, kBusyMilliseconds);
}

Store::Store(const std::string &path) : Store(path, SQLITE_OPEN_READWRITE) {
  const auto number = [this](const char *sql) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr) != SQLITE_OK) fail();
    const std::unique_ptr<sqlite3_stmt, Finalize> owner(statement);
    if (sqlite3_step(statement) != SQLITE_ROW) fail();
    return sqlite3_column_int64(statement, 0);
  };
  if (number("PRAGMA application_id") != kApplicationId) throw StoreError(name_ + ": not the store of a token");
  if (number("PRAGMA user_version") != kLayoutVersion) {
    throw StoreError(name_ + ": the store of a token of another version");
  }
  execute("PRAGMA synchronous = FULL");
  if (!sound()) throw StoreError(name_ + ": the store of the token is damaged");
}

Store Store::inMemory(const Personalisation &personalisation) {
  Store store(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  store.personalise(personalisation);
  return store;
}

void Store::create(const std::string &path, const Personalisation &personalisation) {
  const auto refuse = [&](const char *why) { throw StoreError(path + ": " + why); };
  std::error_code ignored;
  if (std::filesystem::exists(path, ignored)) refuse("exists already");
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder, ignored);

  // Filled under another name and linked into its place at the end, so that nobody meets a half-made token.
  std::string draft = path + ".XXXXXX";
  const int file = mkstemp(draft.data());
  if (file < 0) refuse(std::strerror(errno));
  close(file);
  try {
    Store store(draft, SQLITE_OPEN_READWRITE);
    store.execute("PRAGMA journal_mode = WAL");
    store.personalise(personalisation);
  } catch (...) {
    unlink(draft.c_str());
    throw;
  }
  const int failure = link(draft.c_str(), path.c_str()) == 0 ? 0 : errno;
  unlink(draft.c_str());
  if (failure) refuse(failure == EEXIST ? "exists already" : std::strerror(failure));
}

void Store::personalise(const Personalisation &personalisation) {
  execute("BEGIN IMMEDIATE");
  execute(kSchema);
  for (const NamedValue &first : kFirstParameters) setParameter(first.name, first.value);
  setParameter(kSlots, personalisation.slots);
  setParameter(kMaxTries, personalisation.maxTries);
  setParameter(kTriesLeft, personalisation.maxTries);
  Query(*this, Sql::kSetParameter).bind(1, kPin).bind(2, std::string_view(personalisation.pin)).next();

  Bytes counter(kCounterFileSize);
  counter[1] = static_cast<std::uint8_t>(personalisation.firstFidCounter & 0xFF);
  counter[2] = static_cast<std::uint8_t>(personalisation.firstFidCounter >> 8);
  createFile(kCounterFile, counter);
  createFile(kBlockFile, Bytes(kBlockFileSize));
  createFile(kIndexFile, Bytes(personalisation.slots * kIndexEntrySize));
  execute("COMMIT");
}

std::int64_t Store::parameter(std::string_view name) {
  Query query(*this, Sql::kParameter);
  if (!query.bind(1, name).next()) throw StoreError(name_ + ": a parameter is missing");
  return query.integer(0);
}

std::string Store::pin() {
  Query query(*this, Sql::kParameter);
  if (!query.bind(1, kPin).next()) throw StoreError(name_ + ": the PIN is missing");
  return query.text(0);
}

void Store::setParameter(std::string_view name, std::int64_t value) {
  Query(*this, Sql::kSetParameter).bind(1, name).bind(2, value).next();
}

std::optional<Bytes> Store::readFile(std::uint16_t fid) {
  Query query(*this, Sql::kReadFile);
  if (!query.bind(1, fid).next()) return std::nullopt;
  return query.bytes(0);
}

void Store::createFile(std::uint16_t fid, ByteView content) {
  Query(*this, Sql::kCreateFile).bind(1, fid).bind(2, content).next();
}

void Store::writeFile(std::uint16_t fid, ByteView content) {
  Query(*this, Sql::kWriteFile).bind(1, fid).bind(2, content).next();
}

void Store::deleteFile(std::uint16_t fid) { Query(*this, Sql::kDeleteFile).bind(1, fid).next(); }

std::vector<std::uint16_t> Store::listFiles() {
  std::vector<std::uint16_t> fids;
  Query query(*this, Sql::kListFiles);
  while (query.next()) fids.push_back(static_cast<std::uint16_t>(query.integer(0)));
  return fids;
}

std::size_t Store::totalSize() {
  Query query(*this, Sql::kTotalSize);
  query.next();
  return static_cast<std::size_t>(query.integer(0));
}

std::optional<ImageBlock> Store::lastBlock() {
  Query query(*this, Sql::kLastBlock);
  if (!query.next()) return std::nullopt;
  return ImageBlock{static_cast<std::uint32_t>(query.integer(0)), static_cast<std::uint32_t>(query.integer(1)),
                    static_cast<std::uint32_t>(query.integer(2))};
}

void Store::clearImage() { run(Sql::kClearImage); }

void Store::putBlock(const ImageBlock &block, ByteView pixels) {
  Query(*this, Sql::kPutBlock).bind(1, block.firstLine).bind(2, block.lines).bind(3, pixels).next();
}

Image Store::image() {
  Image image;
  Query query(*this, Sql::kImage);
  while (query.next()) {
    const Bytes pixels = query.bytes(1);
    image.lines += static_cast<std::uint32_t>(query.integer(0));
    image.pixels.insert(image.pixels.end(), pixels.begin(), pixels.end());
  }
  if (image.lines) image.lineLength = static_cast<std::uint32_t>(image.pixels.size() / image.lines);
  return image;
}

bool Store::sound() {
  const auto holds = [this](std::uint16_t fid, std::size_t size) {
    const std::optional<Bytes> content = readFile(fid);
    return content && content->size() == size;
  };
  Query check(*this, Sql::kCheck);
  return check.next() && check.text(0) == "ok" && !pin().empty() && holds(kCounterFile, kCounterFileSize) &&
         holds(kBlockFile, kBlockFileSize) &&
         holds(kIndexFile, static_cast<std::size_t>(parameter(kSlots)) * kIndexEntrySize);
}

sqlite3_stmt *Store::prepared(Sql sql) {
  static_assert(std::size(kStatements) == static_cast<std::size_t>(Sql::kCount));
  const auto index = static_cast<std::size_t>(sql);
  if (!statements_[index]) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v3(database_.get(), kStatements[index], -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
        SQLITE_OK) {
      fail();
    }
    statements_[index].reset(statement);
  }
  return statements_[index].get();
}

void Store::run(Sql sql) { Query(*this, sql).next(); }

void Store::execute(const char *sql) {
  if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

void Store::fail() const {
  switch (sqlite3_errcode(database_.get()) & 0xFF) {
    case SQLITE_CANTOPEN: {
      std::error_code ignored;
      throw StoreError(name_ +
                       (std::filesystem::exists(name_, ignored) ? ": cannot be opened" : ": there is no token"));
    }
    case SQLITE_NOTADB:
      throw StoreError(name_ + ": not the store of a token");
    case SQLITE_CORRUPT:
      throw StoreError(name_ + ": the store of the token is damaged");
    case SQLITE_BUSY:
      throw StoreError(name_ + ": the token is busy");
    default:
      throw StoreError(name_ + ": " + sqlite3_errmsg(database_.get()));
  }
}

Transaction::Transaction(Store &store) : store_(store) { store_.run(Store::Sql::kBegin); }

void Transaction::commit() { store_.run(Store::Sql::kCommit); }

Transaction::~Transaction() {
  if (sqlite3_get_autocommit(store_.database_.get())) return;
  try {
    store_.run(Store::Sql::kRollback);
  } catch (...) {
    // SQLite rolls back by itself when the connection closes.
  }
}

}  // namespace kelm::devices
