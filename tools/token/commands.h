// SPDX-License-Identifier: Apache-2.0
// The commands of `kelmtrova token`.
#pragma once

#include <CLI/CLI.hpp>

namespace kelm::tools {

// Adds the commands to the program. The one that runs puts its result, a code of tools/exit_codes.h, into `exitCode`.
void addTokenCommands(CLI::App &app, int &exitCode);

}  // namespace kelm::tools
