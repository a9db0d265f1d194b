// SPDX-License-Identifier: Apache-2.0
// A pcscd of the test's own, and cards in its virtual reader that do what the test tells them.
#ifndef KELMTROVA_TESTS_READERS_VIRTUAL_CARD_H
#define KELMTROVA_TESTS_READERS_VIRTUAL_CARD_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "kelmtrova/device_manager.h"

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

// Waits until something holds, or for five seconds.
inline bool eventually(const std::function<bool()> &holds) {
  const auto end = Clock::now() + std::chrono::seconds(5);
  while (!holds()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

struct Place {
  std::string address;
  bool present;
};

inline std::vector<Place> places(int *result = nullptr) {
  std::vector<Place> found;
  const auto visit = [](void *context, const DeviceManagerToken *token) {
    static_cast<std::vector<Place> *>(context)->push_back({token->address, token->cardPresent != 0});
    return 0;
  };
  const int listed = deviceManagerList(visit, &found);
  if (result) *result = listed;
  return found;
}

class Service {
 public:
  Service() {
    pid_ = fork();
    if (pid_ == 0) {
      if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(1);
      execlp("pcscd", "pcscd", "--foreground", static_cast<char *>(nullptr));
      _exit(1);
    }
    started = eventually([] { return !places().empty(); });
  }
  ~Service() { stop(); }
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGCONT);
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  void freeze() const { kill(pid_, SIGSTOP); }
  void thaw() const { kill(pid_, SIGCONT); }

  bool started = false;

 private:
  pid_t pid_ = 0;
};

// A card in the first virtual reader; out again when destroyed.
class VirtualCard {
 public:
  using Answer = std::function<Bytes(const Bytes &)>;
  // Speaks T=1; the other ATR T=0.
  static inline const Bytes kT1 = {0x3B, 0x80, 0x01, 0x81};
  static inline const Bytes kT0 = {0x3B, 0x00};

  explicit VirtualCard(Answer answer, Bytes atr = kT1) : answer_(std::move(answer)), atr_(std::move(atr)) {
    socket_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in reader{};
    reader.sin_family = AF_INET;
    reader.sin_port = htons(35963);
    reader.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    inserted = eventually([&] { return connect(socket_, reinterpret_cast<sockaddr *>(&reader), sizeof reader) == 0; });
    thread_ = std::thread([this] { serve(); });
    inserted = inserted && eventually([] { return !places().empty() && places()[0].present; });
  }
  ~VirtualCard() {
    pull();
    thread_.join();
    close(socket_);
    eventually([] { return places().empty() || !places()[0].present; });
  }
  // May be called by the card's own answer, which then gets nowhere.
  void pull() { shutdown(socket_, SHUT_RDWR); }

  bool inserted = false;
  std::atomic<int> commands = 0;
  std::atomic<int> sessions = 0;

 private:
  // The reader sends a message in two pieces and waits until the first one's receipt is confirmed.
  bool receive(std::uint8_t *to, std::size_t length) {
    const int now = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &now, sizeof now);
    return length == 0 || recv(socket_, to, length, MSG_WAITALL) == static_cast<ssize_t>(length);
  }
  void serve() {
    std::uint8_t length[2];
    while (receive(length, sizeof length)) {
      Bytes message(static_cast<std::size_t>(length[0] << 8 | length[1]));
      if (!receive(message.data(), message.size())) return;
      if (message.size() == 1 && message[0] != 4) {
        sessions += message[0] != 0;
        continue;
      }
      commands += message.size() > 1;
      const Bytes answer = message.size() == 1 ? atr_ : answer_(message);
      Bytes sent = {static_cast<std::uint8_t>(answer.size() >> 8), static_cast<std::uint8_t>(answer.size())};
      sent.insert(sent.end(), answer.begin(), answer.end());
      if (send(socket_, sent.data(), sent.size(), MSG_NOSIGNAL) < 0) return;
    }
  }

  Answer answer_;
  Bytes atr_;
  int socket_ = -1;
  std::thread thread_;
};

#endif
