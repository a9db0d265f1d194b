// SPDX-License-Identifier: Apache-2.0
#include "tools/terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <utility>

#include "tools/failure.h"
#include "tools/output.h"
#include "tools/signals.h"

namespace kelm::tools {

namespace {

std::size_t terminalWidth() {
  constexpr std::size_t kUsual = 80;
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

}  // namespace

Progress::Progress(std::string label, std::string unit, std::uint64_t total)
    : label_(std::move(label)),
      unit_(std::move(unit)),
      total_(std::max<std::uint64_t>(total, 1)),
      active_(isControllable(STDERR_FILENO) && !isQuiet()) {
  show(0);
}

Progress::~Progress() { clearStatusLine(); }

void Progress::show(std::uint64_t done) {
  using namespace std::chrono_literals;
  constexpr std::size_t kBar = 32;
  if (!active_) return;
  done = std::min(done, total_);
  const auto now = std::chrono::steady_clock::now();
  const std::uint64_t percent = 100 * done / total_;
  if (percent == shownPercent_ && now - last_ < 200ms && isStatusLineShown()) return;
  shownPercent_ = percent;
  last_ = now;
  std::string rest = fmt::format(" {:3} %  {} of {} {}", percent, done, total_, unit_);
  const double seconds = std::chrono::duration<double>(now - start_).count();
  if (seconds > 2 && done > 0 && done < total_) {
    const double rate = static_cast<double>(done) / seconds;
    rest += fmt::format(", {:.3g}/s, {:.0f} s left", rate, static_cast<double>(total_ - done) / rate);
  }
  // The bar shrinks first, then the label, then the line is cut: a line that wraps could not be rewritten.
  const std::size_t width = terminalWidth() - 1, others = label_.size() + rest.size() + 3;
  const std::size_t bar = width > others ? std::min(kBar, width - others) : 0;
  std::string line = label_.substr(0, width > rest.size() ? width - rest.size() : 0);
  if (bar > 3) line += fmt::format(" [{:.<{}}]", std::string(static_cast<std::size_t>(percent) * bar / 100, '#'), bar);
  showStatusLine((line + rest).substr(0, width));
}

Redirected::Redirected(int from, int to) : from_(from), kept_(fcntl(from, F_DUPFD_CLOEXEC, 0)) {
  std::fflush(nullptr);
  if (kept_ >= 0) dup2(to, from_);
}

Redirected::~Redirected() {
  std::fflush(nullptr);
  if (kept_ < 0) return;
  dup2(kept_, from_);
  close(kept_);
}

namespace {

// Switches the terminal's echo off for as long as it lives. While the program is stopped, and when a signal ends it,
// the echo is there.
class Silence {
 public:
  explicit Silence(const std::string &question)
      : active_(tcgetattr(STDIN_FILENO, &before_) == 0), onSignal_([this, question](int signal) {
          restore();
          std::fputc('\n', stderr);
          if (signal != SIGTSTP) return false;
          raise(SIGSTOP);
          begin(question);
          return true;
        }) {
    begin(question);
  }
  ~Silence() { restore(); }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;

 private:
  void begin(const std::string &question) const {
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (active_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::fputs(question.c_str(), stderr);
  }
  void restore() const {
    if (active_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
  }

  termios before_{};
  bool active_;
  OnSignal onSignal_;
};

bool readLine(std::string &line) { return static_cast<bool>(std::getline(std::cin, line)); }

}  // namespace

std::string readSecret(const std::string &question) {
  std::string line;
  bool got;
  if (isatty(STDIN_FILENO) == 1) {
    const Silence silence(question);
    got = readLine(line);
    std::fputc('\n', stderr);
  } else {
    got = readLine(line);
  }
  if (!got) throw Failure(kExitUsage, "standard input holds no PIN");
  return line;
}

bool confirmed(const std::string &question) {
  if (isatty(STDIN_FILENO) != 1) return false;
  std::fputs(question.c_str(), stderr);
  std::string line;
  return readLine(line) && (line == "y" || line == "Y" || line == "yes");
}

}  // namespace kelm::tools
