// SPDX-License-Identifier: Apache-2.0
// Pictures: what the program reads and writes. Grey in, grey or colour out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
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

// More than the largest picture needs uncompressed, with 16 bits and four channels.
inline constexpr size_t kLargestFile = size_t{kLargestArea} * 8 + (1 << 20);

// Reads a file, or standard input for "-": PGM and WSQ here, all other formats in a process apart
// (tools/image/worker.h). The content decides, not the name. Throws PictureError.
Picture readPicture(const std::string &path);

// These throw PictureError without a name: for dimensions outside the limits, and for a PGM (P2 and P5, every maxval)
// that is not sound.
void checkSize(uint64_t width, uint64_t height);
bool looksLikePgm(std::span<const uint8_t> bytes);
Picture decodePgm(std::span<const uint8_t> bytes);

// A PNG in memory. Written for speed: light compression.
std::vector<uint8_t> encodePng(const Picture &picture);

// Binary PGM, maxval 255.
std::vector<uint8_t> encodePgm(const Picture &picture);

// Whether the name ends in the extension, letter case aside: hasExtension("A.PNG", ".png").
bool hasExtension(const std::string &path, const std::string &extension);

}  // namespace kelm::tools
