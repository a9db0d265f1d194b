// SPDX-License-Identifier: Apache-2.0
#include "devices/pcsc.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <thread>

#include "devices/failure.h"
#include "devices/pcsc_library.h"

namespace kelm::devices {

using namespace std::chrono_literals;

namespace {

constexpr auto kServiceLimit = 5s;
constexpr auto kBusyLimit = 10s;
// A token's time-outs are single bytes; only taking a picture of a finger waits for people.
constexpr auto kCaptureLimit = 300s;
constexpr auto kCommandLimit = 60s;
// The service looks for the card twice or three times a second.
constexpr auto kRemovalLimit = 1s;
constexpr auto kPoll = 50ms;

constexpr int kMostAbandoned = 8;
constexpr std::size_t kLongestCommand = 5 + 255 + 1;
constexpr std::size_t kLongestAnswer = 256;
constexpr DWORD kProtocols = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;

struct Meaning {
  LONG result;
  DeviceManagerCode code;
};

// What a result of PC/SC means for a card that was there.
constexpr Meaning kMeanings[] = {
    {SCARD_E_NO_MEMORY, DEVICE_MANAGER_NO_MEMORY},
    {SCARD_E_NO_SERVICE, DEVICE_MANAGER_NO_SERVICE},
    {SCARD_E_SERVICE_STOPPED, DEVICE_MANAGER_NO_SERVICE},
    {SCARD_F_COMM_ERROR, DEVICE_MANAGER_NO_SERVICE},
    {SCARD_E_INVALID_HANDLE, DEVICE_MANAGER_NO_SERVICE},
    {SCARD_W_SECURITY_VIOLATION, DEVICE_MANAGER_NOT_ALLOWED},
    {SCARD_E_SHARING_VIOLATION, DEVICE_MANAGER_BUSY},
    {SCARD_E_NO_SMARTCARD, DEVICE_MANAGER_CARD_REMOVED},
    {SCARD_W_REMOVED_CARD, DEVICE_MANAGER_CARD_REMOVED},
    {SCARD_E_READER_UNAVAILABLE, DEVICE_MANAGER_CARD_REMOVED},
    {SCARD_E_UNKNOWN_READER, DEVICE_MANAGER_CARD_REMOVED},
    {SCARD_W_RESET_CARD, DEVICE_MANAGER_CARD_RESET},
    {SCARD_W_UNRESPONSIVE_CARD, DEVICE_MANAGER_CARD_MUTE},
    {SCARD_W_UNSUPPORTED_CARD, DEVICE_MANAGER_CARD_MUTE},
    {SCARD_W_UNPOWERED_CARD, DEVICE_MANAGER_CARD_MUTE},
    {SCARD_E_PROTO_MISMATCH, DEVICE_MANAGER_CARD_MUTE},
    {SCARD_E_INSUFFICIENT_BUFFER, DEVICE_MANAGER_ANSWER_TOO_LONG},
};

DeviceManagerCode codeOf(LONG result) {
  for (const Meaning &entry : kMeanings) {
    if (entry.result == result) return entry.code;
  }
  return DEVICE_MANAGER_NO_ANSWER;
}

// The same while a connection is being made.
DeviceManagerCode codeOfConnecting(LONG result) {
  switch (result) {
    case SCARD_E_NO_SMARTCARD:
    case SCARD_W_REMOVED_CARD:
      return DEVICE_MANAGER_NO_CARD;
    case SCARD_E_READER_UNAVAILABLE:
    case SCARD_E_UNKNOWN_READER:
      return DEVICE_MANAGER_NO_READER;
    case SCARD_E_NOT_TRANSACTED:
      return DEVICE_MANAGER_CARD_MUTE;
    default:
      return codeOf(result);
  }
}

// What takes the token away for good.
bool endsDevice(DeviceManagerCode code) {
  return code == DEVICE_MANAGER_CARD_REMOVED || code == DEVICE_MANAGER_NO_SERVICE;
}

std::string inWords(DeviceManagerCode code, const std::string &reader, LONG result = SCARD_S_SUCCESS) {
  std::string line = reader.empty() ? "" : "reader \"" + reader + "\": ";
  line += deviceManagerCodeText(static_cast<std::uint16_t>(code));
  if (code == DEVICE_MANAGER_NO_SERVICE) line += " (`systemctl start pcscd.socket` starts it)";
  if (result != SCARD_S_SUCCESS) {
    char digits[32];
    std::snprintf(digits, sizeof digits, " [PC/SC 0x%08lX]", static_cast<unsigned long>(result) & 0xFFFFFFFF);
    line += digits;
  }
  return line;
}

[[noreturn]] void fail(DeviceManagerCode code, const std::string &reader, LONG result = SCARD_S_SUCCESS) {
  throw Failure(code, inWords(code, reader, result));
}

std::string lower(std::string_view text) {
  std::string small(text);
  for (char &letter : small) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return small;
}

}  // namespace

// Used by the worker's thread only.
struct PcscSession {
  PcscSession() = default;
  PcscSession(const PcscSession &) = delete;
  PcscSession &operator=(const PcscSession &) = delete;
  ~PcscSession() {
    if (transaction) library->endTransaction(card, SCARD_LEAVE_CARD);
    if (connected) library->disconnect(card, SCARD_LEAVE_CARD);
    if (established) library->releaseContext(context);
  }

  LONG establish() {
    const LONG result = library->establishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context);
    established = result == SCARD_S_SUCCESS;
    return result;
  }

  // A reader that another program has to itself is asked until nobody waits any more.
  LONG connect(const std::string &reader, Wait &wait) {
    for (;;) {
      const LONG result = library->connect(context, reader.c_str(), SCARD_SHARE_SHARED, kProtocols, &card, &protocol);
      connected = result == SCARD_S_SUCCESS;
      if (result != SCARD_E_SHARING_VIOLATION || wait.givenUp()) return result;
      std::this_thread::sleep_for(kPoll);
    }
  }

  // Begins a transaction, and connects anew when another program has reset the card since.
  LONG lockCard() {
    constexpr int kAttempts = 5;
    LONG result = SCARD_S_SUCCESS;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      result = library->beginTransaction(card);
      transaction = result == SCARD_S_SUCCESS;
      if (result != SCARD_W_RESET_CARD && result != SCARD_W_UNPOWERED_CARD) break;
      selectionLost = true;
      result = library->reconnect(card, SCARD_SHARE_SHARED, kProtocols, SCARD_LEAVE_CARD, &protocol);
      if (result != SCARD_S_SUCCESS && result != SCARD_W_RESET_CARD) break;
    }
    return result;
  }

  void unlockCard() {
    if (transaction) library->endTransaction(card, SCARD_LEAVE_CARD);
    transaction = false;
  }

  // Whether the service has come to know, after a failed exchange, that the card is gone.
  bool cardIsGone(const std::string &reader) {
    SCARD_READERSTATE state{};
    state.szReader = reader.c_str();
    const Clock::time_point end = Clock::now() + kRemovalLimit;
    do {
      const LONG result = library->getStatusChange(context, 0, &state, 1);
      if (result != SCARD_S_SUCCESS && result != SCARD_E_TIMEOUT) return codeOf(result) == DEVICE_MANAGER_CARD_REMOVED;
      if (!(state.dwEventState & SCARD_STATE_PRESENT)) return true;
      std::this_thread::sleep_for(kPoll);
    } while (Clock::now() < end);
    return false;
  }

  const PcscLibrary *library = nullptr;
  SCARDCONTEXT context = 0;
  SCARDHANDLE card = 0;
  DWORD protocol = 0;
  bool established = false;
  bool connected = false;
  bool transaction = false;
  // The card was reset, and no file has been selected since.
  bool selectionLost = false;
  std::uint32_t stretch = 0;
  // What ended the token (for good) or the stretch (until its end).
  DeviceManagerCode lost = DEVICE_MANAGER_OK;
  DeviceManagerCode broken = DEVICE_MANAGER_OK;
};

namespace {

struct Listing {
  LONG result = SCARD_S_SUCCESS;
  std::vector<Reader> readers;
};

// The names, one after the other, each with a final zero, and another zero.
LONG readNames(PcscSession &session, std::vector<char> &names) {
  LONG result = SCARD_E_INSUFFICIENT_BUFFER;
  for (int attempt = 0; attempt < 3 && result == SCARD_E_INSUFFICIENT_BUFFER; ++attempt) {
    DWORD length = 0;
    result = session.library->listReaders(session.context, nullptr, nullptr, &length);
    if (result != SCARD_S_SUCCESS) break;
    names.assign(length + 2, '\0');
    result = session.library->listReaders(session.context, nullptr, names.data(), &length);
  }
  return result;
}

LONG readStates(PcscSession &session, std::vector<Reader> &readers) {
  std::vector<SCARD_READERSTATE> states(readers.size());
  for (std::size_t i = 0; i < readers.size(); ++i) states[i].szReader = readers[i].name.c_str();
  const LONG result = session.library->getStatusChange(session.context, 0, states.data(), states.size());
  // A reader that has gone meanwhile holds no card.
  if (result == SCARD_E_UNKNOWN_READER || result == SCARD_E_TIMEOUT) return SCARD_S_SUCCESS;
  for (std::size_t i = 0; i < readers.size(); ++i) {
    readers[i].cardPresent = (states[i].dwEventState & SCARD_STATE_PRESENT) != 0;
    const std::size_t length = std::min<std::size_t>(states[i].cbAtr, sizeof states[i].rgbAtr);
    if (readers[i].cardPresent) readers[i].atr.assign(states[i].rgbAtr, states[i].rgbAtr + length);
  }
  return result;
}

LONG listInto(PcscSession &session, std::vector<Reader> &readers) {
  std::vector<char> names;
  LONG result = session.establish();
  if (result == SCARD_S_SUCCESS) result = readNames(session, names);
  if (result == SCARD_E_NO_READERS_AVAILABLE) return SCARD_S_SUCCESS;
  if (result != SCARD_S_SUCCESS) return result;
  for (const char *name = names.data(); *name; name += std::strlen(name) + 1) readers.push_back({name, false, {}});
  return readers.empty() ? result : readStates(session, readers);
}

void refuseTooManyAbandoned() {
  if (Worker<PcscSession>::abandonedThreads() < kMostAbandoned) return;
  throw Failure(DEVICE_MANAGER_BUSY, "earlier attempts still wait for a reader that another program keeps to itself");
}

// Asks on `worker`, whose context is established then.
std::vector<Reader> listWith(Worker<PcscSession> &worker) {
  refuseTooManyAbandoned();
  const PcscLibrary &library = pcscLibrary();
  const auto listing = std::make_shared<Listing>();
  const bool inTime = worker.run(kServiceLimit, [listing, &library](PcscSession &session, Wait &) {
    session.library = &library;
    try {
      listing->result = listInto(session, listing->readers);
    } catch (const std::bad_alloc &) {
      listing->result = SCARD_E_NO_MEMORY;
    }
  });
  if (!inTime) throw Failure(DEVICE_MANAGER_NO_SERVICE, "the service pcscd does not answer");
  if (listing->result != SCARD_S_SUCCESS) fail(codeOfConnecting(listing->result), "", listing->result);
  return std::move(listing->readers);
}

// One exchange, shared by the caller and the worker's thread, which may outlast the caller.
struct Exchange {
  Exchange() = default;
  Exchange(const Exchange &) = delete;
  Exchange &operator=(const Exchange &) = delete;
  ~Exchange() {
    explicit_bzero(command.data(), command.size());
    explicit_bzero(answer.data(), answer.size());
  }

  std::vector<std::uint8_t> command;
  std::array<std::uint8_t, kLongestAnswer + 2 + 6> answer{};
  DWORD answerLength = 0;
  LONG result = SCARD_S_SUCCESS;
  DeviceManagerCode code = DEVICE_MANAGER_OK;
  std::atomic<bool> sent = false;
};

// Commands in numbers: winscard.h declares names of kelmtrova/token.h in its own way, so no file can include both.

constexpr std::size_t kHeader = 4;

bool isCapture(std::span<const std::uint8_t> command) {
  return command.size() > kHeader && command[0] == 0x80 && command[1] == 0xFA && command[2] == 0x00;
}

// READ, WRITE and UPDATE BINARY without a short file identifier.
bool needsSelectedFile(std::span<const std::uint8_t> command) {
  return command.size() >= kHeader && command[0] == 0x00 && (command[2] & 0x80) == 0 &&
         (command[1] == 0xB0 || command[1] == 0xD0 || command[1] == 0xD6);
}

bool selectsFile(std::span<const std::uint8_t> command) {
  return command.size() >= kHeader && (command[1] == 0xA4 || command[1] == 0xE0);
}

// T=0 wants a length byte in every command, and none for the answer when there are data.
void fitToT0(std::vector<std::uint8_t> &command) {
  if (command.size() == kHeader) command.push_back(0);
  if (command.size() > kHeader + 2 && command.size() == kHeader + 2U + command[kHeader]) command.pop_back();
}

void transmit(PcscSession &session, Exchange &exchange) {
  if (session.protocol == SCARD_PROTOCOL_T0) fitToT0(exchange.command);
  const SCARD_IO_REQUEST protocol = {session.protocol, sizeof protocol};
  exchange.answerLength = exchange.answer.size();
  exchange.result = session.library->transmit(session.card, &protocol, exchange.command.data(), exchange.command.size(),
                                              nullptr, exchange.answer.data(), &exchange.answerLength);
  if (exchange.result == SCARD_S_SUCCESS) {
    if (exchange.answerLength < 2) exchange.code = DEVICE_MANAGER_NO_ANSWER;
    if (exchange.answerLength > kLongestAnswer + 2) exchange.code = DEVICE_MANAGER_ANSWER_TOO_LONG;
  } else {
    exchange.code = codeOf(exchange.result);
  }
}

// Notes a failure that outlasts the exchange.
void remember(PcscSession &session, DeviceManagerCode code) {
  if (endsDevice(code)) session.lost = code;
  if (session.stretch > 0 && (endsDevice(code) || code == DEVICE_MANAGER_CARD_RESET)) session.broken = code;
}

void runExchange(PcscSession &session, Wait &wait, Exchange &exchange, const std::string &reader) {
  exchange.code = session.broken != DEVICE_MANAGER_OK ? session.broken : session.lost;
  if (exchange.code != DEVICE_MANAGER_OK) return;
  if (session.stretch == 0) {
    exchange.result = session.lockCard();
    if (exchange.result != SCARD_S_SUCCESS) {
      exchange.code = codeOf(exchange.result);
      remember(session, exchange.code);
      return;
    }
  }
  if (session.selectionLost && needsSelectedFile(exchange.command)) {
    exchange.code = DEVICE_MANAGER_CARD_RESET;
  } else if (wait.extend(isCapture(exchange.command) ? kCaptureLimit : kCommandLimit)) {
    exchange.sent = true;
    if (selectsFile(exchange.command)) session.selectionLost = false;
    transmit(session, exchange);
    if (exchange.code == DEVICE_MANAGER_NO_ANSWER && session.cardIsGone(reader))
      exchange.code = DEVICE_MANAGER_CARD_REMOVED;
    remember(session, exchange.code);
  }
  if (session.stretch == 0) session.unlockCard();
}

// Whether the service is alive while one of its calls does not return.
bool serviceAnswers() {
  try {
    Worker<PcscSession> worker;
    listWith(worker);
    return true;
  } catch (const Failure &failure) {
    return failure.code != DEVICE_MANAGER_NO_SERVICE;
  }
}

DeviceManagerCode whyOverdue() { return serviceAnswers() ? DEVICE_MANAGER_BUSY : DEVICE_MANAGER_NO_SERVICE; }

}  // namespace

std::vector<Reader> listReaders() {
  Worker<PcscSession> worker;
  return listWith(worker);
}

const Reader &chooseReader(const std::vector<Reader> &readers, std::string_view wanted) {
  for (const Reader &reader : readers) {
    if (reader.name == wanted) return reader;
  }
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), number);
  if (error == std::errc() && end == wanted.data() + wanted.size() && number < readers.size()) return readers[number];
  const Reader *found = nullptr;
  std::string several;
  for (const Reader &reader : readers) {
    if (lower(reader.name).find(lower(wanted)) == std::string::npos) continue;
    found = &reader;
    several += (several.empty() ? "" : ", ") + reader.name;
  }
  if (!found) {
    throw Failure(DEVICE_MANAGER_NO_READER,
                  readers.empty() ? "PC/SC has no reader" : "no reader is called \"" + std::string(wanted) + "\"");
  }
  if (several != found->name)
    throw Failure(DEVICE_MANAGER_SEVERAL_READERS, "\"" + std::string(wanted) + "\" fits several readers: " + several);
  return *found;
}

PcscDevice::PcscDevice(std::string_view wanted) {
  const std::vector<Reader> readers = listWith(worker_);
  const Reader &reader = chooseReader(readers, wanted);
  reader_ = reader.name;
  if (!reader.cardPresent) fail(DEVICE_MANAGER_NO_CARD, reader_);
  const auto result = std::make_shared<LONG>(SCARD_S_SUCCESS);
  const bool inTime = worker_.run(kBusyLimit, [result, name = reader_](PcscSession &session, Wait &wait) {
    *result = session.connect(name, wait);
  });
  if (!inTime) fail(whyOverdue(), reader_);
  if (*result != SCARD_S_SUCCESS) fail(codeOfConnecting(*result), reader_, *result);
}

std::uint16_t PcscDevice::exchange(std::span<const std::uint8_t> command, std::span<std::uint8_t> room,
                                   std::uint64_t &length) {
  if (command.size() > kLongestCommand) fail(DEVICE_MANAGER_COMMAND_TOO_LONG, reader_);
  const std::lock_guard guard(lock_);
  const auto work = std::make_shared<Exchange>();
  work->command.reserve(command.size() + 1);
  work->command.assign(command.begin(), command.end());
  const bool inTime = worker_.run(kBusyLimit, [work, name = reader_](PcscSession &session, Wait &wait) {
    runExchange(session, wait, *work, name);
  });
  if (!inTime) fail(work->sent ? DEVICE_MANAGER_NO_ANSWER : whyOverdue(), reader_);
  if (work->code != DEVICE_MANAGER_OK) fail(work->code, reader_, work->result);
  length = work->answerLength - 2;
  const std::uint8_t *status = work->answer.data() + length;
  if (length > room.size()) fail(DEVICE_MANAGER_ANSWER_TOO_LONG, reader_);
  std::copy_n(work->answer.data(), length, room.data());
  return static_cast<std::uint16_t>(status[0] << 8 | status[1]);
}

void PcscDevice::begin() {
  struct Outcome {
    LONG result = SCARD_S_SUCCESS;
    DeviceManagerCode code = DEVICE_MANAGER_OK;
  };
  const std::lock_guard guard(lock_);
  const auto outcome = std::make_shared<Outcome>();
  const bool inTime = worker_.run(kBusyLimit, [outcome](PcscSession &session, Wait &wait) {
    outcome->code = session.broken != DEVICE_MANAGER_OK ? session.broken : session.lost;
    if (outcome->code != DEVICE_MANAGER_OK) return;
    if (session.stretch == 0) {
      outcome->result = session.lockCard();
      if (outcome->result != SCARD_S_SUCCESS) {
        outcome->code = codeOf(outcome->result);
        remember(session, outcome->code);
        return;
      }
      if (!wait.extend(kServiceLimit)) return session.unlockCard();
    }
    ++session.stretch;
  });
  if (!inTime) fail(whyOverdue(), reader_);
  if (outcome->code != DEVICE_MANAGER_OK) fail(outcome->code, reader_, outcome->result);
}

void PcscDevice::end() {
  const std::lock_guard guard(lock_);
  const auto open = std::make_shared<bool>(false);
  const bool inTime = worker_.run(kServiceLimit, [open](PcscSession &session, Wait &) {
    *open = session.stretch > 0;
    if (!*open || --session.stretch > 0) return;
    session.unlockCard();
    session.broken = DEVICE_MANAGER_OK;
  });
  if (!inTime) fail(whyOverdue(), reader_);
  if (!*open) fail(DEVICE_MANAGER_NO_STRETCH, reader_);
}

}  // namespace kelm::devices
