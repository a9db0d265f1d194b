// SPDX-License-Identifier: Apache-2.0
// Byte order, for the library itself: a program may have functions of its own called Exchange, ToBigEndian and
// LittleEndian, which take the place of the exported ones.
#ifndef KELMTROVA_LINK_BYTE_ORDER_H
#define KELMTROVA_LINK_BYTE_ORDER_H

#include <cstdint>

namespace kelm::link {

constexpr std::uint8_t highByte(std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); }
constexpr std::uint8_t lowByte(std::uint16_t value) { return static_cast<std::uint8_t>(value); }

constexpr std::uint16_t swapBytes(std::uint16_t value) { return static_cast<std::uint16_t>(value << 8 | value >> 8); }

// Found out at run time, on every call.
inline bool hostIsLittleEndian() {
  const volatile std::uint32_t one = 1;
  return *reinterpret_cast<const volatile std::uint8_t *>(&one) != 0;
}

// The value whose memory image is `value` high byte first.
inline std::uint16_t toBigEndian(std::uint16_t value) { return hostIsLittleEndian() ? swapBytes(value) : value; }

}  // namespace kelm::link

#endif
