// SPDX-License-Identifier: Apache-2.0
// Result codes and status words in words.
#pragma once

#include <cstdint>
#include <string>

namespace kelm::tools {

// What the result code of a token command means.
struct ResultWords {
  std::uint64_t code;
  const char *what;       // what happened
  const char *advice;     // what the user can do about it
  const char *word = "";  // for programs; "" for the usual one of its exit code
};

// Every code that the library makes or passes on has an entry; for another one an entry that says so.
const ResultWords &resultWords(std::uint64_t result);
std::string resultNumber(std::uint64_t result);  // "0x80006982"

// What a status word or a code of the device manager says, "" for one that means nothing by itself.
std::string statusWords(int status);

}  // namespace kelm::tools
