// SPDX-License-Identifier: Apache-2.0
// The simulated token in a virtual reader, with a reader of the test's own at the other end.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <random>

#include "tests/devices/device.h"

namespace {

using Message = std::vector<std::uint8_t>;

class VirtualReader : public testing::Test {
 protected:
  VirtualReader() {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof here;
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&here), size), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&here), &size), 0);
    address = "127.0.0.1:" + std::to_string(ntohs(here.sin_port));
    EXPECT_EQ(pipe(stop.data()), 0);
  }
  ~VirtualReader() override {
    for (const int file : {listener, stop[0], stop[1]}) close(file);
  }

  void begin() {
    serving = std::async(std::launch::async, [this] {
      const int result = simulatorServe(token.number, address.c_str(), stop[0], nullptr, nullptr);
      return std::pair(result, result ? simulatorFailure() : SIMULATOR_OK);
    });
    connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    const int on = 1;
    ASSERT_EQ(setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
  }
  void say(const Message &bytes) const {
    EXPECT_EQ(::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  void sendMessage(const Message &message) const {
    Message bytes = {static_cast<std::uint8_t>(message.size() >> 8), static_cast<std::uint8_t>(message.size())};
    bytes.insert(bytes.end(), message.begin(), message.end());
    for (const std::uint8_t byte : bytes) say({byte});
  }
  Message answer() const {
    Message bytes(2);
    if (recv(connection, bytes.data(), 2, MSG_WAITALL) != 2) return {};
    bytes.resize(static_cast<std::size_t>(bytes[0] << 8 | bytes[1]));
    EXPECT_EQ(recv(connection, bytes.data(), bytes.size(), MSG_WAITALL), static_cast<ssize_t>(bytes.size()));
    return bytes;
  }
  Message operator()(const Message &command) const {
    sendMessage(command);
    return answer();
  }

  const Device token;
  std::string address;
  std::array<int, 2> stop{};
  int listener = -1;
  int connection = -1;
  std::future<std::pair<int, SimulatorFailure>> serving;
};

TEST_F(VirtualReader, TokenAnswersLikeACard) {
  begin();
  const auto card = [this](const Message &command) { return (*this)(command); };
  sendMessage({1});
  const Message atr = card({4});
  ASSERT_EQ(atr.size(), 20U);
  EXPECT_EQ(std::string(atr.begin() + 6, atr.end() - 1), "kelmtrova sim");
  std::uint8_t check = 0;
  for (std::size_t at = 1; at < atr.size(); ++at) check ^= atr[at];
  EXPECT_EQ(check, 0);
  const Message kAskForPin = {0x00, 0x20, 0x00, 0x00};
  EXPECT_EQ(card({0x00, 0xA4, 0x00, 0x0C, 0x02, 0x00, 0x20}), (Message{0x90, 0x00}));
  EXPECT_EQ(card({0x00, 0xB0, 0x00, 0x01, 0x02}), (Message{0x05, 0x00, 0x90, 0x00}));
  EXPECT_EQ(card({0x00, 0x20, 0x00, 0x00, 0x04, '2', '4', '6', '8'}), (Message{0x90, 0x00}));
  EXPECT_EQ(card(kAskForPin), (Message{0x90, 0x00}));
  EXPECT_EQ(card(Message(300, 0x80)), (Message{0x6D, 0x00}));
  EXPECT_EQ(card({0x00, 0xB0}), (Message{0x67, 0x00}));
  // A reset, and the power going, end the session.
  sendMessage({2});
  EXPECT_EQ(card({0x00, 0xB0, 0x00, 0x01, 0x02}), (Message{0x69, 0x86}));
  EXPECT_EQ(card(kAskForPin), (Message{0x63, 0xC5}));
  const SimulatorFault noPower = {SIMULATOR_FAULT_POWER_AFTER, 1, 0x6F12, 0};
  ASSERT_EQ(simulatorSetFault(token.number, &noPower), 0);
  for (int time = 0; time < 2; ++time) EXPECT_EQ(card(kAskForPin), (Message{0x6F, 0x12}));
  sendMessage({0});
  EXPECT_EQ(card(kAskForPin), (Message{0x63, 0xC5}));
  EXPECT_EQ(write(stop[1], "", 1), 1);
  EXPECT_EQ(serving.get().first, 0);
  EXPECT_EQ(answer(), Message()) << "the card is pulled out";
  close(connection);
}

TEST_F(VirtualReader, NonsenseAndDisappearingReadersEndIt) {
  const struct {
    Message bytes;
    SimulatorFailure failure;
  } cases[] = {{{}, SIMULATOR_READER_GONE},
               {{0x00}, SIMULATOR_READER_GONE},
               {{0x00, 0x05, 0x80}, SIMULATOR_READER_GONE},
               {{0x00, 0x00}, SIMULATOR_READER_NONSENSE},
               {{0x00, 0x01, 0x03}, SIMULATOR_READER_NONSENSE}};
  for (const auto &c : cases) {
    begin();
    say(c.bytes);
    shutdown(connection, SHUT_WR);
    const auto [result, failure] = serving.get();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(failure, c.failure);
    close(connection);
  }
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    begin();
    Message bytes(random() % 600);
    for (std::uint8_t &byte : bytes) byte = static_cast<std::uint8_t>(random() % (random() % 2 ? 3 : 256));
    say(bytes);
    close(connection);
    ASSERT_EQ(serving.get().first, -1);
  }
  EXPECT_EQ(token("80 FA 01 00 02"), "00 00 9000") << "the token is whole";
  close(listener);
  listener = -1;
  const std::pair<const char *, SimulatorFailure> addresses[] = {{address.c_str(), SIMULATOR_NO_READER},
                                                                 {"host:port", SIMULATOR_BAD_ARGUMENT},
                                                                 {":0", SIMULATOR_BAD_ARGUMENT},
                                                                 {"127.0.0.1:65536", SIMULATOR_BAD_ARGUMENT},
                                                                 {"127.0.0.1:", SIMULATOR_BAD_ARGUMENT}};
  for (const auto &[where, failure] : addresses) {
    EXPECT_EQ(simulatorServe(token.number, where, stop[0], nullptr, nullptr), -1) << where;
    EXPECT_EQ(simulatorFailure(), failure) << simulatorError();
  }
  EXPECT_EQ(simulatorServe(0, nullptr, stop[0], nullptr, nullptr), -1);
  EXPECT_EQ(simulatorFailure(), SIMULATOR_NO_DEVICE);
}

}  // namespace
