// SPDX-License-Identifier: Apache-2.0
#include "tools/token/watch.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "kelmtrova/token.h"
#include "tools/output.h"
#include "tools/text.h"
#include "tools/token/words.h"

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

// Several lines of our own making: no names from outside are in them.
void show(const std::string &text) {
  std::fflush(stdout);
  std::fputs(text.c_str(), stderr);
}

void showCommand(std::span<const std::uint8_t> command) {
  constexpr std::size_t kHeader = 5;
  constexpr std::uint8_t kVerifyPin = 0x20, kChangePin = 0x24, kUnblockPin = 0x2C;
  const bool secret =
      command.size() > kHeader && (command[1] == kVerifyPin || command[1] == kChangePin || command[1] == kUnblockPin);
  show(fmt::format("  > {}{}  ({})\n", hexLines(secret ? command.first(kHeader) : command),
                   secret ? " and the PIN" : "", commandName(command)));
}

void showAnswer(std::span<const std::uint8_t> answer, int status) {
  const std::string words = statusWords(status);
  show(fmt::format("  < {}{}{:04X}{}\n", hexLines(answer), answer.empty() ? "" : " ", status,
                   words.empty() ? "" : "  (" + words + ")"));
}

void showTrace(const char *format, std::va_list arguments) {
  char line[256];
  std::vsnprintf(line, sizeof line, format, arguments);
  putError(std::string("  # ") + line);
}

}  // namespace
}  // namespace kelm::tools

using kelm::tools::watch;

std::int64_t SCardTransmit(std::uint64_t hCard, const SCardPci *sendPci, const std::uint8_t *send,
                           std::uint64_t sendLength, SCardPci *recvPci, std::uint8_t *recv, std::uint64_t *recvLength) {
  constexpr std::int64_t kNoTransport = 1;
  static const auto next = reinterpret_cast<decltype(&SCardTransmit)>(dlsym(RTLD_NEXT, "SCardTransmit"));
  if (next == nullptr) return kNoTransport;
  const bool show = watch().verbosity > 0;
  if (show) kelm::tools::showCommand({send, sendLength});
  const std::int64_t result = next(hCard, sendPci, send, sendLength, recvPci, recv, recvLength);
  if (result != 0 || *recvLength < 2) return result;
  const std::uint64_t dataLength = *recvLength - 2;
  watch().lastStatus = recv[dataLength] << 8 | recv[dataLength + 1];
  if (show) kelm::tools::showAnswer({recv, dataLength}, watch().lastStatus);
  return result;
}

void MYTRACE(const char *format, ...) {
  constexpr const char *kBlockTraces[] = {"KelmTrovaDownloadImage Loop No:", "KelmTrovaDownloadImage rest line"};
  if (watch().verbosity > 1) {
    std::va_list arguments;
    va_start(arguments, format);
    kelm::tools::showTrace(format, arguments);
    va_end(arguments);
  }
  for (const char *start : kBlockTraces) {
    if (watch().onImageBlock && std::strncmp(format, start, std::strlen(start)) == 0) watch().onImageBlock();
  }
}
