// SPDX-License-Identifier: Apache-2.0
// The token's transparent files: read, write, create, erase, and the counter that gives new
// template files their FIDs.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kelmtrova/token.h"
#include "link/exchange.h"

namespace {

using kelm::link::exchange;
using kelm::link::highByte;
using kelm::link::kCommandHeaderLength;
using kelm::link::lowByte;
using kelm::link::received;
using kelm::link::Response;
using kelm::link::WipedBytes;

constexpr std::uint16_t kChunk = 176;    // the largest payload of one command
constexpr std::size_t kBlockSpare = 32;  // heap block of a read beyond the bytes asked for
constexpr std::uint16_t kCounterOffset = 1;

struct Release {
  void operator()(void *block) const { std::free(block); }
};

bool succeeds(const SCardConnection *handle, std::uint8_t *command, std::uint64_t commandLength, Response &response) {
  return exchange(handle, command, commandLength, response) == KELM_SW_SUCCESS;
}

bool selectFile(const SCardConnection *handle, std::uint16_t fid, Response &response) {
  auto command = kelm::link::selectCommand(fid);
  return succeeds(handle, command.data(), command.size(), response);
}

// Takes at most the chunk asked for from each answer; bytes that an answer lacks read as 0.
bool readChunks(const SCardConnection *handle, std::uint16_t offset, std::uint8_t *to, std::uint16_t remaining,
                Response &response) {
  while (remaining > 0) {
    const std::uint16_t chunk = std::min(remaining, kChunk);
    std::uint8_t command[] = {KELM_CLA_ISO, KELM_INS_READ_BINARY, highByte(offset), lowByte(offset), lowByte(chunk)};
    if (!succeeds(handle, command, sizeof command, response)) {
      return false;
    }
    const std::size_t taken = std::min<std::size_t>(received(response), chunk);
    std::memcpy(to, response.bytes, taken);
    std::memset(to + taken, 0, chunk - taken);
    to += chunk;
    offset = static_cast<std::uint16_t>(offset + chunk);
    remaining = static_cast<std::uint16_t>(remaining - chunk);
  }
  return true;
}

}  // namespace

std::int32_t SCardReadBin(const SCardConnection *handle, std::uint16_t fid, std::uint16_t offset, std::uint8_t *out,
                          std::uint16_t length) {
  Response response;
  if (out == nullptr || length == 0 || (fid != KELM_FID_SELECTED && !selectFile(handle, fid, response))) {
    return 0;
  }
  const std::unique_ptr<std::uint8_t, Release> block(static_cast<std::uint8_t *>(std::malloc(length + kBlockSpare)));
  if (!block) {
    return 0;
  }
  const bool whole = readChunks(handle, offset, block.get(), length, response);
  if (whole) {
    std::memcpy(out, block.get(), length);
  }
  explicit_bzero(block.get(), length);
  return whole ? 1 : 0;
}

std::int32_t SCardUpdateBin(const SCardConnection *handle, std::uint64_t fid, std::uint64_t offset,
                            const std::uint8_t *data, std::uint64_t length) {
  Response response;
  if (data == nullptr || length == 0 ||
      (fid != KELM_FID_SELECTED && !selectFile(handle, static_cast<std::uint16_t>(fid), response))) {
    return 0;
  }
  WipedBytes<kCommandHeaderLength + kChunk> command;
  bool written = true;
  while (written && length > 0) {
    const auto chunk = static_cast<std::uint16_t>(std::min<std::uint64_t>(length, kChunk));
    const auto position = static_cast<std::uint16_t>(offset);
    const std::uint8_t header[] = {KELM_CLA_ISO, KELM_INS_WRITE_BINARY, highByte(position), lowByte(position),
                                   lowByte(chunk)};
    std::memcpy(command.bytes, header, sizeof header);
    std::memcpy(command.bytes + sizeof header, data, chunk);
    command.mark(sizeof header + chunk);
    written = succeeds(handle, command.bytes, sizeof header + chunk, response);
    data += chunk;
    offset += chunk;
    length -= chunk;
  }
  return written ? 1 : 0;
}

std::int32_t SCardCreateFile(const SCardConnection *handle, std::uint16_t fid, const std::uint8_t *fcp,
                             std::uint8_t fcpLength) {
  if (fcp == nullptr && fcpLength != 0) {
    return 0;
  }
  Response response;
  const std::uint8_t header[] = {KELM_CLA_TOKEN, KELM_INS_CREATE_FILE, highByte(fid), lowByte(fid), fcpLength};
  WipedBytes<kCommandHeaderLength + UINT8_MAX> command;
  std::copy_n(header, sizeof header, command.bytes);
  std::copy_n(fcp, fcpLength, command.bytes + sizeof header);
  command.mark(sizeof header + fcpLength);
  return succeeds(handle, command.bytes, sizeof header + fcpLength, response) ? 1 : 0;
}

std::int32_t SCardEraseEF(const SCardConnection *handle, std::uint16_t fid) {
  Response response;
  std::uint8_t command[] = {KELM_CLA_ISO, KELM_INS_DELETE_FILE, 0x00, 0x00, 0x02, highByte(fid), lowByte(fid)};
  return succeeds(handle, command, sizeof command, response) ? 1 : 0;
}

// The file holds the counter as the hosts of this library keep it in memory: low byte first.
std::uint64_t token_get_current_fid(const SCardConnection *handle, std::uint16_t *counter) {
  if (SCardReadBin(handle, KELM_FID_COUNTER, kCounterOffset, reinterpret_cast<std::uint8_t *>(counter),
                   sizeof *counter) != 1) {
    return KELM_RESULT_FID_COUNTER;
  }
  if (static_cast<std::uint32_t>(*counter) << KELM_FID_SHIFT == KELM_FID_MASTER_FILE) {
    ++*counter;
  }
  return KELM_RESULT_OK;
}

std::uint64_t token_set_next_fid(const SCardConnection *handle, std::uint16_t value) {
  const auto *bytes = reinterpret_cast<const std::uint8_t *>(&value);
  return SCardUpdateBin(handle, KELM_FID_COUNTER, kCounterOffset, bytes, sizeof value) == 1 ? KELM_RESULT_OK
                                                                                            : KELM_RESULT_FID_COUNTER;
}

std::int32_t LittleEndian() { return kelm::link::hostIsLittleEndian() ? 1 : 0; }

std::uint16_t ToBigEndian(std::uint16_t value) { return kelm::link::toBigEndian(value); }

std::uint16_t Exchange(std::uint16_t value) { return kelm::link::swapBytes(value); }
