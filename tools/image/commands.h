// SPDX-License-Identifier: Apache-2.0
// The commands of `kelmtrova image`.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace kelm::tools {

// Adds the commands to the program. The one that runs puts its result, a code of tools/exit_codes.h, into `exitCode`,
// or throws a Failure, which tools/program.cpp prints.
void addImageCommands(CLI::App &app, int &exitCode);

// The last part of `kelmtrova demo`: a picture analysed on standard output, its files kept in the folder `directory`.
void demoImage(const std::string &directory);

}  // namespace kelm::tools
