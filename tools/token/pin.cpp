// SPDX-License-Identifier: Apache-2.0
#include "tools/token/pin.h"

#include <unistd.h>

#include <cstdlib>

#include "tools/failure.h"
#include "tools/output.h"
#include "tools/terminal.h"

namespace kelm::tools {

namespace {

std::optional<std::string> fromEnvironment() {
  const char *value = std::getenv("KELMTROVA_PIN");
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

}  // namespace

void requirePossiblePin(const std::string &pin) {
  constexpr std::size_t kShortest = 4, kLongest = 16;
  if (pin.size() >= kShortest && pin.size() <= kLongest) return;
  throw Failure(kExitUsage, pin.empty() ? "the PIN is empty" : "this cannot be a PIN: it has 4 to 16 characters", "",
                "pin-impossible");
}

void warnOfVisiblePin() {
  putError(
      "kelmtrova: warning: a PIN on the command line can be seen by others and stays in the shell's history; "
      "--pin-file, --pin-stdin or the prompt keep it to yourself");
}

std::string pinFromFile(const std::string &file) {
  constexpr std::size_t kLargest = 4096;
  const std::string text = readWhole(file, kLargest);
  const std::string line = text.substr(0, text.find('\n'));
  return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

std::optional<std::string> givenPin(const PinOptions &options) {
  if (!options.file.empty()) return pinFromFile(options.file);
  if (options.standardInput || options.given == "-") return readSecret("PIN: ");
  if (options.given) warnOfVisiblePin();
  return options.given;
}

std::optional<std::string> pinOnDemand() {
  if (auto pin = fromEnvironment()) return pin;
  if (isatty(STDIN_FILENO) == 1) return readSecret("PIN: ");
  return std::nullopt;
}

std::string requiredPin(const PinOptions &options) {
  if (const auto pin = givenPin(options)) return *pin;
  if (const auto pin = pinOnDemand()) return *pin;
  throw Failure(kExitUsage, "no PIN is given",
                "give it with --pin-file, --pin-stdin or KELMTROVA_PIN, or on a terminal", "pin-needed");
}

std::string newPin(const std::string &question) {
  std::string pin = readSecret(question);
  requirePossiblePin(pin);
  if (isatty(STDIN_FILENO) == 1 && readSecret("the same once more: ") != pin) {
    throw Failure(kExitUsage, "the two are not the same", "nothing was changed");
  }
  return pin;
}

}  // namespace kelm::tools
