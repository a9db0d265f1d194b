// SPDX-License-Identifier: Apache-2.0
#include "tools/token/session.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/terminal.h"
#include "tools/token/watch.h"
#include "tools/token/words.h"

namespace kelm::tools {

namespace {

int exitCodeOf(std::uint64_t result) {
  if (result == KELM_RESULT_ARGUMENT) return kExitUsage;
  return result == KELM_RESULT_AUTH_LIBRARY || result == KELM_RESULT_PIN_LIBRARY ? kExitNoToken : kExitRefused;
}

Failure refused(const std::string &error, const std::string &advice, std::uint64_t result) {
  Failure failure(kExitRefused, error, advice);
  failure.result = result;
  return failure;
}

std::uint64_t openSimulated(const SimulatorLink &link, const std::string &store) {
  if (!std::filesystem::exists(store)) {
    throw Failure(kExitNoToken, "no token in " + store + ": `kelmtrova token create` makes one");
  }
  const std::uint64_t device = link.open(store.c_str());
  if (device == 0) throw Failure(kExitNoToken, "no token can be opened in " + store + ": " + link.error());
  return device;
}

std::string fingerBytes(const std::string &finger) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(finger, ignored)) return finger;
  std::ifstream file(finger, std::ios::binary);
  return file ? std::string(std::istreambuf_iterator<char>(file), {}) : finger;
}

}  // namespace

std::string storePath(const SimulatorLink &link, const TokenOptions &options) {
  std::filesystem::path path = options.store;
  if (path.empty()) {
    std::string text(link.defaultStore(nullptr, 0) + 1, '\0');
    link.defaultStore(text.data(), text.size());
    path = text.c_str();
  }
  return path.string();
}

const SimulatorLink &requireSimulator(const char *action) {
  const SimulatorLink *link = simulatorLink();
  if (link == nullptr) {
    throw Failure(kExitUsage, std::string("only a simulated token can ") + action +
                                  ", and the device manager libkelmkmgr.so of this machine is a real one");
  }
  return *link;
}

void check(std::uint64_t result, const std::string &action) {
  if (result == 0) return;
  const ResultWords &words = resultWords(result);
  std::string answer;
  if (result == KELM_RESULT_UNLISTED && watch().lastStatus >= 0) {
    const std::string meaning = statusWords(watch().lastStatus);
    answer =
        fmt::format(", its last answer was {:04X}{}", watch().lastStatus, meaning.empty() ? "" : " (" + meaning + ")");
  }
  Failure failure(exitCodeOf(result), fmt::format("{}: {} [{}{}]", action, words.what, resultNumber(result), answer),
                  words.advice);
  failure.result = result;
  throw failure;
}

Session::Session(const SimulatorLink *link, const TokenOptions &options) : link_(link) {
  constexpr std::uint64_t kProtocolT1 = 2;
  connection_.bState = KELM_CONNECTION_READY;
  connection_.dwProtocol = kProtocolT1;
  if (link_ != nullptr) {
    if (options.device) {
      throw Failure(kExitUsage, "--device is for a real device manager; the one here is simulated: use --token");
    }
    store_ = storePath(*link_, options);
    connection_.hDevice = openSimulated(*link_, store_);
    return;
  }
  if (!options.store.empty()) {
    throw Failure(kExitUsage, "--token is for a simulated token; the device manager here is a real one: use --device");
  }
  if (!options.device) {
    throw Failure(kExitNoToken,
                  "the device manager libkelmkmgr.so is a real one: --device must give its handle of the token");
  }
  connection_.hDevice = *options.device;
}

Session::Session(const TokenOptions &options) : Session(simulatorLink(), options) {
  watch() = {};
  watch().verbosity = options.verbosity;
  if (KelmIsTrova(handle()) != 1) throw Failure(kExitNoToken, "no fingerprint token answers at " + place());
  if (!options.pin.empty()) verifyPin(options.pin);
}

Session::~Session() {
  if (link_ != nullptr) link_->close(connection_.hDevice);
}

std::string Session::place() const {
  return link_ != nullptr ? store_ : "device " + std::to_string(connection_.hDevice);
}

void Session::placeFinger(const std::string &finger) {
  if (link_ == nullptr) {
    if (!finger.empty()) throw Failure(kExitUsage, "--finger is for a simulated sensor; lay your finger on this one");
    return;
  }
  if (finger.empty()) {
    throw Failure(kExitUsage, "--finger NAME-OR-FILE must say which finger lies on the simulated sensor");
  }
  const std::string bytes = fingerBytes(finger);
  if (link_->placeFinger(connection_.hDevice, bytes.data(), bytes.size()) != 0) {
    throw Failure(kExitUsage, "the finger " + finger + " cannot be laid on the sensor: " + link_->error());
  }
}

void Session::verifyPin(const std::string &given) {
  constexpr std::size_t kLongest = 16;
  constexpr std::uint64_t kWrong = KELM_RESULT_OF(KELM_SW_NO_MATCH), kTriesMask = 0x0F;
  if (link_ == nullptr) {
    throw Failure(kExitUsage,
                  "this program speaks to the middleware of simulated tokens only: verify the PIN of a real one with "
                  "the tool of its maker");
  }
  const std::string pin = given.empty() || given == "-" ? readSecret("PIN: ") : given;
  if (pin.empty() || pin.size() > kLongest) throw Failure(kExitUsage, "a PIN has 1 to 16 characters");
  std::uint8_t triesLeft = 0;
  const std::uint64_t result = [&] {
    const Redirected redirected(STDOUT_FILENO, STDERR_FILENO);
    return KelmSCardVerifyUserPinBio(device(), reinterpret_cast<std::uintptr_t>(pin.data()),
                                     static_cast<std::uint8_t>(pin.size()),
                                     reinterpret_cast<std::uintptr_t>(&triesLeft));
  }();
  const std::string number = " [" + resultNumber(result) + "]";
  if (result == KELM_RESULT_BLOCKED) {
    throw refused("the PIN is blocked" + number, "`kelmtrova token unblock` gives its tries back", result);
  }
  if ((result & ~kTriesMask) == kWrong) {
    throw refused("the PIN is wrong" + number, "tries left: " + std::to_string(triesLeft), result);
  }
  check(result, "verifying the PIN");
}

void Session::captureFeatures(int buffers) {
  for (int buffer = 1; buffer <= buffers; ++buffer) {
    if (link_ == nullptr) std::fprintf(stderr, "lay your finger on the sensor (%d of %d)\n", buffer, buffers);
    check(KelmTrovaCaptureImage(handle()), "capturing the finger");
    check(KelmTrovaFeatureExtract(handle(), static_cast<std::uint8_t>(buffer)), "extracting its features");
  }
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
