// SPDX-License-Identifier: Apache-2.0
// Completion of the program's command line in a shell.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace kelm::tools {

// A script for bash that completes the commands and options of `app`, made from what the app itself knows.
std::string bashCompletion(const CLI::App &app);

}  // namespace kelm::tools
