// SPDX-License-Identifier: Apache-2.0
#include "devices/trace/privacy.h"

#include <algorithm>

#include "apdu/names.h"
#include "kelmtrova/token.h"

namespace kelm::trace {
namespace {

constexpr std::size_t kHeader = 4, kDataStart = 5, kImageHeader = 8;
// An entry of the index: state, tag and FID, and then the user data.
constexpr std::uint32_t kEntrySize = 20, kUserDataStart = 4;

// The data of a command; all that follows the header when its length byte is wrong or does not end it.
Bytes dataOf(Bytes command) {
  if (command.size() <= kDataStart) return {};
  const std::size_t length = command[kHeader];
  const Bytes rest = command.subspan(kDataStart);
  return length != 0 && rest.size() == length + 1 ? rest.first(length) : rest;
}

void hide(Bytes bytes, const Secret &secret) {
  std::uint32_t place = secret.offset;
  for (std::uint8_t &byte : bytes) {
    const bool secretHere = secret.kind == Secret::kAll || place % kEntrySize >= kUserDataStart;
    if (secret.kind != Secret::kNothing && secretHere) byte = kInstead;
    ++place;
  }
}

bool succeeded(std::uint16_t status) {
  const int sw1 = status >> 8;
  return status == KELM_SW_SUCCESS || (sw1 >= 0x61 && sw1 <= 0x63);
}

}  // namespace

// What READ, WRITE or UPDATE BINARY reaches.
Secret Privacy::contents(const Known &known, ByteView command) const {
  if (showUserData_) return {};
  const bool bySelection = (command[1] & 1) == 0 && (command[2] & 0x80) == 0;
  if (!bySelection || !known.file) return {Secret::kAll};
  if (*known.file != KELM_FID_TEMPLATE_INDEX) return {};
  return {Secret::kUserData, static_cast<std::uint32_t>(command[2] << 8 | command[3])};
}

Begun Privacy::hideInCommand(std::uint64_t device, Bytes command) {
  Known &known = devices_[device];
  Begun begun;
  begun.device = device;
  if (command.size() < kHeader) return begun;
  const Bytes data = dataOf(command);
  const auto fid = [](ByteView at) { return static_cast<std::uint16_t>(at[0] << 8 | at[1]); };
  if (apdu::carriesPin(command[1])) hide(data, {Secret::kAll});
  // An odd instruction is the same command with its data in BER-TLV.
  switch (const std::uint8_t instruction = command[1]; instruction & 0xFE) {
    case KELM_INS_SELECT:
      begun.leavesSelection = false;
      if (data.size() == 2) begun.selects = fid(data);
      break;
    case KELM_INS_CREATE_FILE:
      begun.leavesSelection = false;
      begun.selects = fid(command.subspan(2));
      break;
    case KELM_INS_DELETE_FILE:
      begun.leavesSelection = false;
      break;
    case KELM_INS_READ_BINARY:
      begun.answer = contents(known, command);
      hide(data, begun.answer.kind == Secret::kAll ? begun.answer : Secret{});
      break;
    case KELM_INS_WRITE_BINARY:
    case KELM_INS_UPDATE_BINARY:
      hide(data, contents(known, command));
      break;
    case KELM_INS_GET_RESPONSE:
      begun.answer = known.waiting;
      break;
    default:
      if (instruction == KELM_INS_DOWNLOAD && !showUserData_ && data.size() > kImageHeader)
        hide(data.subspan(kImageHeader), {Secret::kAll});
  }
  return begun;
}

void Privacy::hideInAnswer(const Begun &begun, Bytes answer, std::uint16_t status) {
  hide(answer, begun.answer);
  Known &known = devices_[begun.device];
  known.waiting = {};
  if (status >> 8 == 0x61) {
    known.waiting = begun.answer;
    known.waiting.offset += static_cast<std::uint32_t>(answer.size());
  }
  if (begun.leavesSelection) return;
  known.file = succeeded(status) ? begun.selects : std::nullopt;
}

}  // namespace kelm::trace
