// SPDX-License-Identifier: Apache-2.0
#include "kelmtrova/trace.h"

#include <dlfcn.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "apdu/names.h"
#include "devices/trace/format.h"
#include "devices/trace/privacy.h"
#include "devices/trace/sink.h"
#include "kelmtrova/device_manager.h"

using namespace kelm::trace;

struct KelmTrace {
  KelmTrace(const char *file, bool userData) : format(formatFor(file)), sink(file), privacy(userData) {
    sink.write(format->start());
  }

  void write(std::uint64_t device, bool toCard, const std::vector<std::uint8_t> &apdu, const std::string &words) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto nanoseconds =
        static_cast<std::uint64_t>(now.tv_sec) * 1000000000 + static_cast<std::uint64_t>(now.tv_nsec);
    sink.write(format->record({nanoseconds, device, toCard, apdu, words}));
  }

  mutable std::mutex lock;
  std::unique_ptr<Format> format;
  Sink sink;
  Privacy privacy;
  std::map<std::uint64_t, Begun> begun;
  std::uint64_t last = 0;
};

namespace {

// The longest APDUs of ISO 7816-4, and of what a file of packets can hold.
constexpr std::uint64_t kLongest = 65535 - 64;

// The device manager that is there has words for its own codes if it is ours.
std::string wordsFor(std::uint16_t status) {
  static const auto codeText =
      reinterpret_cast<decltype(&deviceManagerCodeText)>(dlsym(RTLD_DEFAULT, "deviceManagerCodeText"));
  const char *own = codeText ? codeText(status) : nullptr;
  return own ? own : kelm::apdu::statusWords(status);
}

void wipe(std::vector<std::uint8_t> &bytes) { explicit_bzero(bytes.data(), bytes.size()); }

std::vector<std::uint8_t> copyOf(const std::uint8_t *bytes, std::uint64_t length, std::size_t more) {
  std::vector<std::uint8_t> copy;
  const std::size_t taken = bytes ? static_cast<std::size_t>(std::min(length, kLongest)) : 0;
  copy.reserve(taken + more);
  copy.assign(bytes, bytes + taken);
  return copy;
}

}  // namespace

KelmTrace *kelmTraceOpen(const char *file, std::uint32_t flags) {
  if (!file) return nullptr;
  try {
    return new KelmTrace(file, (flags & TRACE_USER_DATA) != 0);
  } catch (const std::exception &) {
    return nullptr;
  }
}

std::uint64_t kelmTraceCommand(KelmTrace *trace, std::uint64_t device, const std::uint8_t *command,
                               std::uint64_t commandLength) {
  if (!trace) return 0;
  try {
    std::vector<std::uint8_t> apdu = copyOf(command, commandLength, 0);
    const std::string name = kelm::apdu::commandName(apdu);
    const std::lock_guard guard(trace->lock);
    const Begun begun = trace->privacy.hideInCommand(device, apdu);
    trace->write(device, true, apdu, name);
    wipe(apdu);
    trace->begun.emplace(++trace->last, begun);
    return trace->last;
  } catch (const std::exception &) {
    return 0;
  }
}

void kelmTraceAnswer(KelmTrace *trace, std::uint64_t exchange, const std::uint8_t *answer, std::uint64_t answerLength,
                     std::uint16_t status) {
  if (!trace) return;
  try {
    std::vector<std::uint8_t> apdu = copyOf(answer, answerLength, 2);
    const std::lock_guard guard(trace->lock);
    const auto found = trace->begun.find(exchange);
    if (found == trace->begun.end()) return;
    const Begun begun = found->second;
    trace->begun.erase(found);
    trace->privacy.hideInAnswer(begun, apdu, status);
    apdu.insert(apdu.end(), {static_cast<std::uint8_t>(status >> 8), static_cast<std::uint8_t>(status)});
    trace->write(begun.device, false, apdu, wordsFor(status));
    wipe(apdu);
  } catch (const std::exception &) {
    // Without memory this record is missing.
  }
}

const char *kelmTraceError(const KelmTrace *trace) {
  if (!trace) return nullptr;
  const std::lock_guard guard(trace->lock);
  if (trace->sink.error().empty()) return nullptr;
  return trace->sink.error().c_str();
}

void kelmTraceClose(KelmTrace *trace) { delete trace; }
