// SPDX-License-Identifier: Apache-2.0
// PNG files without what is not the picture, and no longer than the picture can need.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kelm::tools {

bool looksLikePng(std::span<const uint8_t> bytes);

// The chunks that make up the picture and its resolution, as they lie in the file; whether they are sound is for the
// decoder to find out. Decoders inflate and check all that they are given, so that a picture of 64 x 64 pixels could
// keep one busy for minutes. Throws PictureError, without a name, for a file that ends too early, dimensions out of
// range and more data than the dimensions can need.
std::vector<uint8_t> essentialPng(std::span<const uint8_t> bytes);

}  // namespace kelm::tools
