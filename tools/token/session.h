// SPDX-License-Identifier: Apache-2.0
// One use of a token: opened from the options, closed at the end, its refusals turned into failures with words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelmtrova/token.h"
#include "tools/token/simulator_link.h"

namespace kelm::tools {

// Options that every token command takes.
struct TokenOptions {
  std::string store;                    // the simulated token's file; empty for the default one
  std::optional<std::uint64_t> device;  // a real device manager's handle
  std::string pin;                      // verified before the command; "-" asks for it; empty for none
  int verbosity = 0;
  bool json = false;
};

// The path of the simulated token.
std::string storePath(const SimulatorLink &link, const TokenOptions &options);
// The control functions, or a failure that says that only a simulated token can `action`.
const SimulatorLink &requireSimulator(const char *action);
// Fails unless the result of `action` is 0.
void check(std::uint64_t result, const std::string &action);

class Session {
 public:
  explicit Session(const TokenOptions &options);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const SCardConnection *handle() const { return &connection_; }
  std::uint64_t device() const { return connection_.hDevice; }
  std::string place() const;  // where the token is, for people

  // Lays the finger on a simulated sensor: the bytes of a file, or those of the name itself. On a real one a person
  // lays it.
  void placeFinger(const std::string &finger);
  // Captures and extracts into feature buffer 1, or into all three.
  void captureFeatures(int buffers);
  // Through the middleware; "" and "-" ask for the PIN on standard input.
  void verifyPin(const std::string &given);
  std::uint8_t slotCount();
  std::vector<TemplateIndexEntry> readIndex();

 private:
  Session(const SimulatorLink *link, const TokenOptions &options);

  const SimulatorLink *link_;
  std::string store_;
  SCardConnection connection_{};
};

}  // namespace kelm::tools
