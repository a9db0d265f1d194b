// SPDX-License-Identifier: Apache-2.0
// The memory of a simulated token that survives the loss of power: its files, its parameters and the last image, in an
// SQLite database.
#ifndef KELMTROVA_TOKEN_STORE_H
#define KELMTROVA_TOKEN_STORE_H

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kelm::devices {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// The token's own files; personalisation makes them, no command makes or deletes them.
constexpr std::uint16_t kCounterFile = 0x0020;
constexpr std::uint16_t kBlockFile = 0x0040;
constexpr std::uint16_t kIndexFile = 0x0520;
constexpr std::uint16_t kMasterFile = 0x3F00;

constexpr std::size_t kIndexEntrySize = 20;
constexpr std::size_t kBlockRecordOffset = 0x68;
constexpr std::size_t kLargestFile = 0x7FFF;

// Names of the token's parameters in the store.
constexpr std::string_view kSlots = "slots";
constexpr std::string_view kMaxTries = "max tries";
constexpr std::string_view kTriesLeft = "tries left";
constexpr std::string_view kPin = "pin";
constexpr std::string_view kPinRequired = "pin required";
constexpr std::string_view kPinTriesLeft = "pin tries left";
constexpr std::string_view kVerifyMode = "verify mode";
constexpr std::string_view kTimeOut = "time-out";
constexpr std::string_view kSecurityLevel = "security level";
constexpr std::string_view kImageGain = "image gain";
constexpr std::string_view kFingerCache = "finger cache";

constexpr std::uint8_t kMaxPinTries = 5;

struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What a new token is given.
struct Personalisation {
  std::uint8_t slots;
  std::uint16_t firstFidCounter;
  std::uint8_t maxTries;
  std::string pin;
};

// Some lines of the image that the host sends.
struct ImageBlock {
  std::uint32_t firstLine;
  std::uint32_t lines;
  std::uint32_t lineLength;
};

struct Image {
  std::uint32_t lineLength = 0;
  std::uint32_t lines = 0;
  Bytes pixels;
};

class Query;

// One connection to the memory of a token, for one thread at a time. All functions throw StoreError when the memory
// fails.
class Store {
 public:
  // Makes the store whole or not at all; fails when something exists in its place.
  static void create(const std::string &path, const Personalisation &personalisation);
  static Store inMemory(const Personalisation &personalisation);
  explicit Store(const std::string &path);

  std::int64_t parameter(std::string_view name);
  void setParameter(std::string_view name, std::int64_t value);
  std::string pin();

  std::optional<Bytes> readFile(std::uint16_t fid);
  void createFile(std::uint16_t fid, ByteView content);
  void writeFile(std::uint16_t fid, ByteView content);
  void deleteFile(std::uint16_t fid);
  std::vector<std::uint16_t> listFiles();
  std::size_t totalSize();

  std::optional<ImageBlock> lastBlock();
  void clearImage();
  void putBlock(const ImageBlock &block, ByteView pixels);
  Image image();

  // Whether the database and what must be in it are sound.
  bool sound();

 private:
  friend class Query;
  friend class Transaction;
  enum class Sql : std::size_t {
    kBegin,
    kCommit,
    kRollback,
    kParameter,
    kSetParameter,
    kReadFile,
    kCreateFile,
    kWriteFile,
    kDeleteFile,
    kListFiles,
    kTotalSize,
    kLastBlock,
    kClearImage,
    kPutBlock,
    kImage,
    kCheck,
    kCount
  };
  struct Close {
    void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
  };
  struct Finalize {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
  };

  Store(const std::string &path, int flags);
  void personalise(const Personalisation &personalisation);
  void execute(const char *sql);
  sqlite3_stmt *prepared(Sql sql);
  void run(Sql sql);
  [[noreturn]] void fail() const;

  std::string name_;
  std::unique_ptr<sqlite3, Close> database_;
  std::array<std::unique_ptr<sqlite3_stmt, Finalize>, static_cast<std::size_t>(Sql::kCount)> statements_;
};

// A stretch of work that happens whole or not at all; it is undone unless committed.
class Transaction {
 public:
  explicit Transaction(Store &store);
  ~Transaction();
  Transaction(const Transaction &) = delete;
  Transaction &operator=(const Transaction &) = delete;
  void commit();

 private:
  Store &store_;
};

}  // namespace kelm::devices

#endif
