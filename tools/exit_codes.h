// SPDX-License-Identifier: Apache-2.0
// What the program answers to the shell.
#pragma once

namespace kelm::tools {

inline constexpr int kExitDone = 0;     // done, or the finger matches
inline constexpr int kExitNoMatch = 1;  // nothing went wrong, but the finger does not match
inline constexpr int kExitUsage = 2;    // wrong options, or a file that cannot be used
inline constexpr int kExitRefused = 3;  // the token refused
inline constexpr int kExitNoToken = 4;  // there is no token to talk to

}  // namespace kelm::tools
