// SPDX-License-Identifier: Apache-2.0
// Completion of the program's command line in a shell.
#pragma once

#include <CLI/CLI.hpp>

namespace kelm::tools {

// Adds `completion SHELL`, which prints a script for bash, zsh or fish, made from what the app itself knows. Labels and
// addresses are asked for while they are completed, from the hidden command `complete` of tools/token/commands.h.
void addCompletionCommand(CLI::App &app);

}  // namespace kelm::tools
