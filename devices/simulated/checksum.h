// SPDX-License-Identifier: Apache-2.0
// The checksum of a record in a store: CRC-32 (IEEE 802.3), which no flipped byte leaves as it was.
#ifndef KELMTROVA_DEVICES_SIMULATED_CHECKSUM_H
#define KELMTROVA_DEVICES_SIMULATED_CHECKSUM_H

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace kelm::devices {

class Checksum {
 public:
  Checksum &add(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) step(byte);
    return *this;
  }
  // With a zero at its end, so that a text and what follows it cannot be divided otherwise.
  Checksum &add(std::string_view text) {
    for (const char character : text) step(static_cast<std::uint8_t>(character));
    step(0);
    return *this;
  }
  Checksum &add(std::int64_t number) {
    for (int shift = 0; shift < 64; shift += 8) step(static_cast<std::uint8_t>(number >> shift));
    return *this;
  }
  std::int64_t value() const { return ~rest_ & 0xFFFFFFFF; }

 private:
  static constexpr std::array<std::uint32_t, 256> kTable = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t first = 0; first < 256; ++first) {
      std::uint32_t rest = first;
      for (int bit = 0; bit < 8; ++bit) rest = rest >> 1 ^ (rest & 1 ? 0xEDB88320 : 0);
      table[first] = rest;
    }
    return table;
  }();
  void step(std::uint8_t byte) { rest_ = kTable[(rest_ ^ byte) & 0xFF] ^ rest_ >> 8; }

  std::uint32_t rest_ = 0xFFFFFFFF;
};

}  // namespace kelm::devices

#endif
