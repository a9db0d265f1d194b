// SPDX-License-Identifier: Apache-2.0
// Tokens behind a real pcscd: what goes through, and what happens when something is missing, pulled out or busy.
#include <gtest/gtest.h>

#include <random>

#include "kelmtrova/simulator.h"
#include "tests/readers/virtual_card.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t kDone = 0x9000;
const Bytes kAsk = {0x80, 0xFA, 0x02, 0x00, 0x2F};
const Bytes kSelect = {0x00, 0xA4, 0x00, 0x00, 0x02, 0x05, 0x20};
const Bytes kRead = {0x00, 0xB0, 0x00, 0x00, 0x01};

Bytes done(const Bytes &) { return {0x90, 0x00}; }

std::uint16_t send(std::uint64_t device, const Bytes &command, Bytes *answer = nullptr) {
  Bytes room(256);
  std::uint64_t length = room.size();
  const auto status =
      static_cast<std::uint16_t>(Icc_tsi_apiKelmDev(device, command.size(), command.data(), &length, room.data()));
  room.resize(length);
  if (answer) *answer = room;
  const bool own = deviceManagerCodeText(status) != nullptr;
  EXPECT_EQ(deviceManagerErrorCode(), own ? status : 0);
  EXPECT_EQ(*deviceManagerError() != '\0', own);
  return status;
}

std::uint16_t openingFails(const char *address) {
  EXPECT_EQ(deviceManagerOpen(address), 0U) << address;
  return deviceManagerErrorCode();
}

struct Opened {
  explicit Opened(const char *address = "pcsc:0") : number(deviceManagerOpen(address)) {
    EXPECT_NE(number, 0U) << deviceManagerError();
  }
  ~Opened() { deviceManagerClose(number); }
  const std::uint64_t number;
};

// As another program does it.
void resetCard() { ASSERT_EQ(std::system("opensc-tool --reader 0 --reset >/dev/null 2>&1"), 0); }

double secondsFor(const std::function<void()> &work) {
  const auto begin = Clock::now();
  work();
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

TEST(Readers, AreFoundByNameNumberAndPart) {
  const Service service;
  ASSERT_TRUE(service.started);
  const std::vector<Place> found = places();
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].address, "pcsc:Virtual PCD 00 00");
  EXPECT_FALSE(found[0].present);
  EXPECT_EQ(openingFails("pcsc:0"), DEVICE_MANAGER_NO_CARD);
  const VirtualCard card(done);
  ASSERT_TRUE(card.inserted);
  for (const char *address : {"pcsc:Virtual PCD 00 00", "pcsc:0", "pcsc:pcd 00 00"}) {
    EXPECT_EQ(send(Opened(address).number, kAsk), kDone) << address;
  }
  EXPECT_EQ(openingFails("pcsc:1"), DEVICE_MANAGER_NO_CARD);
  EXPECT_EQ(openingFails("pcsc:2"), DEVICE_MANAGER_NO_READER);
  EXPECT_EQ(openingFails("pcsc:no such"), DEVICE_MANAGER_NO_READER);
  EXPECT_EQ(openingFails("pcsc:virtual"), DEVICE_MANAGER_SEVERAL_READERS);
  EXPECT_EQ(openingFails("pcsc:"), DEVICE_MANAGER_SEVERAL_READERS);
}

// Bytes and status words are the card's, whatever they are.
TEST(Readers, PassEverythingThrough) {
  const Service service;
  ASSERT_TRUE(service.started);
  Bytes next, seen;
  const VirtualCard card([&](const Bytes &command) {
    seen = command;
    return next;
  });
  ASSERT_TRUE(card.inserted);
  const Opened token;
  std::mt19937 random(12);
  const auto bytes = [&](std::size_t length) {
    Bytes made(length);
    for (std::uint8_t &byte : made) byte = static_cast<std::uint8_t>(random());
    return made;
  };
  for (const int status : {0x9000, 0x6110, 0x6C01, 0x63C2, 0x6F00, 0x6200}) {
    for (const std::size_t length : {0U, 1U, 255U, 256U}) {
      const Bytes data = bytes(length);
      const Bytes command = bytes(5 + random() % 256);
      next = data;
      next.insert(next.end(), {static_cast<std::uint8_t>(status >> 8), static_cast<std::uint8_t>(status)});
      Bytes answer;
      EXPECT_EQ(send(token.number, command, &answer), status);
      EXPECT_EQ(answer, data);
      EXPECT_EQ(seen, command);
    }
  }
  next = bytes(259);
  EXPECT_EQ(send(token.number, kAsk), DEVICE_MANAGER_ANSWER_TOO_LONG);
  next = {0x90};
  EXPECT_EQ(send(token.number, kAsk), DEVICE_MANAGER_NO_ANSWER);
  const int before = card.commands;
  EXPECT_EQ(send(token.number, Bytes(262)), DEVICE_MANAGER_COMMAND_TOO_LONG);
  EXPECT_EQ(card.commands, before);
  next = {0x90, 0x00};
  EXPECT_EQ(send(token.number, kAsk), kDone);
}

TEST(Readers, GiveT0TheBytesItWants) {
  const Service service;
  ASSERT_TRUE(service.started);
  Bytes seen;
  const VirtualCard card(
      [&](const Bytes &command) {
        seen = command;
        return Bytes{0x90, 0x00};
      },
      VirtualCard::kT0);
  ASSERT_TRUE(card.inserted);
  const Opened token;
  const struct {
    Bytes command, sent;
  } cases[] = {{{0, 0x20, 0, 0}, {0, 0x20, 0, 0, 0}},
               {{0, 0xB0, 0, 0, 9}, {0, 0xB0, 0, 0, 9}},
               {{0, 0xA4, 0, 0, 2, 5, 0x20}, {0, 0xA4, 0, 0, 2, 5, 0x20}},
               {{0, 0xA4, 0, 0, 2, 5, 0x20, 0}, {0, 0xA4, 0, 0, 2, 5, 0x20}}};
  for (const auto &[command, sent] : cases) {
    EXPECT_EQ(send(token.number, command), kDone);
    EXPECT_EQ(seen, sent);
  }
}

// After another program's reset a command is sent, and once; one for the file that was selected is not.
TEST(Readers, SurviveAResetByAnotherProgram) {
  const Service service;
  ASSERT_TRUE(service.started);
  const VirtualCard card(done);
  ASSERT_TRUE(card.inserted);
  const Opened token;
  EXPECT_EQ(send(token.number, kSelect), kDone);
  const int sessions = card.sessions;
  resetCard();
  ASSERT_GT(card.sessions, sessions);
  int before = card.commands;
  EXPECT_EQ(send(token.number, kRead), DEVICE_MANAGER_CARD_RESET);
  EXPECT_EQ(card.commands, before);
  EXPECT_EQ(send(token.number, kAsk), kDone);
  EXPECT_EQ(card.commands, before + 1);
  EXPECT_EQ(send(token.number, kRead), DEVICE_MANAGER_CARD_RESET);
  EXPECT_EQ(send(token.number, kSelect), kDone);
  EXPECT_EQ(send(token.number, kRead), kDone);
  resetCard();
  before = card.commands;
  EXPECT_EQ(deviceManagerBegin(token.number), 0);
  EXPECT_EQ(send(token.number, kAsk), kDone);
  EXPECT_EQ(deviceManagerEnd(token.number), 0);
  EXPECT_EQ(card.commands, before + 1);
}

// Pulled out while a command runs, at rest, and within a stretch; put back, it is another token until it is opened.
TEST(Readers, NoticeThatTheTokenIsPulledOut) {
  const Service service;
  ASSERT_TRUE(service.started);
  VirtualCard *inside = nullptr;
  for (const bool stretch : {false, true}) {
    std::uint64_t pulled = 0;
    {
      VirtualCard card([&](const Bytes &command) {
        if (command == kRead) inside->pull();
        return Bytes{0x90, 0x00};
      });
      inside = &card;
      ASSERT_TRUE(card.inserted);
      pulled = deviceManagerOpen("pcsc:0");
      if (stretch) {
        EXPECT_EQ(deviceManagerBegin(pulled), 0);
        EXPECT_EQ(deviceManagerBegin(pulled), 0);
      }
      EXPECT_EQ(send(pulled, kAsk), kDone);
      EXPECT_LT(secondsFor([&] { EXPECT_EQ(send(pulled, kRead), DEVICE_MANAGER_CARD_REMOVED); }), 3);
    }
    const VirtualCard again(done);
    ASSERT_TRUE(again.inserted);
    EXPECT_EQ(send(pulled, kAsk), DEVICE_MANAGER_CARD_REMOVED);
    EXPECT_EQ(deviceManagerBegin(pulled), -1);
    if (stretch) {
      EXPECT_EQ(deviceManagerEnd(pulled), 0);
      EXPECT_EQ(deviceManagerEnd(pulled), 0);
    }
    EXPECT_EQ(deviceManagerEnd(pulled), -1);
    EXPECT_EQ(deviceManagerErrorCode(), DEVICE_MANAGER_NO_STRETCH);
    EXPECT_EQ(again.commands, 0);
    EXPECT_EQ(send(Opened().number, kAsk), kDone);
    deviceManagerClose(pulled);
    EXPECT_EQ(send(pulled, kAsk), DEVICE_MANAGER_NO_DEVICE);
  }
  std::uint64_t atRest = 0;
  {
    const VirtualCard card(done);
    ASSERT_TRUE(card.inserted);
    atRest = deviceManagerOpen("pcsc:0");
  }
  EXPECT_EQ(send(atRest, kAsk), DEVICE_MANAGER_CARD_REMOVED);
  deviceManagerClose(atRest);
}

// Another one's endless transaction: everything ends after a while and nothing is sent later.
TEST(Readers, GiveUpOnAnEndlessTransaction) {
  const Service service;
  ASSERT_TRUE(service.started);
  const VirtualCard card(done);
  ASSERT_TRUE(card.inserted);
  const Opened other, sender, beginner;
  ASSERT_EQ(deviceManagerBegin(other.number), 0);
  ASSERT_EQ(deviceManagerBegin(other.number), 0);
  ASSERT_EQ(deviceManagerEnd(other.number), 0);
  const double seconds = secondsFor([&] {
    std::thread sending([&] { EXPECT_EQ(send(sender.number, kAsk), DEVICE_MANAGER_BUSY); });
    std::thread beginning([&] {
      EXPECT_EQ(deviceManagerBegin(beginner.number), -1);
      EXPECT_EQ(deviceManagerErrorCode(), DEVICE_MANAGER_BUSY);
    });
    EXPECT_EQ(openingFails("pcsc:0"), DEVICE_MANAGER_BUSY);
    sending.join();
    beginning.join();
  });
  EXPECT_GT(seconds, 9);
  EXPECT_LT(seconds, 15);
  EXPECT_EQ(send(other.number, kAsk), kDone);
  ASSERT_EQ(deviceManagerEnd(other.number), 0);
  EXPECT_EQ(send(sender.number, kAsk), kDone);
  EXPECT_EQ(send(other.number, kAsk), kDone);
  EXPECT_EQ(deviceManagerBegin(beginner.number), 0);
  EXPECT_EQ(card.commands, 3);
  EXPECT_EQ(deviceManagerEnd(beginner.number), 0);
  EXPECT_EQ(send(Opened().number, kAsk), kDone);
}

TEST(Readers, SayThatTheServiceIsMissingOrHangs) {
  ASSERT_TRUE(places().empty());
  int listed = 0;
  setenv("XDG_DATA_HOME", "/run/test", 1);
  const SimulatorPersonalisation personalisation = {10, 0, 0, nullptr};
  ASSERT_EQ(simulatorCreate("/run/test/kelmtrova/token.db", &personalisation), 0) << simulatorError();
  ASSERT_EQ(places(&listed).size(), 1U);
  EXPECT_EQ(listed, -1);
  EXPECT_EQ(deviceManagerErrorCode(), DEVICE_MANAGER_NO_SERVICE);
  EXPECT_EQ(openingFails("pcsc:0"), DEVICE_MANAGER_NO_SERVICE);
  EXPECT_EQ(send(Opened("sim:").number, kAsk), kDone);
  unsetenv("XDG_DATA_HOME");

  Service service;
  ASSERT_TRUE(service.started);
  const VirtualCard card(done);
  ASSERT_TRUE(card.inserted);
  const Opened token;
  EXPECT_EQ(send(token.number, kAsk), kDone);
  service.freeze();
  const double seconds = secondsFor([] { EXPECT_EQ(openingFails("pcsc:0"), DEVICE_MANAGER_NO_SERVICE); });
  EXPECT_LT(seconds, 8);
  service.thaw();
  EXPECT_EQ(send(token.number, kAsk), kDone);
  service.stop();
  EXPECT_EQ(send(token.number, kAsk), DEVICE_MANAGER_NO_SERVICE);
}

// Devices of several threads, a device shared by two, and stretches, all on one card: every answer is the asker's.
TEST(Readers, KeepThreadsApart) {
  const Service service;
  ASSERT_TRUE(service.started);
  const VirtualCard card([](const Bytes &command) { return Bytes{command[2], command[3], 0x90, 0x00}; });
  ASSERT_TRUE(card.inserted);
  const Opened first, second;
  std::vector<std::thread> threads;
  for (std::uint8_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      const std::uint64_t device = thread % 2 == 0 ? first.number : second.number;
      for (std::uint8_t round = 0; round < 25; ++round) {
        const bool stretch = round % 8 == 0;
        EXPECT_EQ(stretch ? deviceManagerBegin(device) : 0, 0);
        Bytes answer;
        EXPECT_EQ(send(device, {0x80, 0xFA, thread, round, 2}, &answer), kDone);
        EXPECT_EQ(answer, (Bytes{thread, round}));
        EXPECT_EQ(stretch ? deviceManagerEnd(device) : 0, 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

}  // namespace
