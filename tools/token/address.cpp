// SPDX-License-Identifier: Apache-2.0
#include "tools/token/address.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>

#include "kelmtrova/token.h"
#include "tools/failure.h"
#include "tools/token/platform.h"
#include "tools/token/refusal.h"

namespace kelm::tools {

namespace {

std::string fromEnvironment() {
  const char *value = std::getenv("KELMTROVA_TOKEN");
  return value == nullptr ? "" : value;
}

std::string defaultStore() {
  std::string path(simulator()->defaultStore(nullptr, 0) + 1, '\0');
  simulator()->defaultStore(path.data(), path.size());
  path.pop_back();
  return path;
}

Address parseHandle(const std::string &text, std::string_view number) {
  Address address{Address::Kind::kHandle, text, "", 0};
  const bool hexadecimal = number.starts_with("0x") || number.starts_with("0X");
  if (hexadecimal) number.remove_prefix(2);
  const char *const end = number.data() + number.size();
  const auto [rest, error] = std::from_chars(number.data(), end, address.device, hexadecimal ? 16 : 10);
  if (error == std::errc() && rest == end && !number.empty()) return address;
  throw Failure(kExitUsage, text + ": a handle is a 64-bit number, decimal or with 0x");
}

// What --token, --device or the environment name; empty when nothing does.
std::string namedAddress(const TokenOptions &options) {
  if (!options.device.empty()) return "handle:" + options.device;
  return options.address.empty() ? fromEnvironment() : options.address;
}

Place asReader(const DeviceManagerToken &token) {
  Place place;
  place.address = {Address::Kind::kReader, token.address, "", 0};
  place.description = token.description;
  return place;
}

// The device manager's words and its code, as they stand in a failure, too.
std::string lastProblem() { return managerFailure("", manager()->errorCode()).error; }

// Asks the cards what they are.
void ask(Place &place) {
  const std::uint64_t device = manager()->open(place.address.text.c_str());
  if (device == 0) {
    place.description = lastProblem();
    return;
  }
  SCardConnection connection{};
  connection.bState = KELM_CONNECTION_READY;
  connection.hDevice = device;
  place.isToken = KelmIsTrova(&connection) == 1;
  if (!place.isToken) place.description = "reader, a card of another kind";
  manager()->close(device);
}

Address onlyToken(const Places &places) {
  std::string readers;
  const Place *only = nullptr;
  int tokens = 0;
  for (const Place &place : places.all) {
    if (place.address.kind != Address::Kind::kReader || !place.isToken) continue;
    only = &place;
    ++tokens;
    readers += (readers.empty() ? "" : ", ") + place.address.text;
  }
  if (tokens > 1) {
    throw Failure(kExitNoToken, "several fingerprint tokens are there: " + readers, "choose one with --token",
                  "several-tokens");
  }
  return only != nullptr ? only->address : parseAddress("sim:");
}

}  // namespace

Address parseAddress(const std::string &text) {
  constexpr std::string_view kHandle = "handle:", kReader = "pcsc:", kSimulated = "sim:";
  if (text.starts_with(kHandle)) return parseHandle(text, std::string_view(text).substr(kHandle.size()));
  if (simulator() == nullptr) {
    throw Failure(kExitUsage, text + ": the device manager libkelmkmgr.so of this machine is a maker's own",
                  "give its handle of the token as --token handle:N", "other-device-manager");
  }
  if (text.starts_with(kReader)) return {Address::Kind::kReader, text, "", 0};
  std::string store = text.starts_with(kSimulated) ? text.substr(kSimulated.size()) : text;
  if (store.empty()) store = defaultStore();
  return {Address::Kind::kSimulated, std::string(kSimulated) + store, store, 0};
}

Address chooseAddress(const TokenOptions &options) {
  if (const std::string named = namedAddress(options); !named.empty()) return parseAddress(named);
  if (simulator() == nullptr) {
    throw Failure(kExitNoToken, "the device manager libkelmkmgr.so is a maker's own and cannot list its tokens",
                  "give its handle of the token as --token handle:N", "other-device-manager");
  }
  return onlyToken(findPlaces());
}

Address simulatedAddress(const TokenOptions &options, const char *action) {
  if (simulator() == nullptr) {
    throw Failure(kExitUsage, std::string("only a simulated token can ") + action,
                  "the device manager libkelmkmgr.so of this machine is a maker's own", "simulated-only");
  }
  Address address = parseAddress(namedAddress(options));
  if (address.kind == Address::Kind::kSimulated) return address;
  throw Failure(kExitUsage, fmt::format("only a simulated token can {}, and {} is none", action, address.text),
                "name one with --token sim:PATH", "simulated-only");
}

std::uint64_t openToken(const Address &address) {
  std::uint64_t device = 0;
  switch (address.kind) {
    case Address::Kind::kHandle:
      if (simulator() == nullptr) return address.device;
      throw Failure(kExitUsage,
                    address.text + ": handles are for a maker's device manager, the one here opens addresses",
                    "`kelmtrova token list` shows them");
    case Address::Kind::kSimulated:
      device = simulator()->open(address.store.c_str());
      if (device == 0) throw storeFailure();
      return device;
    case Address::Kind::kReader:
      device = manager()->open(address.text.c_str());
      if (device == 0) throw managerFailure("", manager()->errorCode());
      return device;
  }
  return 0;
}

void closeToken(const Address &address, std::uint64_t device) {
  if (address.kind == Address::Kind::kSimulated) simulator()->close(device);
  if (address.kind == Address::Kind::kReader) manager()->close(device);
}

Places findPlaces() {
  Places places;
  if (simulator() == nullptr) return places;
  if (manager() != nullptr) {
    const auto visit = [](void *context, const DeviceManagerToken *token) {
      if (token->kind == DEVICE_MANAGER_READER) {
        Place place = asReader(*token);
        // What holds no card is not to be opened; the rest is asked after the list.
        place.isToken = token->cardPresent != 0;
        static_cast<Places *>(context)->all.push_back(place);
      }
      return 0;
    };
    if (manager()->list(visit, &places) != 0) places.problem = lastProblem();
    for (Place &place : places.all) {
      if (place.isToken) ask(place);
    }
  }
  std::vector<std::string> stores = {defaultStore()};
  if (const std::string named = fromEnvironment(); !named.empty()) {
    const Address address = parseAddress(named);
    if (address.kind == Address::Kind::kSimulated && address.store != stores.front()) stores.push_back(address.store);
  }
  for (const std::string &store : stores) {
    std::error_code ignored;
    // One in a folder that may not be entered is listed, too: who opens it is told why that fails.
    if (std::filesystem::status(store, ignored).type() != std::filesystem::file_type::not_found)
      places.all.push_back({parseAddress("sim:" + store), true, ""});
  }
  return places;
}

}  // namespace kelm::tools
