// SPDX-License-Identifier: Apache-2.0
// A simulated token under the library, in a store of its own.
#ifndef KELMTROVA_TESTS_SUPPORT_SIMULATED_H
#define KELMTROVA_TESTS_SUPPORT_SIMULATED_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kelmtrova/simulator.h"
#include "kelmtrova/token.h"

namespace kelm::test {

using Entries = std::vector<TemplateIndexEntry>;

// In memory where the system has such a folder: each step is synchronised with the disk, which takes its time.
inline std::string newStoreName() {
  static std::atomic<int> number = 0;
  const std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : testing::TempDir();
  return folder + "kelmtrova-" + std::to_string(getpid()) + "-" + std::to_string(++number) + ".db";
}

struct SimulatedToken {
  const std::string store = newStoreName();
  const std::size_t slots;
  SCardConnection connection = {};

  explicit SimulatedToken(const SimulatorPersonalisation &personalisation) : slots(personalisation.slots) {
    EXPECT_EQ(simulatorCreate(store.c_str(), &personalisation), 0) << simulatorError();
    reopen();
  }
  ~SimulatedToken() {
    simulatorClose(connection.hDevice);
    for (const char *suffix : {"", "-wal", "-shm", "-journal", "-lock"}) {
      unlink((store + suffix).c_str());
    }
  }
  SimulatedToken(const SimulatedToken &) = delete;
  SimulatedToken &operator=(const SimulatedToken &) = delete;

  void reopen(std::uint64_t protocol = 1) {
    simulatorClose(connection.hDevice);
    connection = {KELM_CONNECTION_READY, {}, simulatorOpen(store.c_str()), protocol};
    ASSERT_NE(connection.hDevice, 0U) << simulatorError();
  }
  // The finger becomes the live one.
  void present(std::string_view finger) const {
    simulatorPlaceFinger(connection.hDevice, finger.data(), finger.size());
    ASSERT_EQ(KelmTrovaCaptureImage(&connection), 0U);
    ASSERT_EQ(KelmTrovaFeatureExtract(&connection, 1), 0U);
  }
  std::uint64_t enroll(std::uint8_t slot, const TemplateIndexEntry &record = {0, 0x77, 0, {'u', 's', 'e', 'r'}}) const {
    return KelmTrovaFeatureEnroll(&connection, slot, &record);
  }
  // The index and the files as they lie in the token's memory, past the library.
  Entries entries() const {
    Entries index(slots);
    const std::size_t size = slots * sizeof(TemplateIndexEntry);
    auto *const bytes = reinterpret_cast<std::uint8_t *>(index.data());
    EXPECT_EQ(simulatorReadFile(connection.hDevice, 0x0520, bytes, size), static_cast<int>(size));
    return index;
  }
  std::set<std::uint16_t> templateFiles() const {
    std::vector<std::uint16_t> fids(4096);
    const int count = simulatorListFiles(connection.hDevice, fids.data(), fids.size());
    std::set<std::uint16_t> files(fids.begin(), fids.begin() + count);
    for (const std::uint16_t own : std::initializer_list<std::uint16_t>{0x0020, 0x0040, 0x0520}) {
      EXPECT_EQ(files.erase(own), 1U) << own;
    }
    return files;
  }
};

}  // namespace kelm::test

#endif
