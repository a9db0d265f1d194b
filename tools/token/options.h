// SPDX-License-Identifier: Apache-2.0
// Options that several token commands take.
#pragma once

#include <optional>
#include <string>

namespace kelm::tools {

// Where the PIN comes from; at most one of the first three is given.
struct PinOptions {
  std::optional<std::string> given;  // on the command line, where others can see it; "-" asks for it
  std::string file;                  // its first line
  bool standardInput = false;        // one line of it
  std::string newFile;               // `pin change`: the new one
};

struct TokenOptions {
  std::string address;  // as the user wrote it; empty to choose
  std::string device;   // a maker's device manager's handle, instead
  PinOptions pin;
  int verbosity = 0;
  bool json = false, quiet = false;
  std::string trace;
  bool traceData = false;
};

}  // namespace kelm::tools
