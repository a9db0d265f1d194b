// SPDX-License-Identifier: Apache-2.0
// One exchange through SCardAPDU, as the file commands and the token commands make it.
#ifndef KELMTROVA_LINK_EXCHANGE_H
#define KELMTROVA_LINK_EXCHANGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kelmtrova/token.h"

namespace kelm::link {

constexpr std::size_t kReceiveRoom = 8192;       // of the buffer that SCardAPDU hands to SCardTransmit
constexpr std::uint64_t kOfferedLength = 2048;   // what dwRespLen says before an exchange
constexpr std::size_t kCommandHeaderLength = 5;  // CLA, INS, P1, P2 and Lc or Le

// SCardAPDU is not told how much room there is, and a transport that takes the place of SCardTransmit may fill the
// whole receive buffer: so there is room for all of it, whatever dwRespLen offers. The bytes
// are left uninitialised on purpose.
struct Response {
  std::uint64_t dwRespLen = kOfferedLength;
  std::uint8_t bytes[kReceiveRoom];
};

constexpr std::uint8_t highByte(std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); }
constexpr std::uint8_t lowByte(std::uint16_t value) { return static_cast<std::uint8_t>(value); }

inline std::uint16_t exchange(const SCardConnection *handle, std::uint8_t *command, std::uint64_t commandLength,
                              Response &response) {
  return static_cast<std::uint16_t>(SCardAPDU(handle, command, commandLength, response.bytes, &response.dwRespLen));
}

// Data bytes that really lie in the buffer, whatever length a replaced SCardAPDU claims.
inline std::size_t received(const Response &response) {
  return static_cast<std::size_t>(std::min<std::uint64_t>(response.dwRespLen, kReceiveRoom));
}

// Index entries and device data do not stay behind on the stack.
inline void wipe(Response &response) { explicit_bzero(response.bytes, received(response)); }

}  // namespace kelm::link

#endif
