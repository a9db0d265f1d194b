// SPDX-License-Identifier: Apache-2.0
// The program's view of the exchange with the token: its own Icc_tsi_apiKelmDev passes each command on to the device
// manager, its MYTRACE hears the library's traces, and its MyLock and MyUnlock keep the token to the program for as
// long as the library works on it.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace kelm::tools {

struct Watch {
  int verbosity = 0;     // 1 shows every command and answer on standard error, 2 the library's traces too
  int lastStatus = -1;   // the status word, or the device manager's code, of the last exchange; -1 before the first
  int tracedStatus = 0;  // the status word that a command of the library traced last
  std::function<void(std::uint8_t instruction)> onCommand;  // called after each command
};

Watch &watch();

// Each exchange is also written to `file` from now on, see kelmtrova/trace.h. What keeps it from being written is said
// once, on standard error, by traceEnds() at the latest.
void traceInto(const std::string &file, bool withUserData);
void traceEnds();

// Shows and writes an exchange that is not made by this program's Icc_tsi_apiKelmDev: first the command, then its
// answer with what the first call gave.
std::uint64_t observeCommand(std::uint64_t device, std::span<const std::uint8_t> command);
void observeAnswer(std::uint64_t exchange, std::span<const std::uint8_t> answer, std::uint16_t status);

// An exclusive stretch of the token for as long as it lives; throws when another program does not let go of it.
class Stretch {
 public:
  explicit Stretch(std::uint64_t device);
  ~Stretch();
  Stretch(const Stretch &) = delete;
  Stretch &operator=(const Stretch &) = delete;

 private:
  std::uint64_t device_;
};

}  // namespace kelm::tools
