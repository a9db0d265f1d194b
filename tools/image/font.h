// SPDX-License-Identifier: Apache-2.0
// A small built-in typeface of 5 x 8 dots.
#pragma once

#include <array>
#include <cstdint>

namespace kelm::tools {

inline constexpr int kGlyphWidth = 5;
inline constexpr int kGlyphHeight = 8;  // the lowest row is for the tails of g, j, p, q and y

// The columns of a character, the lowest bit on top. Other characters than printable ASCII show as a question mark.
const std::array<uint8_t, kGlyphWidth> &glyphOf(char character);

}  // namespace kelm::tools
