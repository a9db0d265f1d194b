// SPDX-License-Identifier: Apache-2.0
#include "tests/token/hooks.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdarg>

namespace kelm::test {

Hooks hooks;

void restart(std::int32_t status, const Bytes &data) {
  hooks = {};
  device = {};
  device.answer = [=](const Bytes &) { return Answer{.status = status, .data = data}; };
}

}  // namespace kelm::test

using namespace kelm::test;

namespace {

bool isScripted(const SCardConnection *handle) { return handle != nullptr && handle->hDevice == kScriptedDevice; }

}  // namespace

#define REPLACED __attribute__((visibility("default")))

REPLACED void MYTRACE(const char *format, ...) {
  if (!device.fixed) {
    char text[200];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    device.log.push_back(text);
  }
}

REPLACED std::uint64_t MyLock(const SCardConnection *handle) {
  if (!isScripted(handle)) {
    return reinterpret_cast<std::uintptr_t>(handle);
  }
  if (++hooks.locks == hooks.lockFails) {
    return 0;
  }
  if (!device.fixed) {
    device.log.push_back("lock");
  }
  return 0x1000 + static_cast<std::uint64_t>(hooks.locks);
}

REPLACED void MyUnlock(std::uint64_t token) {
  if (!device.fixed) {
    const bool own = token == 0x1000 + static_cast<std::uint64_t>(hooks.locks);
    device.log.push_back(token == 0 ? "unlock 0" : own ? "unlock" : "unlock of another token");
  }
}

// A program may have functions of these names for purposes of its own: the library does without them.
REPLACED std::uint16_t Exchange(std::uint16_t) { return ADD_FAILURE() << "the library called it", 0; }
REPLACED std::uint16_t ToBigEndian(std::uint16_t) { return Exchange(0); }
REPLACED std::int32_t LittleEndian() { return Exchange(0); }

REPLACED std::uint32_t SCardAPDU(const SCardConnection *handle, std::uint8_t *command, std::uint64_t commandLength,
                                 std::uint8_t *response, std::uint64_t *responseLength) {
  if (hooks.apdu && isScripted(handle)) {
    return hooks.apdu(command, commandLength, response, responseLength);
  }
  static const auto own = reinterpret_cast<decltype(&SCardAPDU)>(dlsym(RTLD_NEXT, "SCardAPDU"));
  return own(handle, command, commandLength, response, responseLength);
}
