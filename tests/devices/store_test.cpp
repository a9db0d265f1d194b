// SPDX-License-Identifier: Apache-2.0
// What lasts: stores that are closed, shared, damaged.
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <map>

#include "tests/devices/stores.h"

namespace {

std::string read(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::filesystem::path &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

TEST_F(StoreTest, MemoryLastsAndThePowerSessionDoesNot) {
  {
    const Device token(store);
    token.enroll("left thumb", 3);
    converse(token,
             "80 F9 06 06 01 63 = 9000; 00 20 00 00 04 32 34 36 38 = 9000; "
             "80 F7 01 00 0A 00 00 00 00 01 00 00 00 11 22 = 9000");
    token.takeFinger("a stranger");
    EXPECT_EQ(token("80 FD 06 03 01"), "63C2");
  }
  const Device token(store);
  converse(token,
           "80 F9 05 06 01 = 63 9000; 80 FB 00 01 02 = 6A07; 80 FA 00 00 02 = 00 00 9000; 80 FD 06 03 01 = 6A11; "
           "00 B0 00 00 01 = 6986; 80 F9 09 00 01 = 00 9000");
  EXPECT_EQ(simulatorGetImage(token.number, nullptr, nullptr, nullptr, 0), 2);
  std::array<std::uint16_t, 3> fids{};
  EXPECT_EQ(simulatorListFiles(token.number, fids.data(), fids.size()), 4);
  EXPECT_EQ(fids, (std::array<std::uint16_t, 3>{0x0020, 0x0040, 0x0103}));
  token.takeFinger("a stranger");
  EXPECT_EQ(token("80 FD 06 03 01"), "63C1");
  token.takeFinger("left thumb");
  EXPECT_EQ(token("80 FD 06 00 01"), "03 9000");
}

TEST_F(StoreTest, TwoDevicesShareIt) {
  const Device one(store);
  const Device two(store);
  ASSERT_EQ(one("00 A4 00 00 02 00 20"), "9000");
  ASSERT_EQ(one("00 D0 00 01 02 77 00"), "9000");
  converse(two, "00 B0 00 01 01 = 6986; 00 A4 00 00 02 00 20 = 9000; 00 B0 00 01 01 = 77 9000; 80 FA 00 00 02 = 6A0E");
  ASSERT_EQ(simulatorPlaceFinger(one.number, "thumb", 5), 0);
  EXPECT_EQ(two("80 FA 00 00 02"), "00 00 9000");
  ASSERT_EQ(simulatorRemoveFinger(two.number), 0);
  EXPECT_EQ(one("80 FA 00 00 02"), "6A0E");
}

TEST_F(StoreTest, WhatIsNoSoundStoreIsRefused) {
  EXPECT_EQ(simulatorCreate(store.c_str(), &kTenSlots), -1);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_STORE_EXISTS);
  EXPECT_EQ(simulatorError(), store.string() + ": exists already");
  const struct {
    SimulatorFailure failure;
    const char *words;
    std::size_t at;
    std::string bytes;
  } kDamages[] = {
      {SIMULATOR_NOT_A_STORE, "not the store of a token", 0, "fingerprints"},
      {SIMULATOR_NOT_A_STORE, "not the store of a token", 68, std::string(4, '\0')},
      {SIMULATOR_LATER_VERSION, "the store of a token of a later version, 7", 60, std::string("\0\0\0\7", 4)},
      {SIMULATOR_STORE_DAMAGED, "the store of the token is damaged", 1024, std::string(5000, '\x55')},
  };
  const std::string sound = read(store);
  const std::string path = (folder / "damaged.db").string();
  for (const auto &damage : kDamages) {
    write(path, std::string(sound).replace(damage.at, damage.bytes.size(), damage.bytes));
    EXPECT_EQ(simulatorOpen(path.c_str()), 0U);
    EXPECT_EQ(simulatorFailure(), damage.failure);
    EXPECT_EQ(std::string(simulatorError()).find(path + ": " + damage.words), 0U) << simulatorError();
  }
  EXPECT_EQ(simulatorOpen((folder / "nothing").c_str()), 0U);
  EXPECT_EQ(simulatorError(), (folder / "nothing").string() + ": there is no token");
  EXPECT_EQ(simulatorOpen(folder.c_str()), 0U);
  EXPECT_EQ(simulatorError(), folder.string() + ": is a folder, not the store of a token");
  const SimulatorPersonalisation kBad[] = {
      {0, 0, 0, nullptr}, {1, 0, 16, nullptr}, {1, 0, 0, "123"}, {1, 0x801, 0, ""}};
  for (const SimulatorPersonalisation &bad : kBad) EXPECT_EQ(simulatorOpenInMemory(&bad), 0U);
  EXPECT_EQ(simulatorOpenInMemory(nullptr), 0U);
}

// Each byte of a store flipped in turn, each of its sectors emptied, and the store cut off at each: the store is
// refused, or it makes no difference.
TEST_F(StoreTest, NoDamageGoesUnnoticed) {
  {
    const Device token(store);
    token.enroll("left thumb", 3);
    converse(token, "80 F7 01 00 0A 00 00 00 00 01 00 00 00 11 22 = 9000");
  }
  constexpr std::size_t kSector = 512;
  const std::string sound = read(store);
  const std::string contents = contentsOf(store);
  ASSERT_NE(contents.find("03 9000"), std::string::npos) << contents;
  std::map<std::string, int> outcomes;
  const auto expectNoticed = [&](const std::string &damaged, const char *how, std::size_t at) {
    write(store, damaged);
    const std::string now = contentsOf(store);
    const bool refused = now.starts_with("refused");
    ASSERT_TRUE(refused || now == contents) << how << " at " << at << ": " << now;
    ++outcomes[now.substr(0, 7)];
  };
  for (std::size_t at = 0; at < sound.size(); ++at) {
    if (sound[at] == 0 && at % 8) continue;  // of the many that nobody reads, some
    std::string damaged = sound;
    damaged[at] = static_cast<char>(damaged[at] ^ (at % 9 == 8 ? 0xFF : 1 << at % 9));
    ASSERT_NO_FATAL_FAILURE(expectNoticed(damaged, "flipped", at));
  }
  for (std::size_t at = 0; at < sound.size(); at += kSector) {
    ASSERT_NO_FATAL_FAILURE(expectNoticed(std::string(sound).replace(at, kSector, kSector, '\0'), "emptied", at));
    ASSERT_NO_FATAL_FAILURE(expectNoticed(sound.substr(0, at), "cut off", at));
  }
  EXPECT_GT(outcomes["refused"], 2000);
}

TEST_F(StoreTest, FirstVersionIsConverted) {
  const struct {
    const char *change;
    const char *damage;  // null: converted
  } cases[] = {{"", nullptr},
               {"UPDATE parameter SET value = 1000 WHERE name = 'max tries'", "max tries"},
               {"UPDATE parameter SET value = 4 WHERE name = 'tries left'", "tries left"},
               {"UPDATE parameter SET value = 256 WHERE name = 'slots'", "slots"},
               {"UPDATE parameter SET value = 'ten' WHERE name = 'slots'", "slots"},
               {"UPDATE parameter SET value = '' WHERE name = 'pin'", "pin"},
               {"UPDATE file SET content = x'0001080000000000' WHERE fid = 32", "the FID counter"},
               {"UPDATE file SET content = x'00' WHERE fid = 64", "the token's own files"},
               {"DELETE FROM file WHERE fid = 1312", "the token's own files"},
               {"UPDATE image SET first_line = 1", "the image"},
               {"DROP TABLE image", "no such table: image"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.change);
    const std::string path = firstVersion(c.change).string();
    if (c.damage) {
      const std::string before = read(path);
      EXPECT_EQ(simulatorOpen(path.c_str()), 0U);
      EXPECT_EQ(simulatorError(), path + ": the store of the token is damaged (" + c.damage + ")");
      EXPECT_EQ(read(path).size(), before.size()) << "left as it was";
      continue;
    }
    const Device token(path);
    token.takeFinger("left thumb");
    converse(token,
             "80 FD 06 00 01 = 03 9000; 80 F9 05 06 01 = 63 9000; 80 FE 01 06 01 = 02 9000; 00 20 00 00 = 63C4; "
             "00 20 00 00 04 32 34 36 38 = 9000; 80 FA 01 00 02 = 00 00 9000");
    EXPECT_EQ(simulatorGetImage(token.number, nullptr, nullptr, nullptr, 0), 4);
  }
}

TEST_F(StoreTest, ExportedTokensComeBackWhole) {
  const std::string exported = (folder / "exported").string();
  const std::string copy = (folder / "copy.db").string();
  const Device token(store);
  token.enroll("left thumb", 3);
  for (int time = 0; time < 2; ++time)
    ASSERT_EQ(simulatorExport(token.number, exported.c_str()), 0) << simulatorError();
  struct stat status {};
  ASSERT_EQ(stat(exported.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(simulatorOpen(exported.c_str()), 0U);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_NOT_A_STORE);
  ASSERT_EQ(simulatorImport(exported.c_str(), copy.c_str()), 0) << simulatorError();
  EXPECT_EQ(simulatorImport(exported.c_str(), copy.c_str()), -1);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_STORE_EXISTS);
  EXPECT_EQ(simulatorRemoveFinger(token.number), 0) << "what lies on the sensor is not the token's to keep";
  EXPECT_EQ(contentsOf(copy), contentsOf(store));
  // What is no exported token is not replaced.
  std::filesystem::create_symlink(store, folder / "link");
  for (const char *name : {"copy.db", "link", "."}) {
    EXPECT_EQ(simulatorExport(token.number, (folder / name).c_str()), -1);
    EXPECT_EQ(simulatorFailure(), SIMULATOR_STORE_EXISTS) << simulatorError();
  }
  std::string damaged = read(exported);
  damaged[damaged.find("KFPT") + 20] ^= 1;
  write(exported, damaged);
  EXPECT_EQ(simulatorImport(exported.c_str(), (folder / "other.db").c_str()), -1);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_STORE_DAMAGED);
  EXPECT_FALSE(std::filesystem::exists(folder / "other.db"));
}

// A path is a path; folders made are the owner's alone.
TEST_F(StoreTest, NamesAreNothingButPaths) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  for (const char *name : {":memory:", "file:token.db?mode=memory", "file:token.db"}) {
    ASSERT_EQ(simulatorCreate(name, &kTenSlots), 0) << simulatorError();
    EXPECT_TRUE(std::filesystem::exists(folder / name)) << name;
    const Device token{std::string(name)};
  }
  std::filesystem::current_path(before);
  struct stat status {};
  ASSERT_EQ(stat(store.parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST_F(StoreTest, ReadOnlyStoresCanBeRead) {
  {
    const Device token(store);
    token.enroll("left thumb", 3);
  }
  const uid_t self = geteuid();
  std::filesystem::permissions(store, std::filesystem::perms(0444));
  std::filesystem::permissions(folder, std::filesystem::perms(0755));
  std::filesystem::permissions(store.parent_path(), std::filesystem::perms(0755));
  if (self == 0) setfsuid(65534);  // permissions mean nothing to root
  {
    const Device token(store);
    SimulatorState state{};
    EXPECT_EQ(simulatorGetState(token.number, &state), 0);
    EXPECT_EQ(state.readOnly, 1);
    converse(token, "80 FA 00 00 02 = 00 00 9000; 80 FB 00 01 02 = 00 00 9000; 80 FD 26 00 01 = 03 9000");
    for (const char *command : {"80 FD 06 00 01", "00 20 00 00 04 32 34 36 38", "80 F9 06 06 01 01"}) {
      EXPECT_EQ(token(command), "6581");
      EXPECT_EQ(simulatorFailure(), SIMULATOR_STORE_READ_ONLY) << simulatorError();
    }
    EXPECT_EQ(simulatorCreate((store.parent_path() / "new.db").c_str(), &kTenSlots), -1);
    EXPECT_EQ(simulatorFailure(), SIMULATOR_NO_PERMISSION) << simulatorError();
  }
  setfsuid(self);
}

TEST(Store, FollowsTheXdgDirectories) {
  struct Case {
    const char *data;
    const char *home;
    const char *store;
  };
  for (const Case &each : {Case{"/srv/data", "/home/ann", "/srv/data/kelmtrova/token.db"},
                           Case{"relative", "/home/ann", "/home/ann/.local/share/kelmtrova/token.db"},
                           Case{"", "/home/ann", "/home/ann/.local/share/kelmtrova/token.db"}}) {
    setenv("XDG_DATA_HOME", each.data, 1);
    setenv("HOME", each.home, 1);
    char path[64];
    EXPECT_EQ(simulatorDefaultStore(path, sizeof path), std::string_view(each.store).size());
    EXPECT_STREQ(path, each.store);
    EXPECT_EQ(simulatorDefaultStore(path, 5), std::string_view(each.store).size());
    EXPECT_EQ(std::string(path), std::string(each.store, 4));
  }
}

}  // namespace
