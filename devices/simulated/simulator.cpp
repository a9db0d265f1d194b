// SPDX-License-Identifier: Apache-2.0
// The open simulated tokens: their control from outside and their exchanges.
#include "kelmtrova/simulator.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devices/failure.h"
#include "devices/simulated/card.h"
#include "devices/simulated/exchange.h"
#include "devices/simulated/failure.h"
#include "devices/simulated/store_file.h"
#include "devices/simulated/stretch.h"
#include "kelmtrova/device_manager.h"

namespace kelm::devices {
namespace {

constexpr std::size_t kLongestAnswer = 256;
constexpr std::uint8_t kBlockBit = 0x04;

constexpr std::uint8_t kDefaultTries = 5;
// The first counter value whose file is none of the token's own, nor is any that follows but the master file.
constexpr std::uint16_t kFirstSafeCounter = 0x002A;
constexpr std::string_view kDefaultPin = "1234";

// One opened token. The lock may be taken again by the thread that holds it, so that a trace can ask about its device.
struct Device {
  explicit Device(Store opened) : store(std::move(opened)) {}
  Device(Store opened, const std::string &path) : store(std::move(opened)), stretch(path) {}

  std::recursive_mutex lock;
  Store store;
  Stretch stretch;
  PowerSession session;
  bool powered = true;
  SimulatorFault fault{};
  std::uint32_t sinceFault = 0;
  std::uint64_t exchanges = 0;
  SimulatorTrace trace = nullptr;
  void *traceContext = nullptr;
};

struct OwnFile {
  std::uint16_t fid;
  SimulatorFileKind kind;
};

constexpr OwnFile kOwnFiles[] = {
    {kCounterFile, SIMULATOR_FILE_COUNTER}, {kBlockFile, SIMULATOR_FILE_BLOCK}, {kIndexFile, SIMULATOR_FILE_INDEX}};

struct Registry {
  std::mutex lock;
  std::map<std::uint64_t, std::shared_ptr<Device>> devices;
  // Numbers are never used again, so that a closed device's number names nothing.
  std::uint64_t next = kFirstSimulated;
};

// Never destroyed: threads of the program may still make calls while it ends.
Registry &registry() {
  static Registry &only = *new Registry;
  return only;
}

std::shared_ptr<Device> find(std::uint64_t device) {
  Registry &all = registry();
  const std::lock_guard guard(all.lock);
  const auto found = all.devices.find(device);
  return found == all.devices.end() ? nullptr : found->second;
}

std::uint64_t add(std::shared_ptr<Device> device) {
  Registry &all = registry();
  const std::lock_guard guard(all.lock);
  all.devices.emplace(all.next, std::move(device));
  return all.next++;
}

// Runs `work` and keeps its exceptions in: they become `failure` and what simulatorFailure and simulatorError say.
template <typename Result, typename Work>
Result guarded(Result failure, Work work) noexcept {
  try {
    return work();
  } catch (const std::exception &error) {
    rememberFailure(error);
    return failure;
  }
}

template <typename Work>
int withDevice(std::uint64_t number, Work work) noexcept {
  return guarded(-1, [&] {
    const std::shared_ptr<Device> device = find(number);
    if (!device) throw StoreError(SIMULATOR_NO_DEVICE, "no such device");
    const std::lock_guard guard(device->lock);
    return work(*device);
  });
}

// The same, as one transaction on the memory.
template <typename Work>
int withMemory(std::uint64_t number, Work work) noexcept {
  return withDevice(number, [&](Device &device) {
    Transaction transaction(device.store.database());
    const int result = work(device.store);
    transaction.commit();
    return result;
  });
}

void require(bool good, const char *otherwise, SimulatorFailure kind = SIMULATOR_BAD_ARGUMENT) {
  if (!good) throw StoreError(kind, otherwise);
}

void requirePin(std::string_view pin) {
  require(pin.size() >= kShortestPin && pin.size() <= kLongestPin, "a PIN has 4 to 16 characters");
}

Personalisation complete(const SimulatorPersonalisation *wanted) {
  require(wanted, "no personalisation given");
  const std::string pin(wanted->pin ? std::string_view(wanted->pin) : kDefaultPin);
  require(wanted->slots != 0, "a token needs 1 to 255 slots");
  require(wanted->maxTries <= kMostTries, "a token allows 1 to 15 tries");
  require(wanted->firstFidCounter <= kUsedUpCounter, "a FID counter begins at 1 to 2048");
  requirePin(pin);
  return {wanted->slots, wanted->firstFidCounter ? wanted->firstFidCounter : kFirstSafeCounter,
          wanted->maxTries ? wanted->maxTries : kDefaultTries, pin};
}

std::string homeFolder() {
  const char *home = std::getenv("HOME");
  if (home && *home) return home;
  passwd entry{};
  passwd *found = nullptr;
  std::array<char, 4096> text;
  return getpwuid_r(getuid(), &entry, text.data(), text.size(), &found) == 0 && found ? entry.pw_dir : "";
}

std::string defaultStore() {
  // A relative path in the variable is to be ignored.
  const char *data = std::getenv("XDG_DATA_HOME");
  const std::string folder = data && *data == '/' ? data : homeFolder() + "/.local/share";
  return folder + "/kelmtrova/token.db";
}

template <typename Value>
int copyOut(const std::vector<Value> &from, Value *to, std::size_t capacity) {
  if (to) std::copy_n(from.begin(), std::min(capacity, from.size()), to);
  return static_cast<int>(from.size());
}

void cutPower(Device &device) {
  device.powered = false;
  device.session = {};
}

// What an exchange brings: the token's answer and, when a fault makes it lie, the length it claims.
struct Outcome {
  Reply reply;
  std::optional<std::uint64_t> claimed = {};
};

// The token's work and answer, bent by the fault that hits the exchange.
Outcome perform(Device &device, ByteView command) {
  const SimulatorFault &fault = device.fault;
  const bool hit = fault.exchange == 0 || fault.exchange == device.sinceFault;
  const SimulatorFaultKind kind = hit ? fault.kind : SIMULATOR_FAULT_NONE;
  if (kind == SIMULATOR_FAULT_POWER_BEFORE) cutPower(device);
  if (!device.powered || kind == SIMULATOR_FAULT_STATUS) return {{fault.status}};
  Reply reply = answerCommand(device.store, device.session, command);
  switch (kind) {
    case SIMULATOR_FAULT_POWER_AFTER:
      cutPower(device);
      return {{fault.status}};
    case SIMULATOR_FAULT_STATUS_AFTER:
      return {{fault.status}};
    case SIMULATOR_FAULT_MORE_DATA: {
      const auto waiting = static_cast<std::uint16_t>(0x6100 | (reply.data.size() & 0xFF));
      device.session.pending = std::move(reply);
      return {{waiting}};
    }
    case SIMULATOR_FAULT_TOO_MUCH:
      reply.data.resize(kLongestAnswer, 0xA5);
      return {{KELM_SW_SUCCESS, std::move(reply.data)}, fault.claimed};
    default:
      return {std::move(reply)};
  }
}

std::int32_t exchange(Device &device, ByteView command, std::uint64_t capacity, std::uint64_t *answerLength,
                      std::uint8_t *answer) {
  const std::lock_guard guard(device.lock);
  const Stretch::Turn turn(device.stretch);
  ++device.exchanges;
  ++device.sinceFault;
  if (device.trace) device.trace(device.traceContext, command.data(), command.size(), nullptr, 0, -1);
  auto [reply, claimed] = perform(device, command);
  if (claimed) reply.data.resize(std::min<std::uint64_t>(capacity, reply.data.size()));
  if (reply.data.size() > capacity) reply = {DEVICE_MANAGER_ANSWER_TOO_LONG};
  std::copy(reply.data.begin(), reply.data.end(), answer);
  *answerLength = claimed.value_or(reply.data.size());
  if (device.trace) {
    device.trace(device.traceContext, command.data(), command.size(), answer, reply.data.size(), reply.status);
  }
  return reply.status;
}

}  // namespace

bool isSimulated(std::uint64_t device) { return find(device) != nullptr; }

void resetSimulated(std::uint64_t device) {
  if (const std::shared_ptr<Device> found = find(device)) {
    const std::lock_guard guard(found->lock);
    found->session = {};
    found->powered = true;
  }
}

std::int32_t exchangeSimulated(std::uint64_t device, ByteView command, std::uint64_t capacity,
                               std::uint64_t *answerLength, std::uint8_t *answer) noexcept {
  return guarded<std::int32_t>(DEVICE_MANAGER_NO_MEMORY, [&]() -> std::int32_t {
    const std::shared_ptr<Device> found = find(device);
    if (!found) return DEVICE_MANAGER_NO_DEVICE;
    try {
      return exchange(*found, command, capacity, answerLength, answer);
    } catch (const Failure &failure) {
      return failure.code;
    }
  });
}

void beginStretchSimulated(std::uint64_t device) {
  const std::shared_ptr<Device> found = find(device);
  if (!found) throw Failure(DEVICE_MANAGER_NO_DEVICE);
  const std::lock_guard guard(found->lock);
  found->stretch.begin();
}

void endStretchSimulated(std::uint64_t device) {
  const std::shared_ptr<Device> found = find(device);
  if (!found) throw Failure(DEVICE_MANAGER_NO_DEVICE);
  const std::lock_guard guard(found->lock);
  found->stretch.end();
}

}  // namespace kelm::devices

using namespace kelm::devices;

int simulatorCreate(const char *store, const SimulatorPersonalisation *personalisation) {
  return guarded(-1, [&] {
    require(store && *store, "no place given for the store");
    createStore(store, complete(personalisation));
    return 0;
  });
}

std::uint64_t simulatorOpen(const char *store) {
  return guarded<std::uint64_t>(0, [&] {
    require(store && *store, "no place given for the store");
    return add(std::make_shared<Device>(Store(store), store));
  });
}

std::uint64_t simulatorOpenInMemory(const SimulatorPersonalisation *personalisation) {
  return guarded<std::uint64_t>(
      0, [&] { return add(std::make_shared<Device>(Store::inMemory(complete(personalisation)))); });
}

void simulatorClose(std::uint64_t device) {
  std::shared_ptr<Device> closed;
  Registry &all = registry();
  const std::lock_guard guard(all.lock);
  const auto found = all.devices.find(device);
  if (found == all.devices.end()) return;
  closed = std::move(found->second);
  all.devices.erase(found);
}

std::size_t simulatorDefaultStore(char *path, std::size_t capacity) {
  return guarded<std::size_t>(0, [&] {
    const std::string store = defaultStore();
    if (path && capacity) {
      const std::size_t length = std::min(capacity - 1, store.size());
      path[store.copy(path, length)] = '\0';
    }
    return store.size();
  });
}

int simulatorExport(std::uint64_t device, const char *file) {
  return withDevice(device, [&](Device &opened) {
    require(file && *file, "no place given for the exported token");
    exportStore(opened.store, file);
    return 0;
  });
}

int simulatorImport(const char *file, const char *store) {
  return guarded(-1, [&] {
    require(file && *file, "no exported token given");
    require(store && *store, "no place given for the store");
    importStore(file, store);
    return 0;
  });
}

int simulatorPlaceFinger(std::uint64_t device, const void *finger, size_t length) {
  return withMemory(device, [&](Store &store) {
    require(finger || length == 0, "no finger given");
    store.setFinger(featuresOf({static_cast<const std::uint8_t *>(finger), length}));
    return 0;
  });
}

int simulatorRemoveFinger(std::uint64_t device) {
  return withMemory(device, [](Store &store) {
    store.setFinger(std::nullopt);
    return 0;
  });
}

int simulatorGetState(std::uint64_t device, SimulatorState *state) {
  return withDevice(device, [&](Device &opened) {
    require(state, "no place given for the state");
    Store &store = opened.store;
    const Transaction reading(store.database());
    const auto number = [&](std::string_view name) { return static_cast<std::uint8_t>(store.parameter(name)); };
    const Bytes block = store.ownFile(kBlockFile);
    *state = {.fidCounter = counterIn(store.ownFile(kCounterFile)),
              .slots = number(kSlots),
              .maxTries = number(kMaxTries),
              .triesLeft = number(kTriesLeft),
              .blockRecorded = (block.at(kBlockRecordOffset + 2) & kBlockBit) != 0,
              .pinRequired = number(kPinRequired),
              .pinVerified = opened.session.pinVerified,
              .maxPinTries = kMaxPinTries,
              .pinTriesLeft = number(kPinTriesLeft),
              .fingerLies = store.finger().has_value(),
              .readOnly = store.database().readOnly()};
    return 0;
  });
}

int simulatorChangePin(std::uint64_t device, const char *oldPin, const char *newPin) {
  return withDevice(device, [&](Device &opened) {
    require(oldPin && newPin, "a PIN is missing");
    requirePin(newPin);
    const std::string_view old(oldPin);
    Transaction transaction(opened.store.database());
    const PinVerdict verdict =
        comparePin(opened.store, transaction, {reinterpret_cast<const std::uint8_t *>(old.data()), old.size()});
    require(verdict != PinVerdict::kBlocked, "the PIN is blocked", SIMULATOR_PIN_BLOCKED);
    require(verdict == PinVerdict::kRight, "the PIN is wrong", SIMULATOR_PIN_WRONG);
    opened.store.setPin(newPin);
    transaction.commit();
    return 0;
  });
}

int simulatorRequirePin(std::uint64_t device, int required) {
  return withMemory(device, [&](Store &store) {
    store.setParameter(kPinRequired, required ? 1 : 0);
    return 0;
  });
}

int simulatorUnblock(std::uint64_t device) {
  return withMemory(device, [](Store &store) {
    store.setParameter(kTriesLeft, store.parameter(kMaxTries));
    store.setParameter(kPinTriesLeft, kMaxPinTries);
    Bytes record = store.ownFile(kBlockFile);
    record.at(kBlockRecordOffset + 2) &= static_cast<std::uint8_t>(~kBlockBit);
    store.writeFile(kBlockFile, record);
    return 0;
  });
}

int simulatorSetFault(std::uint64_t device, const SimulatorFault *fault) {
  return withDevice(device, [&](Device &opened) {
    opened.fault = fault ? *fault : SimulatorFault{};
    opened.sinceFault = 0;
    opened.powered = true;
    return 0;
  });
}

std::uint64_t simulatorExchanges(std::uint64_t device) {
  std::uint64_t exchanges = 0;
  withDevice(device, [&](Device &opened) {
    exchanges = opened.exchanges;
    return 0;
  });
  return exchanges;
}

int simulatorSetTrace(std::uint64_t device, SimulatorTrace trace, void *context) {
  return withDevice(device, [&](Device &opened) {
    opened.trace = trace;
    opened.traceContext = context;
    return 0;
  });
}

int simulatorListFiles(std::uint64_t device, std::uint16_t *fids, size_t capacity) {
  return withMemory(device, [&](Store &store) {
    std::vector<std::uint16_t> found;
    for (const File &file : store.files()) found.push_back(file.fid);
    return copyOut(found, fids, capacity);
  });
}

int simulatorGetFiles(std::uint64_t device, SimulatorFile *files, size_t capacity) {
  return withMemory(device, [&](Store &store) {
    std::vector<SimulatorFile> found;
    for (const File &file : store.files()) {
      const auto own = std::ranges::find(kOwnFiles, file.fid, &OwnFile::fid);
      const SimulatorFileKind kind = own != std::end(kOwnFiles)       ? own->kind
                                     : file.type == kTemplateFileType ? SIMULATOR_FILE_TEMPLATE
                                                                      : SIMULATOR_FILE_OTHER;
      found.push_back({file.fid, static_cast<std::uint16_t>(file.content.size()), static_cast<std::uint8_t>(kind),
                       isTemplate(file.content)});
    }
    return copyOut(found, files, capacity);
  });
}

int simulatorReadFile(std::uint64_t device, std::uint16_t fid, std::uint8_t *bytes, std::size_t capacity) {
  return withMemory(device, [&](Store &store) {
    const std::optional<Bytes> content = store.readFile(fid);
    require(content.has_value(), "no such file", SIMULATOR_NO_FILE);
    return copyOut(*content, bytes, capacity);
  });
}

int simulatorWriteFile(std::uint64_t device, std::uint16_t fid, const std::uint8_t *bytes, std::size_t length) {
  return withMemory(device, [&](Store &store) {
    require(bytes && length != 0, "nothing to write");
    const ByteView written(bytes, length);
    std::optional<Bytes> content = store.readFile(fid);
    if (!content) {
      require(length <= kLargestFile && fid != 0 && fid != 0xFFFF && fid != kMasterFile, "no such file can be made");
      require(store.totalSize() + length <= kFileMemory, "no room for such a file");
      store.createFile(fid, kPlainFileType, written);
      return 0;
    }
    require(length <= content->size(), "longer than the file");
    std::copy(written.begin(), written.end(), content->begin());
    require(fid != kCounterFile || isGoodCounter(*content), "a FID counter lies within 1 and 2048");
    store.writeFile(fid, *content);
    return 0;
  });
}

int simulatorGetImage(std::uint64_t device, std::uint32_t *lineLength, std::uint32_t *lines, std::uint8_t *pixels,
                      std::size_t capacity) {
  return withMemory(device, [&](Store &store) {
    const Image image = store.image();
    if (lineLength) *lineLength = image.lineLength;
    if (lines) *lines = image.lines;
    return copyOut(image.pixels, pixels, capacity);
  });
}
