// SPDX-License-Identifier: Apache-2.0
// Stores in a folder of their own, those of the first version too, and what is in a store as one text.
#ifndef KELMTROVA_TESTS_DEVICES_STORES_H
#define KELMTROVA_TESTS_DEVICES_STORES_H

#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/devices/device.h"

inline std::string hex(const std::vector<std::uint8_t> &bytes) {
  std::string text;
  char digits[3];
  for (const std::uint8_t byte : bytes) {
    std::snprintf(digits, sizeof digits, "%02X", byte);
    text += digits;
  }
  return text;
}

inline std::vector<std::uint8_t> fileOf(const Device &token, std::uint16_t fid) {
  std::vector<std::uint8_t> bytes(1024);
  bytes.resize(static_cast<std::size_t>(std::max(simulatorReadFile(token.number, fid, bytes.data(), bytes.size()), 0)));
  return bytes;
}

// All that lasts of a token, or why it cannot be told; matching included.
inline std::string contentsOf(const std::filesystem::path &store) {
  std::ostringstream text;
  const Device token(simulatorOpen(store.c_str()));
  SimulatorState state{};
  std::array<SimulatorFile, 16> files{};
  const int count = simulatorGetFiles(token.number, files.data(), files.size());
  if (count < 0 || simulatorGetState(token.number, &state) != 0) {
    text << (token.number ? "unreadable" : "refused");
    return text.str();
  }
  for (const int value : {int{state.fidCounter}, int{state.slots}, int{state.maxTries}, int{state.triesLeft},
                          int{state.blockRecorded}, int{state.pinRequired}, int{state.pinTriesLeft},
                          int{state.fingerLies}, simulatorGetImage(token.number, nullptr, nullptr, nullptr, 0)}) {
    text << value << " ";
  }
  for (int index = 0; index < count; ++index) {
    const SimulatorFile &file = files[static_cast<std::size_t>(index)];
    text << "\n" << int{file.kind} << " " << file.fid << " " << hex(fileOf(token, file.fid));
  }
  for (const char *command :
       {"80 FA 00 00 02", "80 FB 00 01 02", "80 FD 26 00 01", "80 F9 05 06 01", "80 FE 01 06 01", "80 F9 0A 06 01"}) {
    text << "\n" << token(command);
  }
  return text.str();
}

class StoreTest : public testing::Test {
 protected:
  StoreTest() {
    // In memory where the system has such a folder: each step is synchronised with the disk, which takes its time.
    std::string name = access("/dev/shm", W_OK) == 0 ? "/dev/shm/kelmtrova.XXXXXX" : testing::TempDir() + "k.XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    folder = name;
    store = folder / "made on the way" / "token.db";
    EXPECT_EQ(simulatorCreate(store.c_str(), &kTenSlots), 0) << simulatorError();
  }
  ~StoreTest() override { std::filesystem::remove_all(folder); }

  // As the first version made it: no checksums, no types of files, a write-ahead log. Slot 3 holds the left thumb.
  std::filesystem::path firstVersion(const std::string &change = "") const {
    const Device token;
    token.enroll("left thumb", 3);
    std::string sql =
        "PRAGMA journal_mode = WAL; BEGIN; PRAGMA application_id = 0x4B454C54; PRAGMA user_version = 1;"
        "CREATE TABLE parameter (name TEXT PRIMARY KEY, value NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE file (fid INTEGER PRIMARY KEY, content BLOB NOT NULL);"
        "CREATE TABLE image (first_line INTEGER PRIMARY KEY, lines INTEGER NOT NULL, pixels BLOB NOT NULL);"
        "INSERT INTO parameter VALUES ('slots', 10), ('max tries', 3), ('tries left', 2), ('pin', '2468'),"
        "('pin required', 1), ('pin tries left', 4), ('verify mode', 2), ('time-out', 99), ('security level', 3),"
        "('image gain', 128), ('finger cache', 0); INSERT INTO image VALUES (0, 2, x'11223344');";
    for (const int fid : {0x0020, 0x0040, 0x0520, 0x0103}) {
      sql += "INSERT INTO file VALUES (" + std::to_string(fid) + ", x'" +
             hex(fileOf(token, static_cast<std::uint16_t>(fid))) + "');";
    }
    const std::filesystem::path path = folder / "first.db";
    std::filesystem::remove(path);
    sqlite3 *database = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, (sql + change + "; COMMIT").c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
    return path;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto &each : std::filesystem::recursive_directory_iterator(folder)) {
      found.push_back(each.path().filename().string());
    }
    std::ranges::sort(found);
    return found;
  }

  std::filesystem::path folder;
  std::filesystem::path store;
};

#endif
