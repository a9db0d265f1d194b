// SPDX-License-Identifier: Apache-2.0
// How a command of the program gives up: the one error type, thrown by whoever notices, printed in tools/program.cpp.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "tools/exit_codes.h"

namespace kelm::tools {

// One line for people, what() = "ERROR; ADVICE", and the same in parts for --json.
struct Failure : std::runtime_error {
  // `error` names the file, slot or token in question; names from outside may stand in it as they are. `code` is one
  // word for programs (docs/json.md lists them); empty for the usual one of the exit code.
  Failure(int exitCodeGiven, const std::string &errorGiven, const std::string &adviceGiven = "",
          std::string codeGiven = "")
      : std::runtime_error(adviceGiven.empty() ? errorGiven : errorGiven + "; " + adviceGiven),
        exitCode(exitCodeGiven),
        error(errorGiven),
        advice(adviceGiven),
        code(std::move(codeGiven)) {}

  int exitCode;
  std::string error, advice, code;
  std::uint64_t result = 0;  // the library's result code, 0 when none is behind it
};

// A file that cannot be read, written or used.
struct FileFailure : Failure {
  explicit FileFailure(const std::string &line, const std::string &adviceGiven = "")
      : Failure(kExitUsage, line, adviceGiven, "file") {}
};

}  // namespace kelm::tools
