// SPDX-License-Identifier: Apache-2.0
// One use of a token: opened from the options, closed at the end.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelmtrova/token.h"
#include "tools/token/address.h"
#include "tools/token/options.h"
#include "tools/token/platform.h"

namespace kelm::tools {

class Session {
 public:
  // Opens the token at the address, sees that it is one and verifies the PIN, where the options give one.
  Session(Address address, const TokenOptions &options);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const SCardConnection *handle() const { return &connection_; }
  std::uint64_t device() const { return connection_.hDevice; }
  const std::string &place() const { return address_.text; }
  bool simulated() const { return address_.kind == Address::Kind::kSimulated; }
  // Of a simulated token.
  SimulatorState state() const;

  // Lays what --finger says on a simulated sensor until the session ends: a name, or with @ the bytes of a file. On a
  // real one a person lays it, and nothing may be given.
  void layFinger(const std::optional<std::string> &finger);
  // Captures and extracts into the feature buffers 1 to `buffers`, showing how far it is.
  void captureFeatures(int buffers, const std::string &occasion = "");
  // Whether a person at a real sensor is asked for the finger.
  void setPrompting(bool prompting) { prompting_ = prompting; }

  // Makes a call of the library; when the token asks for its PIN, and a person or KELMTROVA_PIN can give it, verifies
  // it and makes the call again.
  std::uint64_t withPin(const std::function<std::uint64_t()> &call);
  void verifyPin(const std::string &pin);

  std::uint8_t slotCount();
  std::vector<TemplateIndexEntry> readIndex();

 private:
  Address address_;
  const TokenOptions &options_;
  SCardConnection connection_{};
  bool fingerLaid_ = false, pinVerified_ = false, prompting_ = true;
};

// What --finger NAME or @FILE means.
std::string fingerBytes(const std::string &finger);

}  // namespace kelm::tools
