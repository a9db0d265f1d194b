// SPDX-License-Identifier: Apache-2.0
// Addresses of simulated tokens, failures in words, and exclusive stretches between devices and processes.
#include "kelmtrova/device_manager.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "kelmtrova/simulator.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t kDone = 0x9000;

std::uint16_t ask(std::uint64_t device) {
  const std::uint8_t command[] = {0x80, 0xF9, 0x04, 0x06, 0x01};
  std::uint8_t answer[1];
  std::uint64_t length = sizeof answer;
  return static_cast<std::uint16_t>(Icc_tsi_apiKelmDev(device, sizeof command, command, &length, answer));
}

class DeviceManager : public testing::Test {
 protected:
  DeviceManager() {
    std::string name = (std::filesystem::temp_directory_path() / "kelm-XXXXXX").string();
    folder = mkdtemp(name.data());
    store = (folder / "kelmtrova" / "token.db").string();
    setenv("XDG_DATA_HOME", folder.c_str(), 1);
    const SimulatorPersonalisation personalisation = {10, 0, 0, nullptr};
    EXPECT_EQ(simulatorCreate(store.c_str(), &personalisation), 0) << simulatorError();
  }
  ~DeviceManager() override { std::filesystem::remove_all(folder); }

  std::filesystem::path folder;
  std::string store;
};

TEST_F(DeviceManager, OpensAddressesAndSaysWhyNot) {
  for (const std::string &address : {"sim:" + store, store, std::string("sim:")}) {
    const std::uint64_t device = deviceManagerOpen(address.c_str());
    EXPECT_EQ(ask(device), kDone) << address;
    EXPECT_STREQ(deviceManagerError(), "");
    deviceManagerClose(device);
    deviceManagerClose(device);
    EXPECT_EQ(ask(device), DEVICE_MANAGER_NO_DEVICE);
    EXPECT_STREQ(deviceManagerError(), deviceManagerCodeText(DEVICE_MANAGER_NO_DEVICE));
  }
  std::ofstream(folder / "text") << "no store";
  const struct {
    std::string address;
    std::uint16_t code;
  } cases[] = {{"sim:" + folder.string() + "/missing", DEVICE_MANAGER_STORE_MISSING},
               {folder.string() + "/text", DEVICE_MANAGER_STORE_UNUSABLE},
               {"", DEVICE_MANAGER_BAD_ADDRESS},
               {"handle:7", DEVICE_MANAGER_BAD_ADDRESS}};
  for (const auto &[address, code] : cases) {
    EXPECT_EQ(deviceManagerOpen(address.c_str()), 0U) << address;
    EXPECT_EQ(deviceManagerErrorCode(), code) << address;
    EXPECT_STRNE(deviceManagerError(), "") << address;
  }
  EXPECT_EQ(deviceManagerOpen(nullptr), 0U);
}

// No code can be taken for a status word of a token, and each says something else.
TEST_F(DeviceManager, HasWordsForItsOwnCodesOnly) {
  std::set<std::string> texts;
  for (unsigned code = 0; code <= 0xFFFF; ++code) {
    const char *text = deviceManagerCodeText(static_cast<std::uint16_t>(code));
    if (!text) continue;
    EXPECT_NE(code >> 12, 6U);
    EXPECT_NE(code >> 12, 9U);
    EXPECT_TRUE(texts.insert(text).second) << text;
  }
  EXPECT_EQ(texts.size(), DEVICE_MANAGER_COMMAND_TOO_LONG - DEVICE_MANAGER_NO_DEVICE + 1U);
}

TEST_F(DeviceManager, KeepsOthersOutOfAStretch) {
  const std::uint64_t first = deviceManagerOpen("sim:"), second = deviceManagerOpen(store.c_str());
  EXPECT_EQ(deviceManagerEnd(first), -1);
  EXPECT_EQ(deviceManagerErrorCode(), DEVICE_MANAGER_NO_STRETCH);
  ASSERT_EQ(deviceManagerBegin(first), 0);
  ASSERT_EQ(deviceManagerBegin(first), 0);
  ASSERT_EQ(deviceManagerEnd(first), 0);
  std::atomic<bool> answered = false;
  std::thread waiting([&] {
    EXPECT_EQ(ask(second), kDone);
    answered = true;
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(answered);
  EXPECT_EQ(ask(first), kDone);
  ASSERT_EQ(deviceManagerEnd(first), 0);
  waiting.join();

  // The end of a process ends its stretches, however it comes.
  const pid_t child = fork();
  if (child == 0) {
    const std::uint64_t own = deviceManagerOpen(store.c_str());
    if (deviceManagerBegin(own) == 0) kill(getpid(), SIGSTOP);
    _exit(1);
  }
  int state = 0;
  ASSERT_EQ(waitpid(child, &state, WUNTRACED), child);
  ASSERT_TRUE(WIFSTOPPED(state));
  EXPECT_EQ(deviceManagerBegin(first), -1);
  EXPECT_EQ(deviceManagerErrorCode(), DEVICE_MANAGER_BUSY);
  kill(child, SIGKILL);
  waitpid(child, &state, 0);
  EXPECT_EQ(deviceManagerBegin(first), 0);
  deviceManagerClose(first);
  EXPECT_EQ(ask(second), kDone);
  deviceManagerClose(second);
}

// What is not known of the readers' service here is that it hides no simulated token.
TEST_F(DeviceManager, ListsTheDefaultStore) {
  std::string last;
  deviceManagerList(
      [](void *context, const DeviceManagerToken *token) {
        *static_cast<std::string *>(context) = token->address;
        return 0;
      },
      &last);
  EXPECT_EQ(last, "sim:" + store);
}

}  // namespace
