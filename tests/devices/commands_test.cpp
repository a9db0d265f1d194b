// SPDX-License-Identifier: Apache-2.0
// What the simulated token answers, in conversations: the state goes on from line to line.
#include <algorithm>

#include "tests/devices/device.h"

namespace {

TEST(SimulatedToken, RefusesWhatIsNoCommand) {
  converse(Device(),
           "80 = 6700; 80 FA 02 = 6700; 90 FA 02 00 2F = 6E00; 80 FF 00 00 01 = 6D00; 00 FA 02 00 2F = 6D00; "
           "80 FA 03 00 02 = 6B00; 80 F9 04 00 01 = 6B00; 80 F9 09 06 01 = 6B00; 80 FB 00 04 02 = 6B00; "
           "80 FD 05 00 01 = 6B00; 80 FD 06 0B 01 = 6B00; 80 FA 00 00 = 6700; 80 FA 01 00 03 = 6C02; "
           "80 F9 06 06 01 = 6700; 80 F9 06 06 02 01 02 = 6700; 00 A4 00 00 03 05 20 = 6700; "
           "80 E0 01 00 06 28 03 88 EF EF FF = 6700; 00 C0 00 00 00 = 6985");
}

TEST(SimulatedToken, KeepsFiles) {
  converse(Device(),
           "00 B0 00 00 01 = 6986; 00 A4 00 00 02 00 20 = 9000; 00 B0 00 01 02 = 05 00 9000; "
           "00 D0 00 01 02 06 00 = 9000; 00 B0 00 00 00 = 00 06 00 00 00 00 00 00 9000; 00 B0 00 07 02 = 6C01; "
           "00 B0 00 08 01 = 6B00; 00 D6 00 07 02 AA BB = 6700; 00 D6 00 08 01 AA = 6B00; 00 D6 00 07 01 AA = 9000; "
           "00 B0 00 06 02 = 00 AA 9000; 00 A4 00 00 02 01 00 = 6A82; 00 B0 00 01 01 = 06 9000; "
           "80 E0 01 00 07 28 00 02 EF EF FF FF = 9000; 00 B0 00 00 00 = 00 00 9000; "
           "80 E0 01 00 07 28 00 02 EF EF FF FF = 6A89; 80 E0 05 20 07 28 03 88 EF EF FF FF = 6A89; "
           "80 E0 3F 00 07 28 03 88 EF EF FF FF = 6A89; 80 E0 00 00 07 28 03 88 EF EF FF FF = 6A80; "
           "80 E0 02 00 07 28 80 00 EF EF FF FF = 6A84; 00 E4 00 00 02 01 00 = 9000; 00 E4 00 00 02 01 00 = 6A82; "
           "00 B0 00 00 00 = 6986; 00 E4 00 00 02 00 20 = 6985; 00 A4 00 00 02 3F 00 = 9000; 00 B0 00 00 00 = 6986");
}

// What clients of smart cards send that the host does not.
TEST(SimulatedToken, AnswersClientsOfSmartCards) {
  converse(Device(),
           "00 A4 00 0C 02 00 20 = 9000; 00 B0 00 00 00 = 00 05 00 00 00 00 00 00 9000; 00 A4 00 0C = 9000; "
           "00 B0 00 00 00 = 6986; 00 A4 00 00 02 00 20 00 = 6F 0E 80 02 00 08 82 01 01 83 02 00 20 8A 01 05 9000; "
           "00 A4 02 04 02 05 20 10 = 62 0E 80 02 00 C8 82 01 01 83 02 05 20 8A 01 05 9000; "
           "00 A4 00 00 00 = 6F 0A 82 01 38 83 02 3F 00 8A 01 05 9000; 00 A4 00 04 02 00 20 11 = 6C10; "
           "00 B0 00 00 01 = 6986; 00 A4 08 0C 02 00 20 00 = 9000; 00 D6 00 01 01 06 00 = 9000; "
           "00 B0 00 01 FF = 6C07; 00 A4 04 00 02 A0 00 00 = 6A82; 00 A4 02 0C 02 3F 00 = 6A82; "
           "00 A4 00 08 02 00 20 = 6B00; 00 A4 03 00 02 00 20 = 6B00; 00 A4 00 00 00 00 02 00 20 = 6700; "
           "00 CA 00 6E 00 = 6D00; 01 B0 00 00 00 = 6881; 40 B0 00 00 00 = 6881; 04 B0 00 00 00 = 6882; "
           "10 B0 00 00 00 = 6884; 20 B0 00 00 00 = 6E00; FF B0 00 00 00 = 6E00; 00 D0 00 01 02 01 08 = 6A80; "
           "80 F9 06 06 01 63 00 = 9000; 80 FA 02 00 00 2F = 6700");
}

TEST(SimulatedToken, TellsItsStateWithoutATry) {
  const Device token;
  token.enroll("left thumb", 2);
  ASSERT_EQ(simulatorRequirePin(token.number, 1), 0);
  converse(token, "00 20 00 00 04 31 32 33 34 = 63C4; 80 FD 06 02 01 = 02 9000");
  token.takeFinger("a stranger");
  for (int tries = 3; tries-- > 0;) token("80 FD 06 02 01");
  EXPECT_EQ(simulatorChangePin(token.number, "1234", "13579"), -1);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_PIN_WRONG);
  EXPECT_EQ(simulatorChangePin(token.number, "2468", "123"), -1);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_BAD_ARGUMENT) << "and no try is gone";
  SimulatorState state{};
  for (int time = 0; time < 2; ++time) ASSERT_EQ(simulatorGetState(token.number, &state), 0);
  EXPECT_EQ((std::vector<int>{state.fidCounter, state.slots, state.maxTries, state.triesLeft, state.blockRecorded,
                              state.pinRequired, state.pinVerified, state.maxPinTries, state.pinTriesLeft,
                              state.fingerLies, state.readOnly}),
            (std::vector<int>{5, 10, 3, 0, 0, 1, 0, 5, 3, 1, 0}));
  EXPECT_EQ(simulatorChangePin(token.number, "2468", "13579"), 0);
  converse(token, "00 20 00 00 = 63C5; 00 20 00 00 04 32 34 36 38 = 63C4; 00 20 00 00 05 31 33 35 37 39 = 9000");
  const std::uint8_t byte = 0;
  ASSERT_EQ(simulatorWriteFile(token.number, 0x0700, &byte, 1), 0);
  ASSERT_EQ(token("80 E0 02 00 07 28 00 02 EF EF FF FF"), "9000");
  std::array<SimulatorFile, 6> files{};
  ASSERT_EQ(simulatorGetFiles(token.number, files.data(), files.size()), 6);
  const SimulatorFile expected[] = {{0x0020, 8, SIMULATOR_FILE_COUNTER, 0},    {0x0040, 128, SIMULATOR_FILE_BLOCK, 0},
                                    {0x0102, 904, SIMULATOR_FILE_TEMPLATE, 1}, {0x0200, 2, SIMULATOR_FILE_TEMPLATE, 0},
                                    {0x0520, 200, SIMULATOR_FILE_INDEX, 0},    {0x0700, 1, SIMULATOR_FILE_OTHER, 0}};
  EXPECT_TRUE(std::ranges::equal(files, expected, [](const SimulatorFile &one, const SimulatorFile &other) {
    return one.fid == other.fid && one.size == other.size && one.kind == other.kind &&
           one.holdsTemplate == other.holdsTemplate;
  }));
}

TEST(SimulatedToken, KeepsParameters) {
  converse(Device(),
           "80 F9 04 06 01 = 0A 9000; 80 F9 06 06 01 63 = 9000; 80 F9 08 06 01 05 = 9000; 80 F9 0B 06 01 FF = 9000; "
           "80 FE 00 06 01 02 = 9000; 80 FE 00 06 01 03 = 6A18; 80 F9 05 06 01 = 63 9000; 80 F9 07 06 01 = 05 9000; "
           "80 F9 0A 06 01 = FF 9000; 80 FE 01 06 01 = 02 9000; 80 F9 00 06 01 = 00 9000; 80 F9 02 06 01 = 01 9000; "
           "80 F9 00 06 01 = 01 9000; 80 F9 03 06 01 = 00 9000; 80 FA 01 00 02 = 00 00 9000");
}

TEST(SimulatedToken, ExtractsEnrollsAndMatches) {
  const Device token;
  converse(token, "80 FA 00 00 02 = 6A0E; 80 FB 00 01 02 = 6A07; 80 FD 06 01 01 = 6A11; 80 FC 01 20 02 = 6A82");
  ASSERT_EQ(simulatorPlaceFinger(token.number, "", 0), 0);
  converse(token, "80 FA 00 00 02 = 00 00 9000; 80 FB 00 01 02 = 6A08");
  token.takeFinger("left thumb");
  EXPECT_EQ(token("80 FD 06 00 01"), "6A12");
  token.enroll("left thumb", 2);
  token.enroll("right thumb", 10);
  converse(token,
           "80 FD 06 0A 01 = 0A 9000; 80 FD 16 00 01 = 0A 9000; 80 FD 26 02 01 = 6A21; 80 FD 06 02 01 = 63C2; "
           "80 FD 06 01 01 = 6A12; 80 FD 16 02 01 = 63C1; 80 FD 06 00 01 = 0A 9000; 80 FD 06 02 01 = 63C2");
  token.takeFinger("a stranger");
  converse(token,
           "80 FD 06 00 01 = 63C1; 80 FD 06 00 01 = 63C0; 80 FD 16 00 01 = 6983; 80 FD 26 00 01 = 6A21; "
           "80 F9 09 00 01 = 04 9000");
  ASSERT_EQ(simulatorUnblock(token.number), 0);
  // A template file that is gone, and one that holds no template.
  converse(token,
           "80 FD 06 00 01 = 63C2; 00 E4 00 00 02 01 02 = 9000; 80 FD 06 02 01 = 6A13; "
           "80 E0 01 02 07 28 03 88 EF EF FF FF = 9000; 80 FD 06 02 01 = 6A14");
}

TEST(SimulatedToken, EnrollsBuffersOfOneFingerOnly) {
  const Device token;
  ASSERT_EQ(token("80 E0 01 40 07 28 03 88 EF EF FF FF"), "9000");
  token.takeFinger("left thumb", '1');
  token.takeFinger("left thumb", '2');
  token.takeFinger("right thumb", '3');
  converse(token, "80 FC 01 40 02 = 6A10; 80 FC 01 40 02 = 6A10");
  token.takeFinger("left thumb", '1');
  token.takeFinger("left thumb", '2');
  EXPECT_EQ(token("80 FC 01 40 02"), "00 00 9000");
  token.takeFinger("right thumb", '1');
  EXPECT_EQ(token("80 FC 01 40 02"), "00 00 9000");
}

TEST(SimulatedToken, AsksForThePin) {
  const Device token;
  token.enroll("left thumb", 2);
  ASSERT_EQ(simulatorRequirePin(token.number, 1), 0);
  converse(token,
           "80 FC 01 02 02 = 6982; 80 FC 77 40 02 = 6982; 80 FE 00 06 01 02 = 6982; 80 F9 02 06 01 = 6982; "
           "00 E4 00 00 02 01 02 = 6982; 80 E0 01 60 07 28 03 88 EF EF FF FF = 9000; 00 E4 00 00 02 01 60 = 9000; "
           "80 FD 06 02 01 = 02 9000; 00 20 00 00 = 63C5; 00 20 00 00 04 31 32 33 34 = 63C4; "
           "00 20 00 00 04 32 34 36 38 = 9000; 00 20 00 00 00 = 9000; 80 F9 09 00 01 = 03 9000; "
           "80 FC 01 02 02 = 00 00 9000; 00 20 00 00 03 32 34 36 = 63C4; 80 FC 01 02 02 = 6982; "
           "00 20 00 00 01 00 = 63C3; 00 20 00 00 01 00 = 63C2; 00 20 00 00 01 00 = 63C1; 00 20 00 00 01 00 = 63C0; "
           "00 20 00 00 04 32 34 36 38 = 6983; 80 F9 09 00 01 = 0A 9000");
}

TEST(SimulatedToken, AssemblesAnImage) {
  const Device token;
  converse(token,
           "80 F7 01 00 0A 01 00 00 00 01 00 00 00 11 22 = 6A80; "
           "80 F7 01 00 0C 00 00 00 00 02 00 00 00 11 12 13 14 = 9000; "
           "80 F7 01 00 0C 02 00 00 00 02 00 00 00 21 22 23 24 = 9000; "
           "80 F7 01 00 0C 02 00 00 00 02 00 00 00 25 26 27 28 = 9000; "
           "80 F7 01 00 0A 05 00 00 00 01 00 00 00 31 32 = 6A80; "
           "80 F7 01 00 0B 04 00 00 00 02 00 00 00 31 32 33 = 6A80; "
           "80 F7 01 00 09 04 00 00 00 01 00 00 00 31 = 6A80; 80 F7 01 00 08 04 00 00 00 01 00 00 00 = 6700; "
           "80 F7 01 01 0A 04 00 00 00 01 00 00 00 31 32 = 6B00; 80 F7 01 00 0A 04 00 00 00 01 00 00 00 31 32 = 9000");
  std::uint32_t lineLength = 0;
  std::uint32_t lines = 0;
  std::array<std::uint8_t, 10> pixels;
  EXPECT_EQ(simulatorGetImage(token.number, &lineLength, &lines, pixels.data(), pixels.size()), 10);
  EXPECT_EQ(lineLength, 2U);
  EXPECT_EQ(lines, 5U);
  EXPECT_EQ(pixels, (std::array<std::uint8_t, 10>{0x11, 0x12, 0x13, 0x14, 0x25, 0x26, 0x27, 0x28, 0x31, 0x32}));
}

TEST(SimulatedToken, FaultsComeOnDemand) {
  std::string full = "05 ";
  for (int byte = 1; byte < 256; ++byte) {
    full += "A5 ";
  }
  // What is answered to a read of the counter's low byte, the write of 9 to it and GET RESPONSE, and the byte
  // afterwards.
  const struct {
    SimulatorFault fault;
    std::string read, write, response, afterwards;
  } cases[] = {
      {{SIMULATOR_FAULT_NONE, 1, 0x6F12, 0}, "05 9000", "9000", "6985", "09"},
      {{SIMULATOR_FAULT_STATUS, 2, 0x6581, 0}, "05 9000", "6581", "6985", "05"},
      {{SIMULATOR_FAULT_STATUS_AFTER, 2, 0x6581, 0}, "05 9000", "6581", "6985", "09"},
      {{SIMULATOR_FAULT_POWER_BEFORE, 2, 0x6F12, 0}, "05 9000", "6F12", "6F12", "05"},
      {{SIMULATOR_FAULT_POWER_AFTER, 2, 0x6F12, 0}, "05 9000", "6F12", "6F12", "09"},
      {{SIMULATOR_FAULT_MORE_DATA, 1, 0, 0}, "6101", "9000", "6985", "09"},
      {{SIMULATOR_FAULT_MORE_DATA, 2, 0, 0}, "05 9000", "6100", "9000", "09"},
      {{SIMULATOR_FAULT_STATUS, 0, 0xFFFF, 0}, "FFFF", "FFFF", "FFFF", "05"},
      {{SIMULATOR_FAULT_TOO_MUCH, 1, 0, 5000}, full + "9000", "9000", "6985", "09"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "kind " << c.fault.kind << " at " << c.fault.exchange);
    const Device token;
    converse(token, "00 A4 00 00 02 00 20 = 9000");
    ASSERT_EQ(simulatorSetFault(token.number, &c.fault), 0);
    converse(token,
             "00 B0 00 01 01 = " + c.read + "; 00 D0 00 01 01 09 = " + c.write + "; 00 C0 00 00 00 = " + c.response);
    ASSERT_EQ(simulatorSetFault(token.number, nullptr), 0);
    const std::string now = c.response == "6F12" ? "6986" : c.afterwards + " 9000";  // the power was cut
    converse(token,
             "00 B0 00 01 01 = " + now + "; 00 A4 00 00 02 00 20 = 9000; 00 B0 00 01 01 = " + c.afterwards + " 9000");
    EXPECT_EQ(simulatorExchanges(token.number), 7U);
  }
}

TEST(SimulatedToken, SurvivesBadCalls) {
  const Device token;
  const std::uint64_t closed = simulatorOpenInMemory(&kTenSlots);
  simulatorClose(closed);
  EXPECT_EQ(simulatorRemoveFinger(closed), -1);
  EXPECT_STREQ(simulatorError(), "no such device");
  const std::array<std::uint8_t, 300> information = {0x80, 0xFA, 0x02, 0x00, 0x2F};
  std::array<std::uint8_t, 4> answer{};
  const struct {
    std::uint64_t device, length;
    const std::uint8_t *command;
    std::uint64_t capacity;
    std::uint8_t *area;
    int status;
  } cases[] = {{0, 5, information.data(), 4, answer.data(), 0xED00},
               {closed, 5, information.data(), 4, answer.data(), 0xED00},
               {token.number, 5, nullptr, 4, answer.data(), 0xED00},
               {token.number, 5, information.data(), 3, answer.data(), 0xED01},
               {token.number, 5, information.data(), ~0ULL, nullptr, 0xED01},
               {token.number, ~0ULL, information.data(), 4, answer.data(), 0x6700}};
  for (const auto &c : cases) {
    std::uint64_t capacity = c.capacity;
    EXPECT_EQ(Icc_tsi_apiKelmDev(c.device, c.length, c.command, &capacity, c.area), c.status);
    EXPECT_EQ(capacity, 0U);
  }
  EXPECT_EQ(Icc_tsi_apiKelmDev(token.number, 5, information.data(), nullptr, answer.data()), 0xED00);
  EXPECT_EQ(answer, (std::array<std::uint8_t, 4>{}));
  // Claims beyond the area, which is left alone all the same.
  const SimulatorFault tooMuch = {SIMULATOR_FAULT_TOO_MUCH, 0, 0, 1ULL << 40};
  ASSERT_EQ(simulatorSetFault(token.number, &tooMuch), 0);
  std::uint64_t capacity = 3;
  EXPECT_EQ(Icc_tsi_apiKelmDev(token.number, 5, information.data(), &capacity, answer.data()), 0x9000);
  EXPECT_EQ(capacity, 1ULL << 40);
  EXPECT_EQ(answer[3], 0);
}

}  // namespace
