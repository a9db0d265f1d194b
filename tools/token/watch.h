// SPDX-License-Identifier: Apache-2.0
// The program's eyes on the exchange with the token: its own SCardTransmit and MYTRACE, which take the place of the
// library's.
#pragma once

#include <cstdint>
#include <functional>

namespace kelm::tools {

struct Watch {
  int verbosity = 0;                   // 1 shows every command and answer on standard error, 2 the library's traces too
  int lastStatus = -1;                 // the status word of the last exchange, -1 before the first
  std::function<void()> onImageBlock;  // called after each block of an image sent to the token
};

Watch &watch();

}  // namespace kelm::tools
