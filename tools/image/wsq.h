// SPDX-License-Identifier: Apache-2.0
// Reader of WSQ, the format in which police and border authorities keep fingerprints: wavelet scalar quantization,
// after the FBI's document IAFIS-IC-0110, version 3.1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace kelm::tools {

// Bytes that are no WSQ picture that can be read; what() is a reason without the picture's name.
class WsqError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct WsqPicture {
  int width = 0;
  int height = 0;
  int pixelsPerInch = 0;         // from the comment that NIST's tools write; 0 where there is none
  std::vector<uint8_t> samples;  // 8-bit grey, row by row without gaps; 0 is black
};

// Whether bytes begin as a WSQ picture does; says nothing about the rest of them.
bool looksLikeWsq(std::span<const uint8_t> bytes);

// Decodes a whole picture of at most `largestArea` pixels and edges of at most `longestEdge`. Memory: five bytes a
// pixel beside the result. Throws WsqError, also for what the format knows and nobody writes: restart intervals and
// transform filters of even length.
WsqPicture decodeWsq(std::span<const uint8_t> bytes, int longestEdge, size_t largestArea);

}  // namespace kelm::tools
