// SPDX-License-Identifier: Apache-2.0
// A simulated token spoken to in hexadecimal, past the library.
#ifndef KELMTROVA_TESTS_DEVICES_DEVICE_H
#define KELMTROVA_TESTS_DEVICES_DEVICE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "kelmtrova/device_manager.h"
#include "kelmtrova/simulator.h"

constexpr SimulatorPersonalisation kTenSlots = {10, 5, 3, "2468"};

struct Device {
  std::uint64_t number = simulatorOpenInMemory(&kTenSlots);

  Device() { EXPECT_NE(number, 0U) << simulatorError(); }
  explicit Device(const std::string &store) : number(simulatorOpen(store.c_str())) {
    EXPECT_NE(number, 0U) << simulatorError();
  }
  explicit Device(std::uint64_t opened) : number(opened) {}
  ~Device() { simulatorClose(number); }
  Device(const Device &) = delete;
  Device &operator=(const Device &) = delete;

  // "80 F9 04 06 01" gives "0A 9000": the answer's bytes and the status.
  std::string operator()(std::string_view command) const {
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at + 1 < command.size(); at += 3) {
      bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(command.substr(at, 2)), nullptr, 16)));
    }
    std::array<std::uint8_t, 256> answer;
    std::uint64_t length = answer.size();
    const std::int32_t status = Icc_tsi_apiKelmDev(number, bytes.size(), bytes.data(), &length, answer.data());
    std::string text;
    char digits[8];
    for (std::size_t at = 0; at < std::min<std::uint64_t>(length, answer.size()); ++at) {
      std::snprintf(digits, sizeof digits, "%02X ", answer[at]);
      text += digits;
    }
    std::snprintf(digits, sizeof digits, "%04X", static_cast<unsigned>(status));
    return text + digits;
  }

  void takeFinger(std::string_view finger, char buffer = '1') const {
    ASSERT_EQ(simulatorPlaceFinger(number, finger.data(), finger.size()), 0);
    ASSERT_EQ((*this)("80 FA 00 00 02"), "00 00 9000");
    ASSERT_EQ((*this)(std::string("80 FB 00 0") + buffer + " 02"), "00 00 9000");
  }

  // The finger into a new file of that number, and the file into the entry of the slot.
  void enroll(std::string_view finger, std::uint8_t slot) const {
    takeFinger(finger);
    char file[8];
    std::snprintf(file, sizeof file, "01 %02X", slot);
    ASSERT_EQ((*this)(std::string("80 E0 ") + file + " 07 28 03 88 EF EF FF FF"), "9000");
    ASSERT_EQ((*this)(std::string("80 FC ") + file + " 02"), "00 00 9000");
    std::vector<std::uint8_t> index(200);
    ASSERT_EQ(simulatorReadFile(number, 0x0520, index.data(), index.size()), 200);
    index[(slot - 1U) * 20U] = 1;
    index[(slot - 1U) * 20U + 2] = 1;
    index[(slot - 1U) * 20U + 3] = slot;
    ASSERT_EQ(simulatorWriteFile(number, 0x0520, index.data(), index.size()), 0);
  }
};

// Says "command = answer; command = answer" to the token, in this order.
inline void converse(const Device &token, std::string_view lines) {
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find("; "));
    lines.remove_prefix(std::min(lines.size(), line.size() + 2));
    const std::size_t middle = line.find(" = ");
    EXPECT_EQ(token(line.substr(0, middle)), line.substr(middle + 3)) << line;
  }
}

#endif
