// SPDX-License-Identifier: Apache-2.0
// Formats of others, read with Leptonica. It bounds neither memory nor time, and what it calls prints to standard
// error: call this in the worker process of tools/image/worker.h only.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tools/image/picture.h"

namespace kelm::tools {

// PNG, TIFF (its first page), BMP, JPEG, JPEG 2000, PNM, and GIF and WebP. Colours become their luminance, opacity
// shows white paper below, 16 bits are scaled to 8. Throws PictureError, without a name; formats that are not read are
// named.
Picture decodeForeign(std::span<const uint8_t> bytes);

}  // namespace kelm::tools
