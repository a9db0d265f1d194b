// SPDX-License-Identifier: Apache-2.0
// An image to the token, in blocks of whole lines.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kelmtrova/token.h"
#include "link/exchange.h"
#include "token/command.h"

namespace kelm::token {
namespace {

using link::highByte;
using link::lowByte;
using link::Response;

constexpr std::uint64_t kBlockPixels = KELM_MAX_LINE_LENGTH;
constexpr std::uint64_t kLastFirstLine = 0xFFFF;
constexpr std::uint8_t kBlockHeader = 8;  // bytes of a block before its pixels

constexpr std::uint16_t kDownloadStatus[] = {KELM_SW_WRONG_LENGTH, KELM_SW_INCORRECT_DATA, KELM_SW_DEVICE_6AFB,
                                             KELM_SW_WRONG_P1P2, KELM_SW_NOT_LOCKED};

struct Block {
  std::uint16_t firstLine;
  std::uint8_t lines;
  std::uint8_t pixels;
  const std::uint8_t *source;
};

// Writes the whole command for every block: a GET RESPONSE overwrites its first five bytes.
std::uint16_t sendBlock(const SCardConnection *handle, const Block &block, Response &response) {
  const std::uint8_t header[link::kCommandHeaderLength + kBlockHeader] = {
      KELM_CLA_TOKEN,
      KELM_INS_DOWNLOAD,
      0x01,
      0x00,
      static_cast<std::uint8_t>(kBlockHeader + block.pixels),
      lowByte(block.firstLine),
      highByte(block.firstLine),
      0,
      0,
      block.lines,
      0,
      0,
      0};
  link::WipedBytes<sizeof header + kBlockPixels> command;
  std::copy_n(header, sizeof header, command.bytes);
  std::copy_n(block.source, block.pixels, command.bytes + sizeof header);
  command.mark(sizeof header + block.pixels);
  return link::exchange(handle, command.bytes, sizeof header + block.pixels, response);
}

// All blocks of an image, up to the first refusal: the last status word, 0 when there was nothing to send.
std::uint16_t sendImage(const SCardConnection *handle, const TokenImage &image) {
  const std::uint64_t linesPerBlock = kBlockPixels / image.dwLineLen;
  const std::uint64_t fullBlocks = image.dwLines / linesPerBlock;
  const std::uint64_t restLines = image.dwLines % linesPerBlock;
  const auto blockAt = [&](std::uint64_t number, std::uint64_t lines) {
    const std::uint64_t firstLine = linesPerBlock * number;
    return Block{static_cast<std::uint16_t>(firstLine), static_cast<std::uint8_t>(lines),
                 static_cast<std::uint8_t>(lines * image.dwLineLen), image.pbPixels + firstLine * image.dwLineLen};
  };
  Response response;
  std::uint16_t retV = 0;
  for (std::uint64_t number = 0; number < fullBlocks; ++number) {
    retV = sendBlock(handle, blockAt(number, linesPerBlock), response);
    MYTRACE("KelmTrovaDownloadImage Loop No: %d, SCardAPDU return retV=%04X, dwRespLen=%d", static_cast<int>(number),
            static_cast<unsigned>(retV), static_cast<int>(response.dwRespLen));
    if (retV != KELM_SW_SUCCESS) {
      return retV;
    }
  }
  if (restLines != 0) {
    retV = sendBlock(handle, blockAt(fullBlocks, restLines), response);
    traceExit("KelmTrovaDownloadImage rest line SCardAPDU return retV=%04X, dwRespLen=%d", retV, response);
  }
  return retV;
}

// Whether there are pixels, and the first line number of every block fits in 16 bits.
bool sendable(const TokenImage &image) {
  if (image.dwLines == 0) {
    return true;
  }
  const std::uint64_t linesPerBlock = kBlockPixels / image.dwLineLen;
  return image.pbPixels != nullptr && (image.dwLines - 1) / linesPerBlock * linesPerBlock <= kLastFirstLine;
}

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::uint64_t KelmTrovaDownloadImage(const SCardConnection *handle, const TokenImage *image) {
  MYTRACE("Enter KelmTrovaDownloadImage");
  if (image == nullptr) {
    return KELM_RESULT_ARGUMENT;
  }
  if (image->dwLineLen == 0 || image->dwLineLen > KELM_MAX_LINE_LENGTH) {
    return KELM_RESULT_LINE_LENGTH;
  }
  const std::uint64_t lock = MyLock(handle);
  if (lock == 0) {
    return KELM_RESULT_NOT_LOCKED;
  }
  const bool allowed = sendable(*image);
  const std::uint16_t retV = allowed ? sendImage(handle, *image) : std::uint16_t{0};
  MyUnlock(lock);
  return allowed ? resultOf(retV, kDownloadStatus) : KELM_RESULT_ARGUMENT;
}

std::uint64_t KelmTrovaUploadImage(const SCardConnection * /*handle*/, std::uint64_t /*reserved*/) {
  return KELM_RESULT_OK;
}
