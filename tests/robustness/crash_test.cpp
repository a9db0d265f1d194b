// SPDX-License-Identifier: Apache-2.0
// The program killed at random moments, by two drivers at once on one store: afterwards the store opens, index, counter
// and files agree, and every slot whose command had answered success is there.
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>

#include "tests/support/simulated.h"

namespace {

constexpr int kSlots = 40;
constexpr int kCommandsOfADriver = 500;
constexpr int kRefused = 3;
constexpr int kKilled = 128 + 9;

// Commands run beside each other, but nothing runs beside a repair.
std::shared_mutex storeInUse;

// Runs the program; after `patience` microseconds it is killed (0 = never).
int run(const std::string &words, int patience = 0) {
  const std::string limit = patience == 0 ? "" : "timeout -s KILL " + std::to_string(patience / 1e6) + " ";
  return WEXITSTATUS(
      std::system((limit + KELM_BUILD_DIR "/bin/kelmtrova token " + words + " >/dev/null 2>&1").c_str()));
}

// What a driver knows of its slots: the finger of a slot whose last command answered success; empty when deleted.
struct Driver {
  int number;
  std::map<int, std::string> known;
  int killed = 0;
  int succeeded = 0;
  int typical = 20000;  // microseconds that a command takes on this machine

  void work(const std::string &store) {
    std::mt19937 random(static_cast<unsigned>(number));
    const auto below = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    for (int i = 0; i < kCommandsOfADriver; ++i) {
      const int slot = 1 + number * (kSlots / 2) + below(kSlots / 2);
      const std::string finger = "finger-" + std::to_string(number) + "-" + std::to_string(i);
      const bool enrolls = below(3) != 0;
      const int patience = below(3) == 0 ? 1 + below(typical) : 0;
      int code = 0;
      {
        const std::shared_lock use(storeInUse);
        const auto start = std::chrono::steady_clock::now();
        code = run((enrolls ? "enroll --finger " + finger : "delete") + " --token " + store + " --slot " +
                       std::to_string(slot),
                   patience);
        const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
        typical = patience == 0 ? (3 * typical + static_cast<int>(taken.count())) / 4 : typical;
      }
      if (code == 0) {
        known[slot] = enrolls ? finger : "";
        ++succeeded;
      } else {
        known.erase(slot);  // it may or may not have been done
        killed += code == kKilled ? 1 : 0;
        if (code == kRefused && enrolls) {
          const std::lock_guard alone(storeInUse);
          run("repair --token " + store);
        }
      }
    }
  }
};

TEST(Crash, KilledProgramsLeaveAWholeStore) {
  kelm::test::SimulatedToken token({kSlots, 0, 15, nullptr});
  Driver drivers[2] = {{0, {}}, {1, {}}};
  std::thread first([&] { drivers[0].work(token.store); });
  drivers[1].work(token.store);
  first.join();

  token.reopen();
  const kelm::test::Entries index = token.entries();
  std::uint16_t counter = 0;
  ASSERT_EQ(token_get_current_fid(&token.connection, &counter), 0U);
  const std::set<std::uint16_t> files = token.templateFiles();
  std::set<std::uint16_t> named;
  int withoutFile = 0;
  for (const auto &entry : index) {
    if (entry.fid != 0) {
      EXPECT_TRUE(named.insert(Exchange(entry.fid)).second) << "two slots with one file";
      EXPECT_LT(Exchange(entry.fid) >> 5, counter);
      withoutFile += files.count(Exchange(entry.fid)) == 0 ? 1 : 0;
    }
  }
  const int killed = drivers[0].killed + drivers[1].killed;
  // A killed deletion can leave an entry whose file is gone, a killed enrollment a file without an entry.
  EXPECT_LE(withoutFile, killed);
  EXPECT_LE(static_cast<int>(files.size() - named.size()) + withoutFile, killed);
  int checked = 0;
  for (auto &driver : drivers) {
    for (const auto &[slot, finger] : driver.known) {
      const auto &entry = index[static_cast<std::size_t>(slot - 1)];
      EXPECT_EQ(entry.fid != 0 && entry.enrolled == 1, !finger.empty()) << "slot " << slot;
      if (!finger.empty()) {
        std::uint8_t tries = 0;
        token.present(finger);
        EXPECT_EQ(KelmTrovaFeatureVerify(&token.connection, 0, static_cast<std::uint8_t>(slot), &tries), 0U) << slot;
        ++checked;
      }
    }
  }
  std::printf("%d commands, %d killed, %d answered success, %d slots checked\n", 2 * kCommandsOfADriver, killed,
              drivers[0].succeeded + drivers[1].succeeded, checked);
  EXPECT_GT(killed, kCommandsOfADriver / 10) << "too few were killed to tell";
  EXPECT_GT(checked, 0);
}

}  // namespace
