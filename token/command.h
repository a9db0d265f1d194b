// SPDX-License-Identifier: Apache-2.0
// A token command is a description; one function runs them all.
#ifndef KELMTROVA_TOKEN_COMMAND_H
#define KELMTROVA_TOKEN_COMMAND_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "kelmtrova/token.h"
#include "link/exchange.h"

namespace kelm::token {

using StatusWords = std::span<const std::uint16_t>;

// When the value of a call is checked against the command's range.
enum class Check : std::uint8_t { kNever, kBeforeLock, kUnderLock };

enum class Output : std::uint8_t {
  kNone,
  kFirstByte,         // written on success
  kFirstByteCleared,  // the same, and set to 0 on entry
  kBlock,             // all data bytes and their count, whatever the status word
};

constexpr std::size_t kTemplateLength = 6;
constexpr std::size_t kCommandRoom = 24;

// The byte of a command that a call may patch.
enum Place : std::uint8_t { kNowhere = 0, kP1 = 2, kP2 = 3, kData = 5 };

struct Command {
  const char *enterTrace = nullptr;  // null: none
  const char *exitTrace = nullptr;
  std::uint8_t bytes[kTemplateLength];
  std::uint8_t length = 5;
  Place patched = kNowhere;
  Check check = Check::kNever;
  std::uint8_t lowest = 0;
  std::uint8_t highest = 0;
  Output output = Output::kNone;
  StatusWords passedOn = {};  // status words that become results; all others become `otherwise`
  std::uint64_t otherwise = KELM_RESULT_UNLISTED;
};

// The two trace texts of a command.
#define KELM_TRACES(name) .enterTrace = "Enter " #name, .exitTrace = KELM_EXIT_TRACE(name)
#define KELM_EXIT_TRACE(name) #name " SCardAPDU return retV=%04X, dwRespLen=%d"

// What one call adds to its command.
struct Arguments {
  std::uint8_t value = 0;  // checked against the range
  std::uint8_t patch = 0;  // written into the command
  std::uint8_t *out = nullptr;
  std::uint64_t *outLength = nullptr;
};

std::uint64_t run(const Command &command, const SCardConnection *handle, const Arguments &arguments = {});

// A command that writes one byte to `out` on success.
inline std::uint64_t runGetter(const Command &command, const SCardConnection *handle, std::uint8_t *out) {
  return run(command, handle, {.out = out});
}

// A command that carries `value`.
inline std::uint64_t runWith(const Command &command, const SCardConnection *handle, std::uint8_t value) {
  return run(command, handle, {.value = value, .patch = value});
}

// For commands of more than one exchange.

void traceExit(const char *text, std::uint16_t retV, const link::Response &response);

std::uint64_t resultOf(std::uint16_t retV, StatusWords passedOn, std::uint64_t otherwise = KELM_RESULT_UNLISTED);

}  // namespace kelm::token

#endif
