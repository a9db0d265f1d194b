// SPDX-License-Identifier: Apache-2.0
// The program as a function, so that the demo can run its commands too.
#pragma once

#include <string>
#include <vector>

namespace kelm::tools {

// Runs the program on the words after its name; the answer is a code of tools/exit_codes.h.
int runProgram(const std::vector<std::string> &words);

}  // namespace kelm::tools
