// SPDX-License-Identifier: Apache-2.0
// The program's standard streams: progress and secrets typed without an echo, both on a terminal only, and what is kept
// off standard output.
#pragma once

#include <cstdint>
#include <string>

namespace kelm::tools {

// A line on standard error that shows how far something is; nothing at all where that is not a terminal.
class Progress {
 public:
  Progress(std::string label, std::string unit, std::uint64_t total);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  void show(std::uint64_t done);

 private:
  std::string label_, unit_;
  std::uint64_t total_;
  int shownPercent_ = -1;
  bool active_;
};

// Standard output goes to standard error for as long as it lives, so that what a library prints by itself does not get
// between the lines of a result.
class OutputToError {
 public:
  OutputToError();
  ~OutputToError();
  OutputToError(const OutputToError &) = delete;
  OutputToError &operator=(const OutputToError &) = delete;

 private:
  int output_;
};

// One line of standard input; on a terminal it is asked for by `question` and not shown while it is typed.
std::string readSecret(const std::string &question);

}  // namespace kelm::tools
