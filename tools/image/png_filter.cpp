// SPDX-License-Identifier: Apache-2.0
#include "tools/image/png_filter.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "tools/image/picture.h"

namespace kelm::tools {
namespace {

constexpr std::array<uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr size_t kFrame = 12;  // length, type and checksum of a chunk

uint32_t number(std::span<const uint8_t> bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

[[noreturn]] void unsound(const char *reason) { throw PictureError(std::string("not a sound PNG (") + reason + ")"); }

// The most bytes of compressed data that a sound picture with this header has.
size_t dataLimit(std::span<const uint8_t> header) {
  const uint32_t width = number(header), height = number(header.subspan(4));
  checkSize(width, height);
  constexpr std::array<uint8_t, 7> kChannels = {1, 0, 3, 1, 2, 0, 4};
  const uint8_t depth = header[8], kind = header[9];
  if (depth > 16 || kind >= kChannels.size() || kChannels[kind] == 0) unsound("a kind of picture that does not exist");
  const size_t row = (size_t{width} * depth * kChannels[kind] + 7) / 8 + 1;
  // Data that cannot be compressed grows a little, more so in small blocks and in the seven passes of an interlaced
  // file.
  return 2 * row * height + (1 << 16);
}

}  // namespace

bool looksLikePng(std::span<const uint8_t> bytes) {
  return bytes.size() >= kSignature.size() && std::equal(kSignature.begin(), kSignature.end(), bytes.begin());
}

std::vector<uint8_t> essentialPng(std::span<const uint8_t> bytes) {
  std::vector<uint8_t> out(kSignature.begin(), kSignature.end());
  bytes = bytes.subspan(kSignature.size());
  size_t left = 0;  // compressed data that may still come
  bool begun = false;
  std::vector<std::string_view> seen;
  const auto firstOf = [&](std::string_view type) {
    if (std::find(seen.begin(), seen.end(), type) != seen.end()) return false;
    seen.push_back(type);
    return true;
  };
  for (;;) {
    if (bytes.size() < kFrame) unsound("the file ends too early");
    const uint32_t length = number(bytes);
    if (length > bytes.size() - kFrame) unsound("the file ends too early");
    const std::string_view type(reinterpret_cast<const char *>(&bytes[4]), 4);
    bool wanted = false;
    if (type == "IHDR" || !begun) {
      if (begun || type != "IHDR" || length != 13) unsound("no header where it belongs");
      left = dataLimit(bytes.subspan(8));
      begun = wanted = true;
    } else if (type == "IDAT") {
      if (length > left) unsound("more data than a picture of this size can need");
      left -= length;
      wanted = length > 0;
    } else if (type == "PLTE" || type == "tRNS" || type == "pHYs") {
      wanted = length <= 768 && firstOf(type);
    } else if (type == "IEND") {
      out.insert(out.end(), bytes.begin(), bytes.begin() + kFrame + length);
      return out;
    }
    if (wanted) out.insert(out.end(), bytes.begin(), bytes.begin() + kFrame + length);
    bytes = bytes.subspan(kFrame + length);
  }
}

}  // namespace kelm::tools
