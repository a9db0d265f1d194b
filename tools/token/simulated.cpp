// SPDX-License-Identifier: Apache-2.0
// What only a simulated token can do.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>

#include "tools/failure.h"
#include "tools/output.h"
#include "tools/signals.h"
#include "tools/terminal.h"
#include "tools/text.h"
#include "tools/token/actions.h"
#include "tools/token/pin.h"
#include "tools/token/refusal.h"
#include "tools/token/watch.h"

namespace kelm::tools {

namespace {

// An open simulated token, to which no command is sent.
class Opened {
 public:
  explicit Opened(const Address &address) : device_(openToken(address)) {}
  ~Opened() { simulator()->close(device_); }
  Opened(const Opened &) = delete;
  Opened &operator=(const Opened &) = delete;
  operator std::uint64_t() const { return device_; }

 private:
  std::uint64_t device_;
};

void require(int result) {
  if (result != 0) throw storeFailure();
}

// The PIN of a new token: as the options say, typed twice on a terminal, or none, which leaves the usual one.
std::optional<std::string> pinOfNewToken(const PinOptions &options) {
  std::optional<std::string> pin;
  if (isatty(STDIN_FILENO) == 1 && (options.given == "-" || options.standardInput))
    return newPin("PIN of the new token: ");
  pin = givenPin(options);
  if (!pin) {
    if (const char *value = std::getenv("KELMTROVA_PIN")) pin = value;
  }
  if (!pin && isatty(STDIN_FILENO) == 1) return newPin("PIN of the new token: ");
  if (pin) requirePossiblePin(*pin);
  return pin;
}

}  // namespace

Report createToken(const TokenOptions &token, const CreateOptions &options) {
  const Address address = simulatedAddress(token, "be created");
  std::error_code error;
  if (std::filesystem::exists(address.store, error)) {
    throw Failure(kExitUsage, address.store + " exists already", "choose another place with --token sim:PATH",
                  "store-exists");
  }
  const std::optional<std::string> pin = pinOfNewToken(token.pin);
  SimulatorPersonalisation personalisation{};
  personalisation.slots = static_cast<std::uint8_t>(options.slots);
  personalisation.firstFidCounter = static_cast<std::uint16_t>(options.fidCounter);
  personalisation.maxTries = static_cast<std::uint8_t>(options.tries);
  personalisation.pin = pin ? pin->c_str() : nullptr;
  require(simulator()->create(address.store.c_str(), &personalisation));
  Report report;
  report.text = fmt::format("made a token with {} in {}{}\n", counted(personalisation.slots, "slot"),
                            shown(address.store), pin ? "" : "; its PIN is 1234");
  report.json = {{"address", address.text}, {"slotCount", options.slots}, {"tries", options.tries}};
  return report;
}

Report exportToken(const TokenOptions &token, const std::string &file) {
  const Address address = simulatedAddress(token, "be exported");
  if (simulator()->exportTo(Opened(address), file.c_str()) != 0) {
    if (simulator()->failure() == SIMULATOR_STORE_EXISTS) {
      throw FileFailure(simulator()->error(), "choose another name for the exported token");
    }
    throw storeFailure();
  }
  Report report;
  report.text = fmt::format("wrote the token to {}, its PIN and fingers with it\n", shown(file));
  report.json = {{"address", address.text}, {"file", shown(file)}};
  return report;
}

Report importToken(const TokenOptions &token, const std::string &file) {
  const Address address = simulatedAddress(token, "be imported");
  if (simulator()->importFrom(file.c_str(), address.store.c_str()) != 0) {
    if (simulator()->failure() == SIMULATOR_NO_STORE) throw FileFailure(file + ": there is no such file");
    throw storeFailure();
  }
  Report report;
  report.text = fmt::format("made a token from {} in {}\n", shown(file), shown(address.store));
  report.json = {{"address", address.text}, {"file", shown(file)}};
  return report;
}

Report touch(const TokenOptions &token, const std::string &finger) {
  const Address address = simulatedAddress(token, "be touched from here");
  const std::string bytes = fingerBytes(finger);
  require(simulator()->placeFinger(Opened(address), bytes.data(), bytes.size()));
  Report report;
  report.text = fmt::format("{} lies on the sensor until `kelmtrova token lift`\n", shown(finger));
  report.json = {{"address", address.text}, {"finger", shown(finger)}};
  return report;
}

Report lift(const TokenOptions &token) {
  const Address address = simulatedAddress(token, "be touched from here");
  require(simulator()->removeFinger(Opened(address)));
  Report report;
  report.text = "nothing lies on the sensor\n";
  report.json = {{"address", address.text}};
  return report;
}

namespace {

// Says that the reader has the token. No exception may pass through the device manager: it ends serving, and is kept.
struct Ready {
  const Address &address;
  const std::string &reader;
  bool json;
  int stop;
  std::exception_ptr failure;

  static void say(void *context) {
    auto &ready = *static_cast<Ready *>(context);
    try {
      const std::string at = ready.reader.empty() ? "" : " at " + shown(ready.reader);
      put(ready.json
              ? jsonText({{"ok", true}, {"address", ready.address.text}, {"ready", true}}, -1) + '\n'
              : fmt::format("{} is in the virtual reader{}; Ctrl-C takes it out\n", shown(ready.address.text), at));
      flushOutput();
    } catch (...) {
      ready.failure = std::current_exception();
      [[maybe_unused]] const ssize_t written = write(ready.stop, "", 1);
    }
  }
};

// Shows and writes what the reader's programs send to the token in it.
struct Served {
  std::uint64_t device, exchange = 0;

  static void observe(void *context, const std::uint8_t *command, std::size_t commandLength, const std::uint8_t *answer,
                      std::size_t answerLength, std::int32_t status) {
    auto &served = *static_cast<Served *>(context);
    // Without memory the line is missing.
    try {
      if (status < 0) {
        served.exchange = observeCommand(served.device, {command, commandLength});
      } else {
        observeAnswer(served.exchange, {answer, answerLength}, static_cast<std::uint16_t>(status));
      }
    } catch (const std::exception &) {
    }
  }
};

}  // namespace

Report serve(const TokenOptions &token, const std::string &reader) {
  const Address address = simulatedAddress(token, "be served");
  const Opened device(address);
  int stop[2];
  if (pipe2(stop, O_CLOEXEC) != 0) throw Failure(kExitUsage, "no pipe can be made for the end of serving");
  const OnSignal end([&stop](int signal) {
    if (signal == SIGTSTP) return false;
    [[maybe_unused]] const ssize_t written = write(stop[1], "", 1);
    return true;
  });
  Ready ready{address, reader, token.json, stop[1], nullptr};
  Served served{device};
  require(simulator()->setTrace(device, Served::observe, &served));
  const int result = simulator()->serve(device, reader.empty() ? nullptr : reader.c_str(), stop[0], Ready::say, &ready);
  close(stop[0]);
  close(stop[1]);
  if (ready.failure) std::rethrow_exception(ready.failure);
  require(result);
  Report report;
  report.indent = -1;
  report.json = {{"address", address.text}, {"ready", false}};
  return report;
}

Report requirePin(const TokenOptions &token, bool required) {
  const Address address = simulatedAddress(token, "be made to ask for its PIN");
  require(simulator()->requirePin(Opened(address), required));
  Report report;
  report.text = required ? "the token asks for its PIN from now on\n" : "the token asks for no PIN any more\n";
  report.json["required"] = required;
  return report;
}

Report changePin(const TokenOptions &token) {
  const Address address = simulatedAddress(token, "have its PIN changed from here");
  const Opened device(address);
  const std::string before = requiredPin(token.pin);
  requirePossiblePin(before);
  const std::string after = token.pin.newFile.empty() ? newPin("new PIN: ") : pinFromFile(token.pin.newFile);
  requirePossiblePin(after);
  if (simulator()->changePin(device, before.c_str(), after.c_str()) != 0) {
    const bool wrong = simulator()->failure() == SIMULATOR_PIN_WRONG;
    SimulatorState state{};
    Failure failure = storeFailure();
    if (wrong && simulator()->getState(device, &state) == 0) {
      failure = {kExitRefused, "the PIN is wrong", fmt::format("tries left: {}", state.pinTriesLeft), "pin-wrong"};
    }
    throw failure;
  }
  Report report;
  report.text = "the token has a new PIN\n";
  report.json["changed"] = true;
  return report;
}

Report unblock(const TokenOptions &token) {
  const Address address = simulatedAddress(token, "be unblocked from here");
  require(simulator()->unblock(Opened(address)));
  Report report;
  report.text = "matching is unblocked, all tries are there again\n";
  report.json["unblocked"] = true;
  return report;
}

}  // namespace kelm::tools
