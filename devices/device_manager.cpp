// SPDX-License-Identifier: Apache-2.0
// The device manager's entry and its own functions: addresses, open devices, failures in words.
#include "kelmtrova/device_manager.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "devices/failure.h"
#include "devices/pcsc.h"
#include "devices/simulated/exchange.h"
#include "kelmtrova/simulator.h"

namespace kelm::devices {
namespace {

constexpr std::size_t kLongestCommand = 5 + 255 + 1;
// Far from the numbers of simulated tokens.
constexpr std::uint64_t kFirstReader = 0x150430001;

constexpr std::string_view kReaderScheme = "pcsc:";
constexpr std::string_view kSimulatedScheme = "sim:";
constexpr std::string_view kHandleScheme = "handle:";

struct CodeText {
  std::uint16_t code;
  const char *text;
};

constexpr CodeText kCodeTexts[] = {
    {DEVICE_MANAGER_NO_DEVICE, "no such open device"},
    {DEVICE_MANAGER_ANSWER_TOO_LONG, "the answer is longer than the room for it"},
    {DEVICE_MANAGER_NO_MEMORY, "memory is exhausted"},
    {DEVICE_MANAGER_BAD_ADDRESS, "not an address of a token"},
    {DEVICE_MANAGER_NO_PCSC, "the PC/SC library libpcsclite.so.1 is not installed"},
    {DEVICE_MANAGER_NO_SERVICE, "the smart-card service pcscd does not run"},
    {DEVICE_MANAGER_NO_READER, "no such reader"},
    {DEVICE_MANAGER_SEVERAL_READERS, "the address fits several readers"},
    {DEVICE_MANAGER_NO_CARD, "no card in the reader"},
    {DEVICE_MANAGER_CARD_MUTE, "the card does not answer the reader"},
    {DEVICE_MANAGER_NOT_ALLOWED, "this user may not use the reader"},
    {DEVICE_MANAGER_BUSY, "another program keeps the token to itself"},
    {DEVICE_MANAGER_CARD_REMOVED, "the token was pulled out"},
    {DEVICE_MANAGER_CARD_RESET, "another program reset the token in the middle of the work"},
    {DEVICE_MANAGER_NO_ANSWER, "the token gave no usable answer"},
    {DEVICE_MANAGER_STORE_MISSING, "there is no such simulated token"},
    {DEVICE_MANAGER_STORE_UNUSABLE, "the store of the simulated token cannot be used"},
    {DEVICE_MANAGER_NO_STRETCH, "no exclusive stretch has begun"},
    {DEVICE_MANAGER_COMMAND_TOO_LONG, "the command is longer than a short APDU"},
};

struct LastError {
  std::uint16_t code = DEVICE_MANAGER_OK;
  std::string text;
};

LastError &lastError() {
  static thread_local LastError last;
  return last;
}

void remember(std::uint16_t code, const char *text) {
  LastError &last = lastError();
  last.code = code;
  try {
    last.text = text;
  } catch (const std::bad_alloc &) {
    last.text.clear();
  }
}

struct Registry {
  std::mutex lock;
  std::map<std::uint64_t, std::shared_ptr<PcscDevice>> readers;
  std::uint64_t next = kFirstReader;
};

// Never destroyed: threads of the program may still make calls while it ends.
Registry &registry() {
  static Registry &only = *new Registry;
  return only;
}

std::shared_ptr<PcscDevice> find(std::uint64_t device) {
  if (device < kFirstReader) return nullptr;
  Registry &all = registry();
  const std::lock_guard guard(all.lock);
  const auto found = all.readers.find(device);
  return found == all.readers.end() ? nullptr : found->second;
}

// Runs `work` and keeps its exceptions in: they become what `failed` makes of their code, and the error of this thread.
template <typename Work, typename Failed>
auto guarded(Work work, Failed failed) noexcept -> decltype(work()) {
  DeviceManagerCode code = DEVICE_MANAGER_NO_MEMORY;
  try {
    remember(DEVICE_MANAGER_OK, "");
    return work();
  } catch (const Failure &failure) {
    code = failure.code;
    remember(static_cast<std::uint16_t>(code), failure.what());
  } catch (const std::exception &) {
    remember(static_cast<std::uint16_t>(code), deviceManagerCodeText(static_cast<std::uint16_t>(code)));
  }
  return failed(code);
}

template <typename Work>
int succeeds(Work work) noexcept {
  return guarded(
      [&] {
        work();
        return 0;
      },
      [](DeviceManagerCode) { return -1; });
}

std::string defaultStore() {
  std::string path(simulatorDefaultStore(nullptr, 0), '\0');
  simulatorDefaultStore(path.data(), path.size() + 1);
  return path;
}

bool exists(const std::string &path) {
  struct stat about;
  return stat(path.c_str(), &about) == 0;
}

DeviceManagerCode codeOf(SimulatorFailure failure) {
  switch (failure) {
    case SIMULATOR_NO_STORE:
      return DEVICE_MANAGER_STORE_MISSING;
    case SIMULATOR_NO_MEMORY:
      return DEVICE_MANAGER_NO_MEMORY;
    case SIMULATOR_STORE_BUSY:
      return DEVICE_MANAGER_BUSY;
    default:
      return DEVICE_MANAGER_STORE_UNUSABLE;
  }
}

std::uint64_t openReader(std::string_view wanted) {
  auto device = std::make_shared<PcscDevice>(wanted);
  Registry &all = registry();
  const std::lock_guard guard(all.lock);
  all.readers.emplace(all.next, std::move(device));
  return all.next++;
}

std::uint64_t openSimulated(std::string_view path) {
  const std::string store = path.empty() ? defaultStore() : std::string(path);
  const std::uint64_t device = simulatorOpen(store.c_str());
  if (device != 0) return device;
  throw Failure(codeOf(simulatorFailure()), simulatorError());
}

std::uint64_t openAddress(std::string_view address) {
  if (address.starts_with(kReaderScheme)) return openReader(address.substr(kReaderScheme.size()));
  if (address.starts_with(kSimulatedScheme)) return openSimulated(address.substr(kSimulatedScheme.size()));
  if (address.empty()) throw Failure(DEVICE_MANAGER_BAD_ADDRESS, "the address of the token is empty");
  if (address.starts_with(kHandleScheme)) {
    throw Failure(DEVICE_MANAGER_BAD_ADDRESS,
                  "a handle comes from the device manager of the token's maker; this one opens pcsc: and sim:");
  }
  return openSimulated(address);
}

// False when the visitor has seen enough.
bool visitReader(const Reader &reader, DeviceManagerVisitor visit, void *context) {
  const std::string address = std::string(kReaderScheme) + reader.name;
  const DeviceManagerToken token = {address.c_str(),
                                    reader.cardPresent ? "reader, card present" : "reader, no card",
                                    DEVICE_MANAGER_READER,
                                    reader.cardPresent ? 1 : 0,
                                    reader.atr.empty() ? nullptr : reader.atr.data(),
                                    reader.atr.size()};
  return visit(context, &token) == 0;
}

void visitDefaultStore(DeviceManagerVisitor visit, void *context) {
  const std::string store = defaultStore();
  if (!exists(store)) return;
  const std::string address = std::string(kSimulatedScheme) + store;
  const DeviceManagerToken token = {address.c_str(), "simulated token", DEVICE_MANAGER_SIMULATED, 1, nullptr, 0};
  visit(context, &token);
}

}  // namespace
}  // namespace kelm::devices

using namespace kelm::devices;

std::int32_t Icc_tsi_apiKelmDev(std::uint64_t device, std::uint64_t commandLength, const std::uint8_t *command,
                                std::uint64_t *answerLength, std::uint8_t *answer) {
  return guarded(
      [&]() -> std::int32_t {
        if (!answerLength) throw Failure(DEVICE_MANAGER_NO_DEVICE);
        const std::uint64_t capacity = answer ? *answerLength : 0;
        *answerLength = 0;
        if (!command) throw Failure(DEVICE_MANAGER_NO_DEVICE);
        if (const std::shared_ptr<PcscDevice> reader = find(device)) {
          std::uint64_t length = 0;
          const std::uint16_t status = reader->exchange({command, commandLength}, {answer, capacity}, length);
          *answerLength = length;
          return status;
        }
        // What is longer than any short command is cut to a length that is still wrong.
        const std::uint64_t sent = std::min<std::uint64_t>(commandLength, kLongestCommand + 1);
        const std::int32_t status = exchangeSimulated(device, {command, sent}, capacity, answerLength, answer);
        if (const char *text = deviceManagerCodeText(static_cast<std::uint16_t>(status)))
          remember(static_cast<std::uint16_t>(status), text);
        return status;
      },
      [](DeviceManagerCode code) { return static_cast<std::int32_t>(code); });
}

const char *deviceManagerCodeText(std::uint16_t code) {
  for (const CodeText &entry : kCodeTexts) {
    if (entry.code == code) return entry.text;
  }
  return nullptr;
}

std::uint16_t deviceManagerErrorCode(void) { return lastError().code; }

const char *deviceManagerError(void) { return lastError().text.c_str(); }

int deviceManagerList(DeviceManagerVisitor visit, void *context) {
  return succeeds([&] {
    if (!visit) return;
    std::vector<Reader> readers;
    std::unique_ptr<Failure> failure;
    try {
      readers = listReaders();
    } catch (const Failure &caught) {
      failure = std::make_unique<Failure>(caught);
    }
    bool more = true;
    for (std::size_t i = 0; i < readers.size() && more; ++i) more = visitReader(readers[i], visit, context);
    if (more) visitDefaultStore(visit, context);
    if (failure) throw *failure;
  });
}

std::uint64_t deviceManagerOpen(const char *address) {
  return guarded([&] { return openAddress(address ? address : ""); },
                 [](DeviceManagerCode) -> std::uint64_t { return 0; });
}

void deviceManagerClose(std::uint64_t device) {
  succeeds([&] {
    std::shared_ptr<PcscDevice> closed;
    if (device < kFirstReader) return simulatorClose(device);
    Registry &all = registry();
    const std::lock_guard guard(all.lock);
    const auto found = all.readers.find(device);
    if (found == all.readers.end()) return;
    closed = std::move(found->second);
    all.readers.erase(found);
  });
}

int deviceManagerBegin(std::uint64_t device) {
  return succeeds([&] {
    const std::shared_ptr<PcscDevice> reader = find(device);
    if (reader) return reader->begin();
    beginStretchSimulated(device);
  });
}

int deviceManagerEnd(std::uint64_t device) {
  return succeeds([&] {
    const std::shared_ptr<PcscDevice> reader = find(device);
    if (reader) return reader->end();
    endStretchSimulated(device);
  });
}
