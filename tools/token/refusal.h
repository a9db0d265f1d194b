// SPDX-License-Identifier: Apache-2.0
// What the library, the device manager and a simulated token's store refuse, as failures with words and exit codes.
#pragma once

#include <cstdint>
#include <string>

#include "tools/failure.h"

namespace kelm::tools {

// Fails unless the result of `action` ("reading the slots") is 0: with the device manager's own code where the exchange
// ended with one, else with what the library's result means.
void check(std::uint64_t result, const std::string &action);
// A failed file command of the library (they answer 1 or 0), explained by the last status word.
Failure fileRefusal(const std::string &action);

// Whether the last exchange ended with a code of the device manager's own: no token answered it.
bool noTokenAnswered();
Failure managerFailure(const std::string &action, std::uint16_t code);
// The last failure of the simulated token's control functions; its words name the store.
Failure storeFailure();

}  // namespace kelm::tools
