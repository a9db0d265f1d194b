// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/store.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "devices/simulated/checksum.h"

namespace kelm::devices {
namespace {

constexpr std::size_t kCounterFileSize = 8;
constexpr std::size_t kBlockFileSize = 0x80;
constexpr std::uint32_t kLongestLine = 240;
constexpr std::size_t kFeaturesSize = 8 + std::tuple_size_v<decltype(Features::digest)>;

constexpr std::string_view kPin = "pin";
constexpr std::string_view kFinger = "finger on the sensor";

// The numeric parameters: what they may be, and with what every token starts unless its personalisation says otherwise.
struct Number {
  std::string_view name;
  std::int64_t least;
  std::int64_t most;
  std::int64_t first;
};

constexpr Number kNumbers[] = {
    {kSlots, 1, 255, 1},     {kMaxTries, 1, kMostTries, 1}, {kTriesLeft, 0, 15, 1},
    {kPinRequired, 0, 1, 0}, {kVerifyMode, 0, 2, 0},        {kPinTriesLeft, 0, kMaxPinTries, kMaxPinTries},
    {kTimeOut, 0, 255, 10},  {kSecurityLevel, 0, 255, 3},   {kImageGain, 0, 255, 0x80},
    {kFingerCache, 0, 1, 0},
};
constexpr std::int64_t kParameters = std::size(kNumbers) + 2;

// Each record carries its checksum, and `total` their number and sum for each table: a record that is gone is noticed.
std::vector<std::string> schema() {
  std::vector<std::string> statements = {
      "CREATE TABLE total (name TEXT PRIMARY KEY, records INTEGER NOT NULL, sum INTEGER NOT NULL) WITHOUT ROWID",
      "CREATE TABLE parameter (name TEXT PRIMARY KEY, checksum INTEGER NOT NULL, value NOT NULL) WITHOUT ROWID",
      "CREATE TABLE file (fid INTEGER PRIMARY KEY, checksum INTEGER NOT NULL, type INTEGER NOT NULL, "
      "content BLOB NOT NULL)",
      "CREATE TABLE image (first_line INTEGER PRIMARY KEY, checksum INTEGER NOT NULL, lines INTEGER NOT NULL, "
      "pixels BLOB NOT NULL)",
  };
  constexpr std::pair<const char *, const char *> kChanges[] = {
      {"INSERT", "records = records + 1, sum = sum + NEW.checksum"},
      {"UPDATE", "sum = sum + NEW.checksum - OLD.checksum"},
      {"DELETE", "records = records - 1, sum = sum - OLD.checksum"}};
  for (const std::string table : {"parameter", "file", "image"}) {
    for (const auto &[event, change] : kChanges) {
      statements.push_back("CREATE TRIGGER " + table + "_" + event + " AFTER " + event + " ON " + table +
                           " BEGIN UPDATE total SET " + change + " WHERE name = '" + table + "'; END");
    }
  }
  return statements;
}

constexpr std::string_view kCountParameters = "SELECT count(*), ifnull(sum(checksum), 0) FROM parameter";
constexpr std::string_view kCountFiles = "SELECT count(*), ifnull(sum(checksum), 0) FROM file";
constexpr std::string_view kCountImage = "SELECT count(*), ifnull(sum(checksum), 0) FROM image";

constexpr std::string_view kPutParameter =
    "INSERT INTO parameter (name, checksum, value) VALUES (?1, ?2, ?3) "
    "ON CONFLICT (name) DO UPDATE SET checksum = excluded.checksum, value = excluded.value";
constexpr std::string_view kPutBlock =
    "INSERT INTO image (first_line, checksum, lines, pixels) VALUES (?1, ?2, ?3, ?4) "
    "ON CONFLICT (first_line) DO UPDATE SET checksum = excluded.checksum, lines = excluded.lines, "
    "pixels = excluded.pixels";

std::int64_t checksumOf(const File &file) {
  return Checksum().add(std::int64_t{file.fid}).add(std::int64_t{file.type}).add(file.content).value();
}

std::int64_t checksumOf(std::int64_t firstLine, std::int64_t lines, ByteView pixels) {
  return Checksum().add(firstLine).add(lines).add(pixels).value();
}

ByteView viewOf(std::string_view text) { return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()}; }

bool isOneOf(std::int64_t value, std::int64_t least, std::int64_t most) { return value >= least && value <= most; }

bool isPin(std::string_view pin) { return pin.size() >= kShortestPin && pin.size() <= kLongestPin; }

}  // namespace

std::uint16_t counterIn(ByteView counterFile) {
  return static_cast<std::uint16_t>(counterFile[1] | counterFile[2] << 8);
}

bool isGoodCounter(ByteView counterFile) { return isOneOf(counterIn(counterFile), 1, kUsedUpCounter); }

// ---- Opening and making -------------------------------------------------------------------------------------------

// Deleted data is overwritten; journals are synchronised with their folder before a command counts as done.
Store::Store(Database database) : database_(std::move(database)) {
  database_.execute(
      "PRAGMA synchronous = EXTRA; PRAGMA temp_store = MEMORY; PRAGMA secure_delete = ON; "
      "PRAGMA cell_size_check = ON; PRAGMA trusted_schema = OFF");
}

Store::Store(const std::string &path) : Store(Database(path.c_str(), path, SQLITE_OPEN_READWRITE)) {
  const std::int64_t version = identify({kStoreId});
  // Stores of the first version kept a log beside them, which needs writing even to be read.
  if (!database_.readOnly()) database_.leaveLog();
  if (version == kFirstVersion) convert();
  Transaction reading(database_);
  check();
  reading.commit();
}

Store Store::inMemory(const Personalisation &personalisation) {
  Store store(Database(nullptr, "memory", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE));
  Transaction transaction(store.database_);
  store.layOut(kStoreId);
  store.personalise(personalisation);
  transaction.commit();
  return store;
}

std::int64_t Store::identify(std::initializer_list<std::int64_t> applicationIds) {
  const std::int64_t id = database_.number("PRAGMA application_id");
  if (std::ranges::find(applicationIds, id) == applicationIds.end()) {
    throw StoreError(SIMULATOR_NOT_A_STORE, database_.name() + ": not the store of a token");
  }
  const std::int64_t version = database_.number("PRAGMA user_version");
  if (version > kVersion) {
    throw StoreError(SIMULATOR_LATER_VERSION, database_.name() + ": the store of a token of a later version, " +
                                                  std::to_string(version) + " (known here: up to " +
                                                  std::to_string(kVersion) + ")");
  }
  if (version < kFirstVersion) database_.damaged("its version");
  return version;
}

void Store::layOut(std::int64_t applicationId) {
  for (const std::string &statement : schema()) database_.execute(statement.c_str());
  database_.execute("INSERT INTO total VALUES ('parameter', 0, 0), ('file', 0, 0), ('image', 0, 0)");
  database_.execute(("PRAGMA application_id = " + std::to_string(applicationId)).c_str());
  database_.execute(("PRAGMA user_version = " + std::to_string(kVersion)).c_str());
}

void Store::personalise(const Personalisation &personalisation) {
  for (const Number &number : kNumbers) setParameter(number.name, number.first);
  setParameter(kSlots, personalisation.slots);
  setParameter(kMaxTries, personalisation.maxTries);
  setParameter(kTriesLeft, personalisation.maxTries);
  setPin(personalisation.pin);
  setFinger(std::nullopt);

  Bytes counter(kCounterFileSize);
  counter[1] = static_cast<std::uint8_t>(personalisation.firstFidCounter & 0xFF);
  counter[2] = static_cast<std::uint8_t>(personalisation.firstFidCounter >> 8);
  createFile(kCounterFile, kPlainFileType, counter);
  createFile(kBlockFile, kPlainFileType, Bytes(kBlockFileSize));
  createFile(kIndexFile, kPlainFileType, Bytes(personalisation.slots * kIndexEntrySize));
}

// The first version had the same tables without checksums, types of files and what lies on the sensor; only CREATE FILE
// could make a file there.
void Store::convert() {
  if (database_.readOnly()) {
    throw StoreError(SIMULATOR_STORE_READ_ONLY,
                     database_.name() + ": a store of the first version, to be converted, but it may only be read");
  }
  Transaction transaction(database_);
  if (identify({kStoreId}) == kVersion) return;  // another process was faster

  std::vector<std::int64_t> numbers;
  for (const Number &number : kNumbers) {
    Query query(database_, "SELECT value FROM parameter WHERE name = ?");
    if (!query.bind(1, number.name).next() || !query.isInteger(0)) database_.damaged(number.name);
    numbers.push_back(query.integer(0));
  }
  std::string pin;
  if (Query query(database_, "SELECT value FROM parameter WHERE name = 'pin'"); query.next()) pin = query.text(0);
  std::vector<File> files;
  for (Query query(database_, "SELECT fid, content FROM file"); query.next();) {
    const std::int64_t fid = query.integer(0);
    if (!isOneOf(fid, 1, 0xFFFE)) database_.damaged("a file");
    const bool own = fid == kCounterFile || fid == kBlockFile || fid == kIndexFile;
    files.push_back({static_cast<std::uint16_t>(fid), own ? kPlainFileType : kTemplateFileType, query.bytes(1)});
  }
  std::vector<std::pair<ImageBlock, Bytes>> blocks;
  for (Query query(database_, "SELECT first_line, lines, pixels FROM image ORDER BY first_line"); query.next();) {
    const ImageBlock block{static_cast<std::uint32_t>(query.integer(0)), static_cast<std::uint32_t>(query.integer(1)),
                           0};
    blocks.emplace_back(block, query.bytes(2));
  }

  database_.execute("DROP TABLE parameter; DROP TABLE file; DROP TABLE image");
  layOut(kStoreId);
  for (std::size_t index = 0; index < numbers.size(); ++index) setParameter(kNumbers[index].name, numbers[index]);
  setPin(pin);
  setFinger(std::nullopt);
  for (const File &file : files) createFile(file.fid, file.type, file.content);
  for (const auto &[block, pixels] : blocks) putBlock(block, pixels);
  check();
  transaction.commit();
}

void Store::copyTo(Store &target) {
  constexpr std::pair<std::string_view, std::string_view> kTables[] = {
      {"SELECT name, checksum, value FROM parameter", kPutParameter},
      {"SELECT fid, checksum, type, content FROM file", "INSERT INTO file VALUES (?, ?, ?, ?)"},
      {"SELECT first_line, checksum, lines, pixels FROM image", kPutBlock}};
  for (const auto &[from, to] : kTables) {
    for (Query row(database_, from); row.next();) Query(target.database_, to).bindRow(row).next();
  }
}

// ---- Parameters ---------------------------------------------------------------------------------------------------

std::int64_t Store::parameter(std::string_view name) {
  Query query(database_, "SELECT value, checksum FROM parameter WHERE name = ?");
  if (!query.bind(1, name).next()) database_.damaged(name);
  const std::int64_t value = query.integer(0);
  if (query.integer(1) != Checksum().add(name).add(value).value()) database_.damaged(name);
  return value;
}

void Store::setParameter(std::string_view name, std::int64_t value) {
  Query(database_, kPutParameter).bind(1, name).bind(2, Checksum().add(name).add(value).value()).bind(3, value).next();
}

Bytes Store::blob(std::string_view name) {
  Query query(database_, "SELECT value, checksum FROM parameter WHERE name = ?");
  if (!query.bind(1, name).next()) database_.damaged(name);
  Bytes value = query.bytes(0);
  if (query.integer(1) != Checksum().add(name).add(value).value()) database_.damaged(name);
  return value;
}

void Store::setBlob(std::string_view name, ByteView value) {
  Query(database_, kPutParameter).bind(1, name).bind(2, Checksum().add(name).add(value).value()).bind(3, value).next();
}

std::string Store::pin() {
  const Bytes pin = blob(kPin);
  return {pin.begin(), pin.end()};
}

void Store::setPin(std::string_view pin) { setBlob(kPin, viewOf(pin)); }

std::optional<Features> Store::finger() {
  const Bytes bytes = blob(kFinger);
  if (bytes.empty()) return std::nullopt;
  if (bytes.size() != kFeaturesSize) database_.damaged(kFinger);
  Features features;
  for (std::size_t index = 0; index < 8; ++index) features.length |= std::uint64_t{bytes[index]} << 8 * index;
  std::copy(bytes.begin() + 8, bytes.end(), features.digest.begin());
  return features;
}

void Store::setFinger(const std::optional<Features> &finger) {
  Bytes bytes;
  if (finger) {
    for (int shift = 0; shift < 64; shift += 8) bytes.push_back(static_cast<std::uint8_t>(finger->length >> shift));
    bytes.insert(bytes.end(), finger->digest.begin(), finger->digest.end());
  }
  setBlob(kFinger, bytes);
}

// ---- Files --------------------------------------------------------------------------------------------------------

std::optional<Bytes> Store::readFile(std::uint16_t fid) {
  Query query(database_, "SELECT checksum, type, content FROM file WHERE fid = ?");
  if (!query.bind(1, fid).next()) {
    checkTotal("file", kCountFiles);
    return std::nullopt;
  }
  File file{fid, static_cast<std::uint8_t>(query.integer(1)), query.bytes(2)};
  if (query.integer(0) != checksumOf(file)) database_.damaged("a file");
  return std::move(file.content);
}

Bytes Store::ownFile(std::uint16_t fid) {
  std::optional<Bytes> content = readFile(fid);
  if (!content) database_.damaged("the token's own files");
  return std::move(*content);
}

void Store::createFile(std::uint16_t fid, std::uint8_t type, ByteView content) {
  Query(database_, "INSERT INTO file (fid, checksum, type, content) VALUES (?, ?, ?, ?)")
      .bind(1, fid)
      .bind(2, checksumOf({fid, type, Bytes(content.begin(), content.end())}))
      .bind(3, type)
      .bind(4, content)
      .next();
}

void Store::writeFile(std::uint16_t fid, ByteView content) {
  Query type(database_, "SELECT type FROM file WHERE fid = ?");
  if (!type.bind(1, fid).next()) database_.damaged("a file");
  const File file{fid, static_cast<std::uint8_t>(type.integer(0)), Bytes(content.begin(), content.end())};
  Query(database_, "UPDATE file SET checksum = ?2, content = ?3 WHERE fid = ?1")
      .bind(1, fid)
      .bind(2, checksumOf(file))
      .bind(3, content)
      .next();
}

void Store::deleteFile(std::uint16_t fid) { Query(database_, "DELETE FROM file WHERE fid = ?").bind(1, fid).next(); }

std::vector<File> Store::files() {
  std::vector<File> files;
  for (Query query(database_, "SELECT fid, checksum, type, content FROM file ORDER BY fid"); query.next();) {
    if (!isOneOf(query.integer(0), 1, 0xFFFE) || !isOneOf(query.integer(2), 0, 0xFF)) database_.damaged("a file");
    files.push_back(
        {static_cast<std::uint16_t>(query.integer(0)), static_cast<std::uint8_t>(query.integer(2)), query.bytes(3)});
    if (query.integer(1) != checksumOf(files.back())) database_.damaged("a file");
  }
  return files;
}

std::size_t Store::totalSize() {
  return static_cast<std::size_t>(database_.number("SELECT ifnull(sum(length(content)), 0) FROM file"));
}

// ---- The last image -----------------------------------------------------------------------------------------------

std::optional<ImageBlock> Store::lastBlock() {
  Query query(database_, "SELECT first_line, lines, checksum, pixels FROM image ORDER BY first_line DESC LIMIT 1");
  if (!query.next()) return std::nullopt;
  const Bytes pixels = query.bytes(3);
  const std::int64_t lines = query.integer(1);
  if (lines < 1 || query.integer(2) != checksumOf(query.integer(0), lines, pixels)) database_.damaged("the image");
  return ImageBlock{static_cast<std::uint32_t>(query.integer(0)), static_cast<std::uint32_t>(lines),
                    static_cast<std::uint32_t>(pixels.size() / static_cast<std::size_t>(lines))};
}

void Store::clearImage() { Query(database_, "DELETE FROM image").next(); }

void Store::putBlock(const ImageBlock &block, ByteView pixels) {
  Query(database_, kPutBlock)
      .bind(1, block.firstLine)
      .bind(2, checksumOf(block.firstLine, block.lines, pixels))
      .bind(3, block.lines)
      .bind(4, pixels)
      .next();
}

Image Store::image() {
  Image image;
  for (Query query(database_, "SELECT first_line, lines, checksum, pixels FROM image ORDER BY first_line");
       query.next();) {
    const Bytes pixels = query.bytes(3);
    const std::int64_t lines = query.integer(1);
    const bool follows = query.integer(0) == image.lines && isOneOf(lines, 1, 255);
    if (!follows || query.integer(2) != checksumOf(query.integer(0), lines, pixels)) database_.damaged("the image");
    if (image.lines == 0)
      image.lineLength = static_cast<std::uint32_t>(pixels.size() / static_cast<std::size_t>(lines));
    if (pixels.size() != static_cast<std::size_t>(lines) * image.lineLength) database_.damaged("the image");
    image.lines += static_cast<std::uint32_t>(lines);
    image.pixels.insert(image.pixels.end(), pixels.begin(), pixels.end());
  }
  if (image.lines && !isOneOf(image.lineLength, 1, kLongestLine)) database_.damaged("the image");
  return image;
}

// ---- Checking -----------------------------------------------------------------------------------------------------

void Store::check() {
  if (Query query(database_, "PRAGMA quick_check(1)"); !query.next() || query.text(0) != "ok") {
    const std::string found = query.text(0);
    database_.damaged(found.substr(found.rfind('\n') + 1));
  }
  Query found(database_, "SELECT sql FROM sqlite_master WHERE sql NOT NULL ORDER BY rowid");
  for (const std::string &statement : schema()) {
    if (!found.next() || found.text(0) != statement) database_.damaged("its tables");
  }
  if (found.next()) database_.damaged("its tables");
  checkParameters();
  checkFiles();
  image();
  checkTotal("parameter", kCountParameters);
  checkTotal("file", kCountFiles);
  checkTotal("image", kCountImage);
}

void Store::checkParameters() {
  for (const Number &number : kNumbers) {
    if (!isOneOf(parameter(number.name), number.least, number.most)) database_.damaged(number.name);
  }
  if (parameter(kTriesLeft) > parameter(kMaxTries)) database_.damaged(kTriesLeft);
  if (!isPin(pin())) database_.damaged(kPin);
  finger();
  if (database_.number(kCountParameters) != kParameters) database_.damaged("its parameters");
}

void Store::checkFiles() {
  std::size_t size = 0;
  for (const File &file : files()) {
    if (file.content.empty() || file.content.size() > kLargestFile) database_.damaged("a file");
    size += file.content.size();
  }
  if (size > kFileMemory) database_.damaged("too many files");
  const auto own = [this](std::uint16_t fid, std::size_t expected) {
    Bytes content = ownFile(fid);
    if (content.size() != expected) database_.damaged("the token's own files");
    return content;
  };
  own(kBlockFile, kBlockFileSize);
  own(kIndexFile, static_cast<std::size_t>(parameter(kSlots)) * kIndexEntrySize);
  if (!isGoodCounter(own(kCounterFile, kCounterFileSize))) database_.damaged("the FID counter");
}

void Store::checkTotal(std::string_view table, std::string_view count) {
  Query kept(database_, "SELECT records, sum FROM total WHERE name = ?");
  Query found(database_, count);
  if (!kept.bind(1, table).next() || !found.next() || kept.integer(0) != found.integer(0) ||
      kept.integer(1) != found.integer(1)) {
    database_.damaged("records are missing");
  }
}

}  // namespace kelm::devices
