// SPDX-License-Identifier: Apache-2.0
// The exchange of commands: over the scripted device manager, and over a transport that takes SCardTransmit's place.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "kelmtrova/token.h"
#include "tests/support/device.h"
#include "tests/support/guarded.h"

using namespace kelm::test;

namespace {

struct Reply {
  std::int64_t failure;
  Bytes bytes;
  std::uint64_t claimed = 0;  // 0: as many as there are
};

std::vector<Reply> replies;  // of the replaced transport; empty: the library's own is used
std::vector<const SCardPci *> protocols;
std::uint64_t roomTold;
SCardConnection *switching = nullptr;  // changes its protocol with every exchange

struct Call {
  SCardConnection connection = readyConnection();
  Bytes command = {0x80, 0xF9, 0x05, 0x06, 0x01, 0x77};
  Guarded<std::uint8_t> response{8190};
  std::uint64_t length = 99;
  std::uint32_t send() {
    device.log.clear();
    device.exchanges = 0;
    return SCardAPDU(&connection, command.data(), 5, response.data(), &length);
  }
};

}  // namespace

__attribute__((visibility("default"))) std::int64_t SCardTransmit(std::uint64_t hCard, const SCardPci *sendPci,
                                                                  const std::uint8_t *send, std::uint64_t sendLength,
                                                                  SCardPci *recvPci, std::uint8_t *recv,
                                                                  std::uint64_t *recvLength) {
  if (!device.fixed) {
    protocols.push_back(sendPci);
  }
  if (switching != nullptr) {
    switching->dwProtocol ^= 1;
  }
  if (replies.empty()) {
    static const auto own = reinterpret_cast<decltype(&SCardTransmit)>(dlsym(RTLD_NEXT, "SCardTransmit"));
    return own(hCard, sendPci, send, sendLength, recvPci, recv, recvLength);
  }
  EXPECT_EQ(recvPci, nullptr);
  roomTold = *recvLength;
  device.log.push_back(hex({send, sendLength}));
  const Reply reply = replies.front();
  if (replies.size() > 1) {
    replies.erase(replies.begin());
  }
  std::copy(reply.bytes.begin(), reply.bytes.end(), recv);
  *recvLength = reply.claimed != 0 ? reply.claimed : reply.bytes.size();
  return reply.failure;
}

TEST(Transport, RetryAndGetResponse) {
  const std::string command = "80 F9 05 06 01";
  const struct {
    std::vector<Reply> replies;
    std::uint32_t status;
    std::string data;
    std::vector<std::string> sent;
  } cases[] = {
      {{{0, {0x90, 0x00}}}, 0x9000, "", {command}},
      {{{0, {1, 2, 3, 0x90, 0x00}}}, 0x9000, "01 02 03", {command}},
      {{{0, {7, 0x63, 0xC2}}}, 0x63C2, "07", {command}},
      {{{0, {0x61, 0x10}}, {0, {9, 0x90, 0x00}}}, 0x9000, "09", {command, "00 C0 00 00 10"}},
      {{{0, {0x61, 0x00}}, {0, {0x6A, 0x82}}}, 0x6A82, "", {command, "00 C0 00 00 00"}},
      {{{0, {1, 0x61, 0x02}}, {0, {5, 0x61, 0x03}}}, 0x6103, "05", {command, "00 C0 00 00 02"}},
      {{{0, {0x61, 0x10}}, {1117, {}}}, 0xFFFF, "", {command, "00 C0 00 00 10"}},
      {{{1117, {1, 2}}, {0, {4, 0x90, 0x00}}}, 0x9000, "04", {command, command}},
      {{{1117, {}}, {0, {3, 0x61, 0x10}}}, 0x6110, "03", {command, command}},
      {{{1117, {}}, {1117, {}}}, 0xFFFF, "", {command, command}},
      {{{-1, {1, 0x90, 0x00}}}, 0xFFFF, "", {command}},
      {{{0x100000000, {1, 0x90, 0x00}}}, 0xFFFF, "", {command}},
      {{{0, {}}}, 0xFFFF, "", {command}},
      {{{0, {0x90}}}, 0xFFFF, "", {command}},
      {{{0, Bytes(8192, 0x33)}}, 0x3333, hex(Bytes(8190, 0x33)), {command}},
      {{{0, Bytes(8192, 0x33), 8193}}, 0xFFFF, "", {command}},
      {{{0, {0x90, 0x00}, ~0ULL}}, 0xFFFF, "", {command}},
  };
  for (const auto &expected : cases) {
    Call call;
    replies = expected.replies;
    EXPECT_EQ(call.send(), expected.status);
    ASSERT_LE(call.length, 8190U);
    EXPECT_EQ(hex({call.response.data(), call.length}), expected.data);
    EXPECT_EQ(device.log, expected.sent);
    EXPECT_EQ(hex({call.command.data(), 5}), expected.sent.back());
    EXPECT_EQ(call.command[5], 0x77);
    EXPECT_EQ(roomTold, 8192U);
  }
  replies.clear();
}

TEST(Transport, DeviceManagerAnswers) {
  const Bytes full(256, 0xAB);
  const struct {
    Answer answer;
    std::uint32_t status;
    std::size_t length;
  } cases[] = {
      {{.status = 0x9000}, 0x9000, 0},
      {{.status = 0x9000, .data = full}, 0x9000, 256},
      {{.status = 0x9000, .data = full, .claimed = 257}, 0x9000, 256},
      {{.status = 0x9000, .data = full, .claimed = ~0ULL}, 0x9000, 256},
      {{.status = 0x6A82, .data = full}, 0x6A82, 0},
      {{.status = 0x63C1, .data = full, .claimed = ~0ULL}, 0x63C1, 0},
      {{.status = static_cast<std::int32_t>(0xFFFF9000), .data = {1}}, 0x9000, 1},
      {{.status = 0x12346F00}, 0x6F00, 0},
  };
  for (const auto &expected : cases) {
    device.answer = [&](const Bytes &) { return expected.answer; };
    Call call;
    EXPECT_EQ(call.send(), expected.status);
    EXPECT_EQ(call.length, expected.length);
    const Guarded<std::uint8_t> received(expected.length + 2);
    std::uint64_t length = 0;
    EXPECT_EQ(SCardTransmit(kScriptedDevice, nullptr, call.command.data(), 5, nullptr, received.data(), &length), 0);
    EXPECT_EQ(length, expected.length + 2);
    EXPECT_EQ(received[expected.length] << 8 | received[expected.length + 1], static_cast<int>(expected.status));
  }
}

TEST(Transport, NothingSentWithoutUsableHandleOrBuffers) {
  Call call;
  device.exchanges = 0;
  const auto *allOnes = reinterpret_cast<const SCardConnection *>(~std::uintptr_t{0});
  for (const SCardConnection *handle : {static_cast<const SCardConnection *>(nullptr), allOnes}) {
    call.length = 99;
    EXPECT_EQ(SCardAPDU(handle, call.command.data(), 5, call.response.data(), &call.length), 0xFFFFU);
    EXPECT_EQ(call.length, 0U);
  }
  for (const int state : {0, 1, 2, 4, 255}) {
    call.connection.bState = static_cast<std::uint8_t>(state);
    call.length = 99;
    EXPECT_EQ(call.send(), 0xFFFFU);
    EXPECT_EQ(call.length, 0U);
  }
  call.connection.bState = 3;
  EXPECT_EQ(SCardAPDU(&call.connection, nullptr, 5, call.response.data(), &call.length), 0xFFFFU);
  EXPECT_EQ(SCardAPDU(&call.connection, call.command.data(), 5, nullptr, &call.length), 0xFFFFU);
  EXPECT_EQ(SCardAPDU(&call.connection, call.command.data(), 5, call.response.data(), nullptr), 0xFFFFU);
  const std::uint8_t *const send = call.command.data();
  std::uint8_t *const room = call.response.data();
  call.length = 99;
  EXPECT_EQ(SCardTransmit(kScriptedDevice, nullptr, send, 5, nullptr, nullptr, &call.length), 0);
  EXPECT_EQ(call.length, 0U);
  EXPECT_EQ(SCardTransmit(kScriptedDevice, nullptr, nullptr, 5, nullptr, room, &call.length), 0);
  EXPECT_EQ(SCardTransmit(kScriptedDevice, nullptr, send, 5, nullptr, room, nullptr), 0);
  EXPECT_EQ(device.exchanges, 0U);
}

TEST(Transport, ProtocolRecords) {
  device = {};
  EXPECT_EQ(g_rgSCardT0Pci.dwProtocol, 1U);
  EXPECT_EQ(g_rgSCardT1Pci.dwProtocol, 2U);
  EXPECT_EQ(g_rgSCardT0Pci.cbPciLength + g_rgSCardT1Pci.cbPciLength, 16U);
  for (const std::uint64_t protocol : {0ULL, 1ULL, 2ULL, 0x100000001ULL}) {
    Call call;
    call.connection.dwProtocol = protocol;
    protocols.clear();
    call.send();
    ASSERT_EQ(protocols.size(), 1U);
    EXPECT_EQ(protocols[0], protocol == 1 ? &g_rgSCardT0Pci : &g_rgSCardT1Pci);
  }
}

TEST(Transport, ProtocolIsChosenForEachExchange) {
  Call call;
  call.connection.dwProtocol = 1;
  switching = &call.connection;
  device.answer = [](const Bytes &command) { return Answer{.status = command[1] == 0xC0 ? 0x9000 : 0x6101}; };
  protocols.clear();
  call.send();
  EXPECT_EQ(protocols, (std::vector{&g_rgSCardT0Pci, &g_rgSCardT1Pci}));
  switching = nullptr;
}
