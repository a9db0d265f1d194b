// SPDX-License-Identifier: Apache-2.0
// Pictures: what the program reads and writes. Grey in, grey or colour out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/failure.h"

namespace kelm::tools {

// A picture that cannot be used; its line names it.
using PictureError = FileFailure;

// The toolkit holds the sum of all grey levels exactly up to this many pixels, and rows up to this wide.
inline constexpr uint32_t kLargestArea = 8u << 20;
inline constexpr uint32_t kLongestEdge = 8192;

// 8-bit grey, row by row without gaps; 0 is black.
struct Picture {
  int width = 0;
  int height = 0;
  int resolution = 0;  // pixels per inch, 0 where the file does not say
  std::vector<uint8_t> samples;

  Picture() = default;
  Picture(int columns, int rows, uint8_t value = 0)
      : width(columns), height(rows), samples(static_cast<size_t>(columns) * static_cast<size_t>(rows), value) {}
  uint8_t &at(int x, int y) {
    return samples[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
  }
  uint8_t at(int x, int y) const {
    return samples[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
  }
};

// Reads PNG (every kind; colours become their luminance, transparency shows white paper, 16 bits are scaled to 8), PGM
// (P2 and P5, every maxval) or WSQ. The content decides, not the name. Throws PictureError.
Picture readPicture(const std::string &path);
Picture decodePicture(const std::vector<uint8_t> &bytes, const std::string &name);

// A PNG in memory. Written for speed: light compression.
std::vector<uint8_t> encodePng(const Picture &picture);

// Binary PGM, maxval 255.
std::vector<uint8_t> encodePgm(const Picture &picture);

// Whether the name ends in the extension, letter case aside: hasExtension("A.PNG", ".png").
bool hasExtension(const std::string &path, const std::string &extension);

}  // namespace kelm::tools
