// SPDX-License-Identifier: Apache-2.0
// "did you mean": what a mistyped command or option may have been.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace kelm::tools {

// The command or option of `app` that differs from `word` by a slip or two of the fingers; "" when none does.
std::string suggestion(const CLI::App &app, const std::string &word);

}  // namespace kelm::tools
