// SPDX-License-Identifier: Apache-2.0
// Sends command APDUs to the token and brings back the answers.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "kelmtrova/device_manager.h"
#include "kelmtrova/token.h"
#include "link/exchange.h"

// The layouts are shared with the caller's connection layer and with the token.
static_assert(sizeof(SCardConnection) == 40 && offsetof(SCardConnection, bState) == 0 &&
              offsetof(SCardConnection, hDevice) == 24 && offsetof(SCardConnection, dwProtocol) == 32);
static_assert(sizeof(SCardPci) == 16 && offsetof(SCardPci, dwProtocol) == 0 && offsetof(SCardPci, cbPciLength) == 8);
static_assert(sizeof(TemplateIndexEntry) == 20 && offsetof(TemplateIndexEntry, enrolled) == 0 &&
              offsetof(TemplateIndexEntry, tag) == 1 && offsetof(TemplateIndexEntry, fid) == 2 &&
              offsetof(TemplateIndexEntry, userData) == 4);
static_assert(sizeof(TokenImage) == 32 && offsetof(TokenImage, dwLines) == 0 && offsetof(TokenImage, dwLineLen) == 8 &&
              offsetof(TokenImage, dwAux) == 16 && offsetof(TokenImage, pbPixels) == 24);

constexpr SCardPci g_rgSCardT0Pci = {1, 8};
constexpr SCardPci g_rgSCardT1Pci = {2, 8};

namespace {

using kelm::link::highByte;
using kelm::link::kCommandHeaderLength;
using kelm::link::kReceiveRoom;
using kelm::link::lowByte;
using kelm::link::WipedBytes;

constexpr std::size_t kDeviceArea = 256;       // the longest answer to a short APDU
constexpr std::size_t kStatusLength = 2;       // SW1 SW2
constexpr std::int64_t kResetAndRetry = 1117;  // the transport asks for the command once more
constexpr std::uint64_t kProtocolT0 = 1;
constexpr std::uint8_t kMoreData = KELM_SW_MORE_DATA >> 8;  // SW1; SW2 says how many bytes wait

bool usable(const SCardConnection *handle) {
  return handle != nullptr && reinterpret_cast<std::uintptr_t>(handle) != std::numeric_limits<std::uintptr_t>::max() &&
         handle->bState == KELM_CONNECTION_READY;
}

}  // namespace

std::int64_t SCardTransmit(std::uint64_t hCard, const SCardPci * /*sendPci*/, const std::uint8_t *send,
                           std::uint64_t sendLength, SCardPci * /*recvPci*/, std::uint8_t *recv,
                           std::uint64_t *recvLength) {
  if (send == nullptr || recv == nullptr || recvLength == nullptr) {
    if (recvLength != nullptr) {
      *recvLength = 0;
    }
    return 0;
  }
  std::uint8_t area[kDeviceArea] = {};
  std::uint64_t areaLength = kDeviceArea;
  const auto retV = static_cast<std::uint16_t>(Icc_tsi_apiKelmDev(hCard, sendLength, send, &areaLength, area));
  std::size_t dataLength = 0;
  if (retV == KELM_SW_SUCCESS) {
    dataLength = areaLength < kDeviceArea ? static_cast<std::size_t>(areaLength) : kDeviceArea;
    std::memcpy(recv, area, dataLength);
  }
  recv[dataLength] = highByte(retV);
  recv[dataLength + 1] = lowByte(retV);
  *recvLength = dataLength + kStatusLength;
  explicit_bzero(area, sizeof area);  // whole: the device manager may have written more than it says
  return 0;
}

std::uint32_t SCardAPDU(const SCardConnection *handle, std::uint8_t *command, std::uint64_t commandLength,
                        std::uint8_t *response, std::uint64_t *responseLength) {
  if (responseLength == nullptr) {
    return KELM_SW_NO_EXCHANGE;
  }
  *responseLength = 0;
  if (!usable(handle) || command == nullptr || response == nullptr) {
    return KELM_SW_NO_EXCHANGE;
  }
  WipedBytes<kReceiveRoom> buffer;
  // A retry and a GET RESPONSE share one extra exchange.
  for (bool extra = true;; extra = false) {
    *responseLength = kReceiveRoom;
    const SCardPci *protocol = handle->dwProtocol == kProtocolT0 ? &g_rgSCardT0Pci : &g_rgSCardT1Pci;
    const std::int64_t failure =
        SCardTransmit(handle->hDevice, protocol, command, commandLength, nullptr, buffer.bytes, responseLength);
    const std::uint64_t length = *responseLength;
    *responseLength = 0;
    const bool delivered = failure == 0 && length >= kStatusLength && length <= kReceiveRoom;
    buffer.mark(delivered ? static_cast<std::size_t>(length) - kStatusLength : kReceiveRoom);
    if (failure == kResetAndRetry && extra) {
      continue;
    }
    if (!delivered) {
      return KELM_SW_NO_EXCHANGE;
    }
    const std::size_t dataLength = static_cast<std::size_t>(length) - kStatusLength;
    const std::uint8_t sw1 = buffer.bytes[dataLength];
    const std::uint8_t sw2 = buffer.bytes[dataLength + 1];
    std::memcpy(response, buffer.bytes, dataLength);
    *responseLength = dataLength;
    if (sw1 != kMoreData || !extra) {
      return static_cast<std::uint32_t>(sw1) << 8 | sw2;
    }
    const std::uint8_t getResponse[kCommandHeaderLength] = {KELM_CLA_ISO, KELM_INS_GET_RESPONSE, 0x00, 0x00, sw2};
    std::memcpy(command, getResponse, sizeof getResponse);
    commandLength = sizeof getResponse;
  }
}
