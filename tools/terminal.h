// What the program does only on a terminal: progress, and secrets typed without an echo.
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

// One line of standard input; on a terminal it is asked for by `question` and not shown while it is typed.
std::string readSecret(const std::string &question);

}  // namespace kelm::tools
