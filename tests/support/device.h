// SPDX-License-Identifier: Apache-2.0
// A device manager for tests: in the test program that includes it, it answers for the one scripted device and leaves
// all others to libkelmkmgr.so.
#ifndef KELMTROVA_TESTS_SUPPORT_DEVICE_H
#define KELMTROVA_TESTS_SUPPORT_DEVICE_H

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelmtrova/device_manager.h"
#include "kelmtrova/token.h"
#include "tests/support/allocation.h"

namespace kelm::test {

using Bytes = std::vector<std::uint8_t>;

struct Answer {
  std::int32_t status = 0x9000;
  Bytes data = {};
  std::optional<std::uint64_t> claimed = {};  // the length told, where it is not that of the data
};

struct Device {
  std::function<Answer(const Bytes &)> answer = [](const Bytes &) { return Answer{}; };
  std::optional<Answer> fixed;  // answers every command, without a record: takes no memory
  std::uint64_t exchanges = 0;
  std::vector<std::string> log;  // commands in hexadecimal, and what the hooks add
};
inline Device device;
constexpr std::uint64_t kScriptedDevice = 0x1122334455667788;

inline std::string hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, text.empty() ? "%02X" : " %02X", byte);
    text += digits;
  }
  return text;
}

inline SCardConnection readyConnection() {
  SCardConnection connection{};
  connection.bState = KELM_CONNECTION_READY;
  connection.hDevice = kScriptedDevice;
  return connection;
}

inline std::int32_t deliver(const Answer &given, std::uint64_t *length, std::uint8_t *area) {
  std::copy_n(given.data.begin(), std::min<std::uint64_t>(given.data.size(), *length), area);
  *length = given.claimed.value_or(given.data.size());
  return given.status;
}

}  // namespace kelm::test

extern "C" __attribute__((visibility("default"), used)) inline std::int32_t Icc_tsi_apiKelmDev(
    std::uint64_t handle, std::uint64_t commandLength, const std::uint8_t *command, std::uint64_t *answerLength,
    std::uint8_t *answer) {
  using namespace kelm::test;
  const AllocationPause ownMemory;
  if (handle != kScriptedDevice) {
    static const auto own = reinterpret_cast<decltype(&Icc_tsi_apiKelmDev)>(dlsym(RTLD_NEXT, "Icc_tsi_apiKelmDev"));
    return own(handle, commandLength, command, answerLength, answer);
  }
  ++device.exchanges;
  if (device.fixed) {
    return deliver(*device.fixed, answerLength, answer);
  }
  const Bytes bytes(command, command + commandLength);
  device.log.push_back(hex(bytes));
  return deliver(device.answer(bytes), answerLength, answer);
}

#endif
