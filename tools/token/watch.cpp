// SPDX-License-Identifier: Apache-2.0
#include "tools/token/watch.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <span>
#include <string>

#include "apdu/names.h"
#include "kelmtrova/token.h"
#include "tools/failure.h"
#include "tools/output.h"
#include "tools/text.h"
#include "tools/token/messages.h"
#include "tools/token/platform.h"
#include "tools/token/refusal.h"

namespace kelm::tools {

Watch &watch() {
  static Watch instance;
  return instance;
}

namespace {

std::string hexLines(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kPerLine = 32;
  std::string text;
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(kPerLine, bytes.size()))) {
    if (!text.empty()) text += "\n    ";
    text += hex(bytes.first(std::min(kPerLine, bytes.size())), " ");
  }
  return text;
}

void showCommand(std::span<const std::uint8_t> command) {
  constexpr std::size_t kHeader = 5;
  const bool secret = command.size() > kHeader && apdu::carriesPin(command[1]);
  putErrorLines(fmt::format("  > {}{}  ({})\n", hexLines(secret ? command.first(kHeader) : command),
                            secret ? " and the PIN" : "", apdu::commandName(command)));
}

void showAnswer(std::span<const std::uint8_t> answer, int status) {
  const std::string words = statusWords(status);
  putErrorLines(fmt::format("  < {}{}{:04X}{}\n", hexLines(answer), answer.empty() ? "" : " ", status,
                            words.empty() ? "" : "  (" + words + ")"));
}

void showTrace(const char *format, std::va_list arguments) {
  char line[256];
  std::vsnprintf(line, sizeof line, format, arguments);
  putError(std::string("  # ") + line);
}

KelmTrace *trace = nullptr;
bool traceComplained = false;

void checkTrace() {
  const char *error = tracer()->error(trace);
  if (error == nullptr || traceComplained) return;
  traceComplained = true;
  putError(std::string("kelmtrova: the trace is not written: ") + error);
}

}  // namespace

void traceInto(const std::string &file, bool withUserData) {
  if (tracer() == nullptr) throw Failure(kExitUsage, "--trace needs libkelmtrova-trace.so, which is not installed");
  trace = tracer()->open(file.c_str(), withUserData ? TRACE_USER_DATA : 0);
  if (trace == nullptr) throw std::bad_alloc();
  traceComplained = false;
  checkTrace();
}

void traceEnds() {
  if (trace == nullptr) return;
  checkTrace();
  tracer()->close(trace);
  trace = nullptr;
}

std::uint64_t observeCommand(std::uint64_t device, std::span<const std::uint8_t> command) {
  if (watch().verbosity > 0) showCommand(command);
  return trace == nullptr ? 0 : tracer()->command(trace, device, command.data(), command.size());
}

void observeAnswer(std::uint64_t exchange, std::span<const std::uint8_t> answer, std::uint16_t status) {
  if (trace != nullptr) {
    tracer()->answer(trace, exchange, answer.data(), answer.size(), status);
    checkTrace();
  }
  if (watch().verbosity > 0) showAnswer(answer, status);
}

Stretch::Stretch(std::uint64_t device) : device_(device) {
  if (manager() == nullptr || manager()->begin(device) == 0) return;
  throw managerFailure("waiting for the token", manager()->errorCode());
}

Stretch::~Stretch() {
  if (manager() != nullptr) manager()->end(device_);
}

}  // namespace kelm::tools

using kelm::tools::manager;
using kelm::tools::watch;

std::int32_t Icc_tsi_apiKelmDev(std::uint64_t device, std::uint64_t commandLength, const std::uint8_t *command,
                                std::uint64_t *answerLength, std::uint8_t *answer) {
  using namespace kelm::tools;
  static const auto next = reinterpret_cast<decltype(&Icc_tsi_apiKelmDev)>(dlsym(RTLD_NEXT, "Icc_tsi_apiKelmDev"));
  if (next == nullptr) return DEVICE_MANAGER_NO_DEVICE;
  if (answerLength == nullptr) return next(device, commandLength, command, answerLength, answer);
  const std::uint64_t room = *answerLength;
  const std::uint64_t exchange = observeCommand(device, {command, commandLength});
  const std::int32_t result = next(device, commandLength, command, answerLength, answer);
  const auto status = static_cast<std::uint16_t>(result);
  observeAnswer(exchange, {answer, std::min(*answerLength, room)}, status);
  watch().lastStatus = status;
  if (watch().onCommand && commandLength > 1) watch().onCommand(command[1]);
  return result;
}

void MYTRACE(const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  if (watch().verbosity > 1) {
    std::va_list copy;
    va_copy(copy, arguments);
    kelm::tools::showTrace(format, copy);
    va_end(copy);
  }
  // "NAME SCardAPDU return retV=%04X, ...": the status word comes first.
  const char *first = std::strchr(format, '%');
  if (first != nullptr && std::strncmp(first, "%04X", 4) == 0) watch().tracedStatus = va_arg(arguments, int);
  va_end(arguments);
}

// The token belongs to the program while a command of the library talks to it. A device manager that cannot do that
// changes nothing.
std::uint64_t MyLock(const SCardConnection *handle) {
  const auto token = reinterpret_cast<std::uintptr_t>(handle);
  if (handle == nullptr || manager() == nullptr) return token;
  return manager()->begin(handle->hDevice) == 0 ? token : 0;
}

void MyUnlock(std::uint64_t token) {
  if (token == 0 || manager() == nullptr) return;
  manager()->end(reinterpret_cast<const SCardConnection *>(token)->hDevice);
}
