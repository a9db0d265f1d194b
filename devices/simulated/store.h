// SPDX-License-Identifier: Apache-2.0
// The memory of a simulated token that survives the loss of power: its files, its parameters, the last image and what
// lies on its sensor, in an SQLite database.
#ifndef KELMTROVA_DEVICES_SIMULATED_STORE_H
#define KELMTROVA_DEVICES_SIMULATED_STORE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/simulated/database.h"
#include "kelmtrova/token.h"

namespace kelm::devices {

// The token's own files; personalisation makes them, no command makes or deletes them.
constexpr std::uint16_t kCounterFile = KELM_FID_COUNTER;
constexpr std::uint16_t kBlockFile = KELM_FID_BLOCK_RECORD;
constexpr std::uint16_t kIndexFile = KELM_FID_TEMPLATE_INDEX;
constexpr std::uint16_t kMasterFile = KELM_FID_MASTER_FILE;

// What CREATE FILE calls a template file, and what the token's own and other files are instead.
constexpr std::uint8_t kTemplateFileType = 0x28;
constexpr std::uint8_t kPlainFileType = 0;

constexpr std::size_t kIndexEntrySize = 20;
constexpr std::size_t kBlockRecordOffset = 0x68;
constexpr std::size_t kLargestFile = 0x7FFF;
constexpr std::size_t kFileMemory = 512 * 1024;
// The value after the last one that yields a FID of its own.
constexpr std::uint16_t kUsedUpCounter = 0x0800;

// Names of the token's numeric parameters in the store.
constexpr std::string_view kSlots = "slots";
constexpr std::string_view kMaxTries = "max tries";
constexpr std::string_view kTriesLeft = "tries left";
constexpr std::string_view kPinRequired = "pin required";
constexpr std::string_view kPinTriesLeft = "pin tries left";
constexpr std::string_view kVerifyMode = "verify mode";
constexpr std::string_view kTimeOut = "time-out";
constexpr std::string_view kSecurityLevel = "security level";
constexpr std::string_view kImageGain = "image gain";
constexpr std::string_view kFingerCache = "finger cache";

// "KELT" and "KELX": tell a token's store and an exported token from other SQLite databases.
constexpr std::int64_t kStoreId = 0x4B454C54;
constexpr std::int64_t kExportId = 0x4B454C58;
constexpr std::int64_t kFirstVersion = 1;
constexpr std::int64_t kVersion = 2;

constexpr std::uint8_t kMostTries = 15;
constexpr std::uint8_t kMaxPinTries = 5;
constexpr std::size_t kShortestPin = 4;
constexpr std::size_t kLongestPin = 16;

// What a new token is given.
struct Personalisation {
  std::uint8_t slots;
  std::uint16_t firstFidCounter;
  std::uint8_t maxTries;
  std::string pin;
};

// What stands for the features of a finger: its length and a digest of its bytes. A finger without bytes has none.
struct Features {
  std::uint64_t length = 0;
  std::array<std::uint8_t, 16> digest{};
  bool operator==(const Features &) const = default;
};

struct File {
  std::uint16_t fid;
  std::uint8_t type;
  Bytes content;
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

std::uint16_t counterIn(ByteView counterFile);
// Whether the counter is one that an enrollment can leave behind. A store with another one would be damaged.
bool isGoodCounter(ByteView counterFile);

// One connection to the memory of a token, for one thread at a time. All functions throw StoreError when the memory
// fails or holds what was never written to it: each record carries a checksum.
class Store {
 public:
  // Opens and checks a store; converts one of the first version.
  explicit Store(const std::string &path);
  static Store inMemory(const Personalisation &personalisation);

  Database &database() { return database_; }

  std::int64_t parameter(std::string_view name);
  void setParameter(std::string_view name, std::int64_t value);
  std::string pin();
  void setPin(std::string_view pin);

  std::optional<Features> finger();
  void setFinger(const std::optional<Features> &finger);

  std::optional<Bytes> readFile(std::uint16_t fid);
  // One of those that every token has.
  Bytes ownFile(std::uint16_t fid);
  void createFile(std::uint16_t fid, std::uint8_t type, ByteView content);
  void writeFile(std::uint16_t fid, ByteView content);
  void deleteFile(std::uint16_t fid);
  std::vector<File> files();
  std::size_t totalSize();

  std::optional<ImageBlock> lastBlock();
  void clearImage();
  void putBlock(const ImageBlock &block, ByteView pixels);
  Image image();

  // Throws unless the database, every record and what must be in it are sound. Belongs in a transaction.
  void check();

  // The steps in which stores are made and copied, each in a transaction. A database not yet looked at:
  explicit Store(Database database);
  // Throws unless it is one of these kinds of database, in a version known here, which it answers.
  std::int64_t identify(std::initializer_list<std::int64_t> applicationIds);
  void layOut(std::int64_t applicationId);
  void personalise(const Personalisation &personalisation);
  void copyTo(Store &target);

 private:
  void convert();
  Bytes blob(std::string_view name);
  void setBlob(std::string_view name, ByteView value);
  void checkTotal(std::string_view table, std::string_view count);
  void checkParameters();
  void checkFiles();

  Database database_;
};

}  // namespace kelm::devices

#endif
