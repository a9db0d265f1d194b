// SPDX-License-Identifier: Apache-2.0
// The commands of `kelmtrova image`.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

// Adds the commands to the program. The one that runs puts its result, a code of tools/exit_codes.h, into `exitCode`.
void addImageCommands(CLI::App &app, int &exitCode);

// The last part of `kelmtrova demo`: a picture analysed on standard output, its files kept in the folder `directory`.
// The exit code; 0 also when there is nothing to show.
int demoImage(const std::string &directory);
