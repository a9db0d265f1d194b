// SPDX-License-Identifier: Apache-2.0
#include "tools/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "tools/failure.h"

namespace kelm::tools {

namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGTSTP};

// The handler only passes the number on: what has to be done may not be done in a handler.
int numbersIn = -1;

void passOn(int signal) {
  const int before = errno;
  const auto number = static_cast<unsigned char>(signal);
  [[maybe_unused]] const ssize_t written = write(numbersIn, &number, 1);
  errno = before;
}

// Lets the signal do what it does to any program.
void deliver(int signal) {
  struct sigaction usual {
  }, ours{};
  usual.sa_handler = SIG_DFL;
  sigaction(signal, &usual, &ours);
  raise(signal == SIGTSTP ? SIGSTOP : signal);
  sigaction(signal, &ours, nullptr);  // reached when the program was stopped and goes on
}

class Watcher {
 public:
  static Watcher &instance() {
    static Watcher *const watcher = new Watcher;  // lives as long as its thread: to the end of the program
    return *watcher;
  }

  void add(OnSignal::Action action) {
    const std::lock_guard lock(mutex_);
    actions_.push_back(std::move(action));
    if (actions_.size() == 1) install();
  }

  void remove() {
    const std::lock_guard lock(mutex_);
    actions_.pop_back();
    if (!actions_.empty()) return;
    for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &before_[i], nullptr);
  }

 private:
  Watcher() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(kExitUsage, "no pipe can be made for signals");
    numbersIn = ends[1];
    std::thread([this, numbersOut = ends[0]] {
      for (unsigned char number; read(numbersOut, &number, 1) == 1;) act(number);
    }).detach();
  }

  void install() {
    struct sigaction handler {};
    handler.sa_handler = passOn;
    handler.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      sigaction(kSignals[i], nullptr, &before_[i]);
      if (before_[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &handler, nullptr);
    }
  }

  void act(int signal) {
    const std::lock_guard lock(mutex_);
    for (auto action = actions_.rbegin(); action != actions_.rend(); ++action) {
      if ((*action)(signal)) return;
    }
    deliver(signal);
  }

  std::mutex mutex_;
  std::vector<OnSignal::Action> actions_;
  std::array<struct sigaction, kSignals.size()> before_{};
};

}  // namespace

OnSignal::OnSignal(Action action) { Watcher::instance().add(std::move(action)); }

OnSignal::~OnSignal() { Watcher::instance().remove(); }

}  // namespace kelm::tools
