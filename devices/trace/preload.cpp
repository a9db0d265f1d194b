// SPDX-License-Identifier: Apache-2.0
// The trace of a program that knows nothing of it: preloaded, this library's Icc_tsi_apiKelmDev comes before the device
// manager's.
#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "kelmtrova/device_manager.h"
#include "kelmtrova/trace.h"

namespace {

using Entry = decltype(&Icc_tsi_apiKelmDev);

constexpr const char *kEntry = "Icc_tsi_apiKelmDev";
constexpr const char *kManager = "libkelmkmgr.so";

Entry findNext() {
  void *next = dlsym(RTLD_NEXT, kEntry);
  // A program that loads the library at run time has the device manager where nobody else looks.
  if (!next) {
    void *manager = dlopen(kManager, RTLD_LAZY | RTLD_NOLOAD);
    if (!manager) manager = dlopen(kManager, RTLD_LAZY);
    if (manager) next = dlsym(manager, kEntry);
  }
  return reinterpret_cast<Entry>(next);
}

KelmTrace *openTrace() {
  const char *file = secure_getenv("KELMTROVA_TRACE");
  const char *data = secure_getenv("KELMTROVA_TRACE_DATA");
  if (!file || !*file) return nullptr;
  return kelmTraceOpen(file, data && std::strcmp(data, "1") == 0 ? TRACE_USER_DATA : 0);
}

void reportOnce(const KelmTrace *trace) {
  static std::atomic<bool> reported = false;
  const char *error = kelmTraceError(trace);
  if (error && !reported.exchange(true)) std::fprintf(stderr, "libkelmtrova-trace.so: no trace: %s\n", error);
}

}  // namespace

std::int32_t Icc_tsi_apiKelmDev(std::uint64_t device, std::uint64_t commandLength, const std::uint8_t *command,
                                std::uint64_t *answerLength, std::uint8_t *answer) {
  static const Entry next = findNext();
  // Open until the end of the process, whose threads may still be at work then.
  static KelmTrace *const trace = openTrace();
  if (!next) {
    if (answerLength) *answerLength = 0;
    return DEVICE_MANAGER_NO_DEVICE;
  }
  if (!trace) return next(device, commandLength, command, answerLength, answer);
  const std::uint64_t room = answer && answerLength ? *answerLength : 0;
  const std::uint64_t exchange = kelmTraceCommand(trace, device, command, commandLength);
  const std::int32_t status = next(device, commandLength, command, answerLength, answer);
  const std::uint64_t length = answerLength ? std::min(*answerLength, room) : 0;
  kelmTraceAnswer(trace, exchange, answer, length, static_cast<std::uint16_t>(status));
  reportOnce(trace);
  return status;
}
