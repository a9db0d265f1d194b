// SPDX-License-Identifier: Apache-2.0
// Pictures in formats of others are decoded in processes apart, limited in memory and time, with nothing to print to:
// this program itself, started with a word that no command has. They stay for the next picture.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "tools/image/picture.h"

namespace kelm::tools {

inline constexpr std::string_view kWorkerWord = "--decode-pictures";

// Decodes the content of a file in a worker. Throws PictureError, without a name. Threads may call it at once; each
// then has a worker of its own.
Picture decodeApart(std::span<const uint8_t> bytes);

// What the worker does: answers requests on its standard input until that is closed. The exit code.
int serveAsWorker();

}  // namespace kelm::tools
