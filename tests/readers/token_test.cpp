// SPDX-License-Identifier: Apache-2.0
// The simulated token in the virtual reader: the same bytes for every program, and PC/SC beside the library.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>

#include "kelmtrova/simulator.h"
#include "tests/readers/virtual_card.h"

namespace {

constexpr SimulatorPersonalisation kSixSlots = {6, 0, 0, nullptr};

// A token in the first reader, until it is pulled out.
class Served {
 public:
  explicit Served(std::uint64_t device) {
    EXPECT_EQ(pipe(stop_), 0);
    thread_ = std::thread([this, device] {
      EXPECT_EQ(simulatorServe(device, nullptr, stop_[0], nullptr, nullptr), 0) << simulatorError();
    });
    EXPECT_TRUE(eventually([] { return !places().empty() && places()[0].present; }));
  }
  ~Served() {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    EXPECT_TRUE(eventually([] { return !places()[0].present; }));
  }

 private:
  int stop_[2];
  std::thread thread_;
};

class ServedToken : public testing::Test {
 protected:
  ServedToken() {
    EXPECT_EQ(simulatorCreate(kStore, &kSixSlots), 0) << simulatorError();
    device = simulatorOpen(kStore);
  }
  ~ServedToken() override {
    simulatorClose(device);
    std::filesystem::remove_all("/run/test/served");
  }
  static constexpr const char *kStore = "/run/test/served/token.db";
  const Service service;
  std::uint64_t device = 0;
};

std::string outputOf(const std::string &command) {
  std::string text;
  FILE *pipe = popen((command + " 2>&1").c_str(), "r");
  for (int letter = fgetc(pipe); letter != EOF; letter = fgetc(pipe)) text += static_cast<char>(letter);
  pclose(pipe);
  return text;
}

// Any program gets through the reader what the token answers without one.
TEST_F(ServedToken, AnswersOtherProgramsTheSame) {
  ASSERT_TRUE(service.started);
  const std::uint64_t direct = deviceManagerOpen(kStore);
  const char *const commands[] = {
      "80:FA:02:00:2F", "80:F9:04:06:01", "00:A4:00:00:02:05:20", "00:A4:00:0C:02:05:20", "00:A4:00:00:02:00:20:00",
      "00:B0:00:00:05", "00:B0:00:00:00", "00:A4:00:00:02:7F:00", "00:20:00:00:02:31:31", "00:20:00:00",
      "00:C0:00:00:05", "12:34:00:00",    "00:CA:01:00:00",       "80:FD:06:01:01",       "00:20:00:00:04:31:32:33:34"};
  std::string expected, arguments;
  for (const char *command : commands) {
    Bytes bytes, answer(256);
    std::istringstream digits(command);
    for (std::string byte; std::getline(digits, byte, ':');)
      bytes.push_back(static_cast<std::uint8_t>(std::stoi(byte, nullptr, 16)));
    std::uint64_t length = answer.size();
    const std::int32_t status = Icc_tsi_apiKelmDev(direct, bytes.size(), bytes.data(), &length, answer.data());
    char text[64];
    std::snprintf(text, sizeof text, "Received (SW1=0x%02X, SW2=0x%02X)", static_cast<unsigned>(status) >> 8,
                  static_cast<unsigned>(status) & 0xFF);
    expected += text;
    for (std::size_t i = 0; i < length; ++i) {
      std::snprintf(text, sizeof text, " %02X", answer[i]);
      expected += text;
    }
    expected += '\n';
    arguments += std::string(" -s ") + command;
  }
  simulatorClose(direct);
  const Served served(device);
  // A line of bytes ends with a letter for each of them.
  EXPECT_EQ(
      outputOf("opensc-tool -r 0" + arguments +
               " | awk '/^Received/ { sub(/:? *$/, \"\"); printf \"%s%s\", (NR > 2 ? \"\\n\" : \"\"), $0 }"
               " /^([0-9A-F][0-9A-F] )+/ { printf \" %s\", substr($0, 1, int(length($0) / 4) * 3) } END { print \"\" }'"
               " | sed 's/  */ /g; s/ *$//'"),
      expected);
}

#ifndef __SANITIZE_ADDRESS__
TEST_F(ServedToken, IsReachedBesideAnApplicationsOwnPcsc) {
  ASSERT_TRUE(service.started);
  const Served served(device);
  EXPECT_EQ(outputOf(KELM_BUILD_DIR "/tests/both_libraries"),
            "PC/SC: Virtual PCD 00 00, result 0, 49 bytes\nkelmtrova: Virtual PCD 00 00, a fingerprint token\n");
  // Where the PC/SC library is missing, nothing else is.
  const std::string without = outputOf(
      "unshare --mount sh -c 'for file in $(readlink -f /usr/lib/*/libpcsclite.so.1); do mount --bind /dev/null $file; "
      "done; " KELM_BUILD_DIR "/tests/both_libraries'");
  EXPECT_EQ(without.substr(0, without.find(':', 40)),
            "PC/SC: not installed\nkelmtrova: the PC/SC library cannot be loaded");
}
#endif

}  // namespace
