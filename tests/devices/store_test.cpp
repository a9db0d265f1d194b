// SPDX-License-Identifier: Apache-2.0
// What lasts: stores that are closed, shared, damaged.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/devices/device.h"

namespace {

class StoreTest : public testing::Test {
 protected:
  StoreTest() {
    std::string name = (std::filesystem::temp_directory_path() / "kelmtrova.XXXXXX").string();
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    folder = name;
    store = folder / "made on the way" / "token.db";
    EXPECT_EQ(simulatorCreate(store.c_str(), &kTenSlots), 0) << simulatorError();
  }
  ~StoreTest() override { std::filesystem::remove_all(folder); }

  std::filesystem::path folder;
  std::filesystem::path store;
};

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
  converse(two, "00 B0 00 01 01 = 6986; 00 A4 00 00 02 00 20 = 9000; 00 B0 00 01 01 = 77 9000");
}

TEST_F(StoreTest, WhatIsNoSoundStoreIsRefused) {
  EXPECT_EQ(simulatorCreate(store.c_str(), &kTenSlots), -1);
  EXPECT_EQ(simulatorError(), store.string() + ": exists already");
  struct Damage {
    const char *error;
    std::streamoff at;
    std::string bytes;
  };
  const Damage kDamages[] = {
      {"not the store of a token", 0, "fingerprints"},
      {"not the store of a token", 68, std::string(4, '\0')},
      {"the store of a token of a later version, 7", 60, std::string("\0\0\0\7", 4)},
      {"the store of the token is damaged", 4096, std::string(12000, '\x55')},
  };
  for (const Damage &damage : kDamages) {
    const std::string damaged = (folder / "damaged.db").string();
    std::filesystem::copy_file(store, damaged, std::filesystem::copy_options::overwrite_existing);
    std::fstream(damaged, std::ios::in | std::ios::out | std::ios::binary).seekp(damage.at) << damage.bytes;
    EXPECT_EQ(simulatorOpen(damaged.c_str()), 0U);
    EXPECT_NE(std::string(simulatorError()).find(damage.error), std::string::npos) << simulatorError();
  }
  EXPECT_EQ(simulatorOpen((folder / "nothing").c_str()), 0U);
  EXPECT_EQ(simulatorError(), (folder / "nothing").string() + ": there is no token");
  const SimulatorPersonalisation kBad[] = {{0, 0, 0, nullptr}, {1, 0, 16, nullptr}, {1, 0, 0, "123"}};
  for (const SimulatorPersonalisation &bad : kBad) EXPECT_EQ(simulatorOpenInMemory(&bad), 0U);
  EXPECT_EQ(simulatorOpenInMemory(nullptr), 0U);
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
