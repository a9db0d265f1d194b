// SPDX-License-Identifier: Apache-2.0
#include "tools/terminal.h"

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

namespace kelm::tools {

Progress::Progress(std::string label, std::string unit, std::uint64_t total)
    : label_(std::move(label)),
      unit_(std::move(unit)),
      total_(std::max<std::uint64_t>(total, 1)),
      active_(isatty(STDERR_FILENO) == 1) {
  show(0);
}

Progress::~Progress() {
  if (active_) std::fputs("\r\033[K", stderr);
}

void Progress::show(std::uint64_t done) {
  constexpr int kWidth = 32;
  done = std::min(done, total_);
  const int percent = static_cast<int>(100 * done / total_);
  if (!active_ || percent == shownPercent_) return;
  shownPercent_ = percent;
  std::string bar(static_cast<std::size_t>(percent * kWidth / 100), '#');
  bar.resize(kWidth, '.');
  std::fprintf(stderr, "\r%s [%s] %3d %%  %llu of %llu %s\033[K", label_.c_str(), bar.c_str(), percent,
               static_cast<unsigned long long>(done), static_cast<unsigned long long>(total_), unit_.c_str());
  std::fflush(stderr);
}

OutputToError::OutputToError() : output_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  if (output_ >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
}

OutputToError::~OutputToError() {
  std::fflush(stdout);
  if (output_ < 0) return;
  dup2(output_, STDOUT_FILENO);
  close(output_);
}

namespace {

// Switches the terminal's echo off for as long as it lives.
class Silence {
 public:
  Silence() : active_(tcgetattr(STDIN_FILENO, &before_) == 0) {
    if (!active_) return;
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  ~Silence() {
    if (active_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
  }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;

 private:
  termios before_{};
  bool active_;
};

}  // namespace

std::string readSecret(const std::string &question) {
  std::string line;
  if (isatty(STDIN_FILENO) != 1) {
    std::getline(std::cin, line);
    return line;
  }
  std::cerr << question << std::flush;
  {
    const Silence silence;
    std::getline(std::cin, line);
  }
  std::cerr << '\n';
  return line;
}

}  // namespace kelm::tools
