// SPDX-License-Identifier: Apache-2.0
// How a command of the program gives up: with one clear line and an exit code.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace kelm::tools {

struct Failure : std::runtime_error {
  Failure(int exitCodeGiven, const std::string &line, std::uint64_t resultGiven = 0)
      : std::runtime_error(line), exitCode(exitCodeGiven), result(resultGiven) {}
  int exitCode;
  std::uint64_t result;  // the library's result code, 0 when none is behind it
};

}  // namespace kelm::tools
