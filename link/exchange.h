// SPDX-License-Identifier: Apache-2.0
// One exchange through SCardAPDU, as the file commands and the token commands make it.
#ifndef KELMTROVA_LINK_EXCHANGE_H
#define KELMTROVA_LINK_EXCHANGE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kelmtrova/token.h"
#include "link/byte_order.h"

namespace kelm::link {

constexpr std::size_t kReceiveRoom = 8192;       // of the buffer that SCardAPDU hands to SCardTransmit
constexpr std::uint64_t kOfferedLength = 2048;   // what dwRespLen says before an exchange
constexpr std::size_t kCommandHeaderLength = 5;  // CLA, INS, P1, P2 and Lc or Le

// A buffer for bytes that must not stay behind on the stack: its destructor wipes what was written. It starts
// uninitialised on purpose.
template <std::size_t room>
struct WipedBytes {
  std::size_t written = 0;
  std::uint8_t bytes[room];

  ~WipedBytes() {
    if (written > 0) {
      explicit_bzero(bytes, written);
    }
  }
  void mark(std::size_t length) { written = std::max(written, std::min(length, room)); }
};

// SCardAPDU is not told how much room there is, and a transport that takes the place of SCardTransmit may fill the
// whole receive buffer, so there is room for all of it, whatever dwRespLen offers.
struct Response : WipedBytes<kReceiveRoom> {
  std::uint64_t dwRespLen = kOfferedLength;
};

// The number of data bytes, at most those the buffer can hold, whatever length a replaced SCardAPDU claims.
inline std::size_t received(const Response &response) {
  return static_cast<std::size_t>(std::min<std::uint64_t>(response.dwRespLen, kReceiveRoom));
}

// The first data byte, 0 when the answer has none.
inline std::uint8_t firstByte(const Response &response) {
  return received(response) > 0 ? response.bytes[0] : std::uint8_t{0};
}

inline std::uint16_t exchange(const SCardConnection *handle, std::uint8_t *command, std::uint64_t commandLength,
                              Response &response) {
  const std::uint32_t retV = SCardAPDU(handle, command, commandLength, response.bytes, &response.dwRespLen);
  // After a GET RESPONSE, more may lie there than the length says: the data that came with 0x61xx.
  response.mark(command[1] == KELM_INS_GET_RESPONSE ? kReceiveRoom : received(response));
  return static_cast<std::uint16_t>(retV);
}

constexpr std::array<std::uint8_t, 7> selectCommand(std::uint16_t fid) {
  return {KELM_CLA_ISO, KELM_INS_SELECT, 0x00, 0x00, sizeof fid, highByte(fid), lowByte(fid)};
}

}  // namespace kelm::link

#endif
