// SPDX-License-Identifier: Apache-2.0
// Where a PIN comes from.
#pragma once

#include <optional>
#include <string>

#include "tools/token/options.h"

namespace kelm::tools {

// Throws for what no token takes as a PIN, before it costs a try.
void requirePossiblePin(const std::string &pin);

// The one that the options give; none when they give none. A PIN on the command line is warned of.
std::optional<std::string> givenPin(const PinOptions &options);
// The one for a token that asks: from KELMTROVA_PIN, or typed on a terminal; none without either.
std::optional<std::string> pinOnDemand();
// Given or on demand, or a failure that says how to give it.
std::string requiredPin(const PinOptions &options);

// One that is to become a token's: typed twice on a terminal, else the next line of standard input.
std::string newPin(const std::string &question);

// The first line of a file, without its end.
std::string pinFromFile(const std::string &file);

// Says on standard error that others can see a PIN on the command line.
void warnOfVisiblePin();

}  // namespace kelm::tools
