// SPDX-License-Identifier: Apache-2.0
#include "tools/token/session.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <utility>

#include "tools/failure.h"
#include "tools/output.h"
#include "tools/terminal.h"
#include "tools/token/messages.h"
#include "tools/token/pin.h"
#include "tools/token/refusal.h"
#include "tools/token/watch.h"

namespace kelm::tools {

std::string fingerBytes(const std::string &finger) {
  constexpr std::size_t kLargest = std::size_t{64} << 20;
  if (!finger.starts_with('@')) return finger;
  if (finger.size() == 1) throw Failure(kExitUsage, "--finger @ names no file");
  return readWhole(finger.substr(1), kLargest);
}

Session::Session(Address address, const TokenOptions &options) : address_(std::move(address)), options_(options) {
  constexpr std::uint64_t kProtocolT1 = 2;
  connection_.bState = KELM_CONNECTION_READY;
  connection_.dwProtocol = kProtocolT1;
  connection_.hDevice = openToken(address_);
  try {
    if (KelmIsTrova(handle()) != 1) {
      if (noTokenAnswered()) throw managerFailure(place(), static_cast<std::uint16_t>(watch().lastStatus));
      // Without an exchange it was the lock that failed.
      if (watch().lastStatus < 0 && manager() != nullptr && manager()->errorCode() != DEVICE_MANAGER_OK) {
        throw managerFailure(place(), static_cast<std::uint16_t>(manager()->errorCode()));
      }
      throw Failure(kExitNoToken, "no fingerprint token answers at " + place(), "`kelmtrova token list` shows them");
    }
    if (const auto pin = givenPin(options.pin)) verifyPin(*pin);
  } catch (...) {
    closeToken(address_, device());
    throw;
  }
}

Session::~Session() {
  if (fingerLaid_) simulator()->removeFinger(device());
  closeToken(address_, device());
}

SimulatorState Session::state() const {
  SimulatorState state{};
  if (simulator()->getState(device(), &state) != 0) throw storeFailure();
  return state;
}

void Session::layFinger(const std::optional<std::string> &finger) {
  if (!finger) return;
  if (!simulated()) {
    throw Failure(kExitUsage, "--finger is for a simulated sensor",
                  "lay your finger on this one (`kelmtrova token touch` does it for a simulated token that is served)");
  }
  const std::string bytes = fingerBytes(*finger);
  if (simulator()->placeFinger(device(), bytes.data(), bytes.size()) != 0) throw storeFailure();
  fingerLaid_ = true;
}

void Session::captureFeatures(int buffers, const std::string &occasion) {
  Progress progress("capturing" + occasion, "captures", static_cast<std::uint64_t>(buffers));
  for (int buffer = 1; buffer <= buffers; ++buffer) {
    if (!simulated() && prompting_) {
      putError(buffers == 1 ? "lay your finger on the sensor" + occasion
                            : fmt::format("lay your finger on the sensor ({} of {})", buffer, buffers));
      progress.show(static_cast<std::uint64_t>(buffer - 1));
    }
    check(KelmTrovaCaptureImage(handle()), "capturing the finger");
    check(KelmTrovaFeatureExtract(handle(), static_cast<std::uint8_t>(buffer)), "extracting its features");
    progress.show(static_cast<std::uint64_t>(buffer));
  }
}

std::uint64_t Session::withPin(const std::function<std::uint64_t()> &call) {
  const std::uint64_t result = call();
  // Some results hide the status word, and after some others the library still sends commands of its own.
  const bool asked = result == KELM_RESULT_OF(KELM_SW_SECURITY_STATUS) ||
                     (result != KELM_RESULT_OK && watch().lastStatus == static_cast<int>(KELM_SW_SECURITY_STATUS));
  if (!asked || pinVerified_ || address_.kind == Address::Kind::kHandle) return result;
  const auto pin = pinOnDemand();
  if (!pin) return result;
  verifyPin(*pin);
  return call();
}

void Session::verifyPin(const std::string &pin) {
  constexpr std::uint64_t kWrong = KELM_RESULT_OF(KELM_SW_NO_MATCH), kTriesMask = 0x0F;
  if (address_.kind == Address::Kind::kHandle) {
    throw Failure(kExitUsage, "this program does not know how a maker's middleware takes its PIN",
                  "verify it with the tool of its maker");
  }
  requirePossiblePin(pin);
  std::uint8_t triesLeft = 0;
  // The library prints a line of its own where the middleware is missing.
  const int nowhere = isQuiet() ? open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
  const std::uint64_t result = [&] {
    const Redirected redirected(STDOUT_FILENO, nowhere < 0 ? STDERR_FILENO : nowhere);
    return KelmSCardVerifyUserPinBio(device(), reinterpret_cast<std::uintptr_t>(pin.data()),
                                     static_cast<std::uint8_t>(pin.size()),
                                     reinterpret_cast<std::uintptr_t>(&triesLeft));
  }();
  if (nowhere >= 0) close(nowhere);
  const auto refused = [result](const std::string &what, const std::string &advice, const char *code) {
    Failure failure(kExitRefused, fmt::format("{} [{}]", what, resultNumber(result)), advice, code);
    failure.result = result;
    return failure;
  };
  if (result == KELM_RESULT_BLOCKED || result == kWrong) {
    throw refused("the PIN is blocked", "`kelmtrova token unblock` gives a simulated token's tries back",
                  "pin-blocked");
  }
  if ((result & ~kTriesMask) == kWrong) {
    throw refused("the PIN is wrong", fmt::format("tries left: {}", triesLeft), "pin-wrong");
  }
  check(result, "verifying the PIN");
  pinVerified_ = true;
}

std::uint8_t Session::slotCount() {
  std::uint8_t count = 0;
  check(KelmTrovaGetMaxTmpltNum(handle(), &count), "asking for the number of slots");
  return count;
}

std::vector<TemplateIndexEntry> Session::readIndex() {
  // Room for the most that a token can have, whatever it answers to the second query.
  constexpr std::size_t kMostSlots = 255;
  std::vector<TemplateIndexEntry> index(kMostSlots);
  const std::uint8_t count = slotCount();
  check(KelmTrovaReadIndexFile(handle(), reinterpret_cast<std::uint8_t *>(index.data())), "reading the slots");
  index.resize(count);
  return index;
}

}  // namespace kelm::tools
