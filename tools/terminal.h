// SPDX-License-Identifier: Apache-2.0
// The program's standard streams: progress, and secrets typed without an echo, all on a terminal only.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kelm::tools {

// A line on standard error that shows how far something is; nothing at all where that is not a terminal. It is as wide
// as the terminal lets it be, and rewritten when a percent is done or some time has passed.
class Progress {
 public:
  Progress(std::string label, std::string unit, std::uint64_t total);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  // Brings the line back, too, when it went for what was printed in between.
  void show(std::uint64_t done);

 private:
  std::string label_, unit_;
  std::uint64_t total_;
  std::uint64_t shownPercent_ = ~std::uint64_t{0};
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now(), last_{};
  bool active_;
};

// The stream `from` (STDOUT_FILENO or STDERR_FILENO) goes where `to` goes for as long as it lives: so what a library
// prints by itself does not get between the lines of a result.
class Redirected {
 public:
  Redirected(int from, int to);
  ~Redirected();
  Redirected(const Redirected &) = delete;
  Redirected &operator=(const Redirected &) = delete;

 private:
  int from_, kept_;
};

// One line of standard input without its end. On a terminal it is asked for by `question` and not shown while it is
// typed; a signal brings the echo back before it does its work. Throws when there is no line.
std::string readSecret(const std::string &question);

// Whether a person answers "y" on the terminal; false without one.
bool confirmed(const std::string &question);

}  // namespace kelm::tools
