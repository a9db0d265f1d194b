// SPDX-License-Identifier: Apache-2.0
#include "tools/token/refusal.h"

#include <fmt/format.h>

#include "kelmtrova/token.h"
#include "tools/token/messages.h"
#include "tools/token/platform.h"
#include "tools/token/watch.h"

namespace kelm::tools {

namespace {

struct Kind {
  int number;  // a DeviceManagerCode or a SimulatorFailure
  int exitCode;
  const char *code;    // the word for programs
  const char *advice;  // "" where the words say it
};

constexpr const char *kCreate = "`kelmtrova token create` makes a simulated one";

constexpr Kind kManagerKinds[] = {
    {DEVICE_MANAGER_NO_DEVICE, kExitNoToken, "no-token", ""},
    {DEVICE_MANAGER_ANSWER_TOO_LONG, kExitRefused, "bad-answer", ""},
    {DEVICE_MANAGER_NO_MEMORY, kExitUsage, "memory", ""},
    {DEVICE_MANAGER_BAD_ADDRESS, kExitUsage, "bad-address", "`kelmtrova token list` shows the addresses"},
    {DEVICE_MANAGER_NO_PCSC, kExitNoToken, "no-readers", ""},
    {DEVICE_MANAGER_NO_SERVICE, kExitNoToken, "no-readers", ""},
    {DEVICE_MANAGER_NO_READER, kExitNoToken, "no-reader", "`kelmtrova token list` shows the addresses"},
    {DEVICE_MANAGER_SEVERAL_READERS, kExitNoToken, "several-tokens", ""},
    {DEVICE_MANAGER_NO_CARD, kExitNoToken, "no-card", ""},
    {DEVICE_MANAGER_CARD_MUTE, kExitNoToken, "no-card", ""},
    {DEVICE_MANAGER_NOT_ALLOWED, kExitNoToken, "not-allowed", ""},
    {DEVICE_MANAGER_BUSY, kExitRefused, "busy", ""},
    {DEVICE_MANAGER_CARD_REMOVED, kExitNoToken, "removed",
     "put it back; after an enrollment `kelmtrova token repair` clears what it left"},
    {DEVICE_MANAGER_CARD_RESET, kExitRefused, "reset", "try again"},
    {DEVICE_MANAGER_NO_ANSWER, kExitRefused, "no-answer", "try again; `kelmtrova token doctor` looks what was done"},
    {DEVICE_MANAGER_STORE_MISSING, kExitNoToken, "no-token", kCreate},
    {DEVICE_MANAGER_STORE_UNUSABLE, kExitUsage, "store", ""},
};

constexpr Kind kStoreKinds[] = {
    {SIMULATOR_BAD_ARGUMENT, kExitUsage, "usage", ""},
    {SIMULATOR_NO_MEMORY, kExitUsage, "memory", ""},
    {SIMULATOR_NO_STORE, kExitNoToken, "no-token", kCreate},
    {SIMULATOR_STORE_EXISTS, kExitUsage, "store-exists", "choose another place with --token sim:PATH"},
    {SIMULATOR_NOT_A_STORE, kExitUsage, "not-a-store", ""},
    {SIMULATOR_STORE_DAMAGED, kExitUsage, "store-damaged",
     "`kelmtrova token import` brings an exported token back; else remove the file and create a new one"},
    {SIMULATOR_LATER_VERSION, kExitUsage, "later-version", "use the kelmtrova that made it, or a later one"},
    {SIMULATOR_STORE_BUSY, kExitUsage, "busy", "try again when it has ended"},
    {SIMULATOR_STORE_READ_ONLY, kExitUsage, "read-only", ""},
    {SIMULATOR_NO_PERMISSION, kExitUsage, "no-permission", ""},
    {SIMULATOR_DISK_FULL, kExitUsage, "disk-full", "make room and try again"},
    {SIMULATOR_PIN_WRONG, kExitRefused, "pin-wrong", ""},
    {SIMULATOR_PIN_BLOCKED, kExitRefused, "pin-blocked", "`kelmtrova token unblock` gives its tries back"},
};

template <std::size_t Count>
const Kind &kindOf(const Kind (&kinds)[Count], int number) {
  static constexpr Kind kOther = {0, kExitUsage, "store", ""};
  for (const Kind &kind : kinds) {
    if (kind.number == number) return kind;
  }
  return kOther;
}

int exitCodeOf(std::uint64_t result) {
  if (result == KELM_RESULT_ARGUMENT || result == KELM_RESULT_MEMORY) return kExitUsage;
  return result == KELM_RESULT_AUTH_LIBRARY || result == KELM_RESULT_PIN_LIBRARY ? kExitNoToken : kExitRefused;
}

// Results that are made without an exchange, so that the last status word has nothing to do with them.
bool madeByTheLibrary(std::uint64_t result) {
  return result == KELM_RESULT_ARGUMENT || result == KELM_RESULT_MEMORY || result == KELM_RESULT_LINE_LENGTH ||
         result == KELM_RESULT_AUTH_LIBRARY || result == KELM_RESULT_PIN_LIBRARY;
}

// "6A82 (file not found)" for the last status word.
std::string lastAnswer() {
  const std::string meaning = statusWords(watch().lastStatus);
  return fmt::format("{:04X}{}", watch().lastStatus, meaning.empty() ? "" : " (" + meaning + ")");
}

// Puts what stands behind a refusal besides the token itself in its place: the device manager, or a simulated token's
// store.
void explain(Failure &failure, const std::string &action) {
  if (noTokenAnswered()) failure = managerFailure(action, static_cast<std::uint16_t>(watch().lastStatus));
  const bool storeFailed = watch().lastStatus == static_cast<int>(KELM_SW_MEMORY_FAILURE) && simulator() != nullptr &&
                           simulator()->failure() != SIMULATOR_OK;
  if (!storeFailed) return;
  const Failure store = storeFailure();
  failure = {store.exitCode, action + ": " + store.error, store.advice, store.code};
}

}  // namespace

bool noTokenAnswered() {
  return manager() != nullptr && watch().lastStatus >= 0 &&
         manager()->codeText(static_cast<std::uint16_t>(watch().lastStatus)) != nullptr;
}

Failure managerFailure(const std::string &action, std::uint16_t code) {
  const Kind &kind = kindOf(kManagerKinds, code);
  const char *const text = manager()->codeText(code);
  const std::string words = manager()->errorCode() == code ? manager()->error() : text == nullptr ? "" : text;
  return {kind.exitCode, fmt::format("{}{}{} [0x{:04X}]", action, action.empty() ? "" : ": ", words, code), kind.advice,
          kind.code};
}

Failure storeFailure() {
  const Kind &kind = kindOf(kStoreKinds, simulator()->failure());
  return {kind.exitCode, simulator()->error(), kind.advice, kind.code};
}

Failure fileRefusal(const std::string &action) {
  Failure failure(kExitRefused, action + ": the token answered " + lastAnswer());
  explain(failure, action);
  return failure;
}

void check(std::uint64_t result, const std::string &action) {
  if (result == 0) return;
  const ResultWords &words = resultWords(result);
  const bool unexplained = result == KELM_RESULT_UNLISTED || result == KELM_RESULT_CAPTURE;
  const std::string answer = unexplained && watch().lastStatus >= 0 ? ", its last answer was " + lastAnswer() : "";
  Failure failure(exitCodeOf(result), fmt::format("{}: {} [{}{}]", action, words.what, resultNumber(result), answer),
                  words.advice, words.word);
  if (result == KELM_RESULT_NOT_LOCKED && manager() != nullptr && manager()->errorCode() != DEVICE_MANAGER_OK) {
    failure = managerFailure(action, manager()->errorCode());
  } else if (!madeByTheLibrary(result)) {
    explain(failure, action);
  }
  failure.result = result;
  throw failure;
}

}  // namespace kelm::tools
