// SPDX-License-Identifier: Apache-2.0
// Which token a command is for: named by its address, or the one that is there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/token/options.h"

namespace kelm::tools {

struct Address {
  enum class Kind { kReader, kSimulated, kHandle };
  Kind kind = Kind::kSimulated;
  std::string text;          // "pcsc:NAME", "sim:PATH", "handle:N"
  std::string store;         // the path of a simulated token
  std::uint64_t device = 0;  // the number behind "handle:"
};

// "pcsc:NAME", "sim:PATH", "sim:" for the default store, a bare path or "handle:N". Throws for what none can be.
Address parseAddress(const std::string &text);
// The one that the options or KELMTROVA_TOKEN name, else the only reader that holds a fingerprint token, else the
// default store.
Address chooseAddress(const TokenOptions &options);
// The simulated token for a command that only such a one can do: named, or in the default store. `action` completes
// "only a simulated token can ...".
Address simulatedAddress(const TokenOptions &options, const char *action);

// Opens a token; throws a Failure with the reason in words. Close it with closeToken.
std::uint64_t openToken(const Address &address);
void closeToken(const Address &address, std::uint64_t device);

// A place of a token as `token list` shows it.
struct Place {
  Address address;
  bool isToken = false;     // a fingerprint token answers there
  std::string description;  // where it is none: why
};

struct Places {
  std::vector<Place> all;
  std::string problem;  // why the readers could not be asked; empty when they could
};

// Every reader, asked whether a fingerprint token is in it, and the simulated tokens that are known. A card of unknown
// kind is asked for the device information and gets nothing else.
Places findPlaces();

}  // namespace kelm::tools
