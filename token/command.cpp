// SPDX-License-Identifier: Apache-2.0
#include "token/command.h"

#include <algorithm>
#include <cstring>

namespace kelm::token {
namespace {

using link::kOfferedLength;
using link::Response;

bool inRange(const Command &command, std::uint8_t value) { return command.lowest <= value && value <= command.highest; }

bool deliversFirstByte(const Command &command) {
  return command.output == Output::kFirstByte || command.output == Output::kFirstByteCleared;
}

bool sendable(const Command &command, const Arguments &arguments) {
  return (command.check != Check::kUnderLock || inRange(command, arguments.value)) &&
         (command.output == Output::kNone || arguments.out != nullptr) &&
         (command.output != Output::kBlock || arguments.outLength != nullptr);
}

void deliverBlock(const Response &response, const Arguments &arguments) {
  const std::size_t length = std::min<std::size_t>(link::received(response), KELM_DEVICE_INFO_ROOM);
  std::memcpy(arguments.out, response.bytes, length);
  *arguments.outLength = length;
}

// The exchange of a command under the lock; `first` becomes the first data byte, 0 when there is none.
std::uint16_t send(const Command &command, const SCardConnection *handle, const Arguments &arguments,
                   std::uint8_t &first) {
  std::uint8_t buffer[kCommandRoom] = {};
  std::copy_n(command.bytes, kTemplateLength, buffer);
  if (command.patched != kNowhere) {
    buffer[command.patched] = arguments.patch;
  }
  Response response;
  if (deliversFirstByte(command)) {
    std::memset(response.bytes, 0, kOfferedLength);
  }
  const std::uint16_t retV = link::exchange(handle, buffer, command.length, response);
  first = link::firstByte(response);
  if (command.output == Output::kBlock) {
    deliverBlock(response, arguments);
  }
  traceExit(command.exitTrace, retV, response);
  return retV;
}

}  // namespace

void traceExit(const char *text, std::uint16_t retV, const Response &response) {
  if (text != nullptr) {
    MYTRACE(text, static_cast<unsigned>(retV), static_cast<int>(response.dwRespLen));
  }
}

std::uint64_t resultOf(std::uint16_t retV, StatusWords passedOn, std::uint64_t otherwise) {
  if (retV == KELM_SW_SUCCESS) {
    return KELM_RESULT_OK;
  }
  return std::find(passedOn.begin(), passedOn.end(), retV) != passedOn.end() ? KELM_RESULT_OF(retV) : otherwise;
}

std::uint64_t run(const Command &command, const SCardConnection *handle, const Arguments &arguments) {
  if (command.enterTrace != nullptr) {
    MYTRACE(command.enterTrace);
  }
  if (command.output == Output::kFirstByteCleared && arguments.out != nullptr) {
    *arguments.out = 0;
  }
  if (command.check == Check::kBeforeLock && !inRange(command, arguments.value)) {
    return KELM_RESULT_ARGUMENT;
  }
  std::uint16_t retV = KELM_SW_NOT_LOCKED;
  std::uint8_t first = 0;
  const std::uint64_t lock = MyLock(handle);
  if (lock != 0) {
    const bool allowed = sendable(command, arguments);
    if (allowed) {
      retV = send(command, handle, arguments, first);
    }
    MyUnlock(lock);
    if (!allowed) {
      return KELM_RESULT_ARGUMENT;
    }
  }
  if (retV == KELM_SW_SUCCESS && deliversFirstByte(command)) {
    *arguments.out = first;
  }
  return resultOf(retV, command.passedOn, command.otherwise);
}

}  // namespace kelm::token
