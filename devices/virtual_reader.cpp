// SPDX-License-Identifier: Apache-2.0
// A simulated token in a virtual reader of a PC/SC daemon: the card's end of the protocol of vsmartcard's vpcd. Each
// message is a length of two bytes, high first, and that many bytes: one byte is an order to the card, more are a
// command APDU. Only the order for the ATR and APDUs are answered.
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/simulated/exchange.h"
#include "devices/simulated/failure.h"
#include "kelmtrova/simulator.h"

namespace kelm::devices {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(5);
constexpr std::string_view kUsualHost = "127.0.0.1";
constexpr std::string_view kUsualPort = "35963";
constexpr std::size_t kLongestAnswer = 256;
constexpr std::int32_t kOwnCodes = 0xED00;
constexpr std::int32_t kNoDiagnosis = 0x6F00;

enum Order : std::uint8_t { kPowerOff = 0, kPowerOn = 1, kReset = 2, kTellAtr = 4 };

// T=1 only; historical bytes in compact TLV, the issuer's data naming the token; the check byte last.
constexpr auto kAtr = [] {
  std::array<std::uint8_t, 20> atr = {0x3B, 0x8F, 0x80, 0x01, 0x80, 0x5D, 'k', 'e', 'l', 'm',
                                      't',  'r',  'o',  'v',  'a',  ' ',  's', 'i', 'm'};
  for (std::size_t at = 1; at + 1 < atr.size(); ++at) atr.back() ^= atr[at];
  return atr;
}();

struct Address {
  std::string host;
  std::string port;
};

// HOST:PORT, [HOST]:PORT, HOST or :PORT.
Address addressOf(std::string_view text) {
  Address address{std::string(kUsualHost), std::string(kUsualPort)};
  const std::size_t bracket = text.starts_with('[') ? text.find(']') : std::string_view::npos;
  const std::size_t colon = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
  std::string_view host = text.substr(0, colon);
  if (bracket != std::string_view::npos && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  if (!host.empty()) address.host = host;
  if (colon != std::string_view::npos) address.port = text.substr(colon + 1);
  const bool number = !address.port.empty() && address.port.size() <= 5 &&
                      std::ranges::all_of(address.port, [](char digit) { return digit >= '0' && digit <= '9'; });
  const bool good = number && std::stoi(address.port) >= 1 && std::stoi(address.port) <= 0xFFFF;
  if (!good) throw StoreError(SIMULATOR_BAD_ARGUMENT, "the address of a virtual reader is HOST:PORT");
  return address;
}

// The connection to the reader. Every wait ends when `stop` says so.
class Reader {
 public:
  Reader(const std::string &name, int stop) : name_(name), stop_(stop) {}
  ~Reader() {
    if (socket_ >= 0) close(socket_);
  }
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  // These three answer false, or nothing, when the call is to end.
  bool connectTo(const Address &address);
  std::optional<std::vector<std::uint8_t>> receive();
  bool send(std::span<const std::uint8_t> message);

  [[noreturn]] void fail(SimulatorFailure kind, const std::string &what) const {
    throw StoreError(kind, "the virtual reader at " + name_ + " " + what);
  }

 private:
  // Waits for `events` at the connection: false when the call is to end. Without a deadline it waits for ever.
  bool wait(short events, const std::optional<Clock::time_point> &deadline);
  bool transfer(std::uint8_t *bytes, std::size_t count, bool sending, std::optional<Clock::time_point> deadline);
  void confirmAtOnce();
  bool tryAddress(const addrinfo &found, Clock::time_point deadline, int &error);

  std::string name_;
  int stop_;
  int socket_ = -1;
};

bool Reader::wait(short events, const std::optional<Clock::time_point> &deadline) {
  std::array<pollfd, 2> files = {{{socket_, events, 0}, {stop_, POLLIN, 0}}};
  for (;;) {
    int left = -1;
    if (deadline) {
      const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
      left = static_cast<int>(std::max<std::int64_t>(rest, 0));
    }
    const int ready = poll(files.data(), files.size(), left);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) throw systemFailure("the virtual reader at " + name_, errno);
    if (files[1].revents) return false;
    if (files[0].revents) return true;
    if (deadline && Clock::now() >= *deadline) fail(SIMULATOR_READER_GONE, "stopped answering");
  }
}

bool Reader::tryAddress(const addrinfo &found, Clock::time_point deadline, int &error) {
  if (socket_ >= 0) close(socket_);
  socket_ = socket(found.ai_family, found.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, found.ai_protocol);
  error = socket_ < 0 ? errno : 0;
  if (error) return true;
  if (connect(socket_, found.ai_addr, found.ai_addrlen) == 0) return true;
  error = errno;
  if (error != EINPROGRESS) return true;
  if (!wait(POLLOUT, deadline)) return false;
  socklen_t size = sizeof error;
  getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size);
  return true;
}

bool Reader::connectTo(const Address &address) {
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_STREAM;
  wanted.ai_flags = AI_NUMERICSERV;
  addrinfo *list = nullptr;
  const int result = getaddrinfo(address.host.c_str(), address.port.c_str(), &wanted, &list);
  if (result == EAI_MEMORY) throw std::bad_alloc();
  if (result != 0) fail(SIMULATOR_NO_READER, std::string("cannot be found: ") + gai_strerror(result));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
  const Clock::time_point deadline = Clock::now() + kPatience;
  int error = 0;
  for (const addrinfo *each = list; each; each = each->ai_next) {
    try {
      if (!tryAddress(*each, deadline, error)) return false;
    } catch (const StoreError &) {
      fail(SIMULATOR_NO_READER, "does not answer");
    }
    if (error == 0) break;
  }
  if (error) fail(SIMULATOR_NO_READER, std::string("cannot be reached: ") + std::strerror(error));
  // Messages are short and wait for each other.
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return true;
}

void Reader::confirmAtOnce() {
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

bool Reader::transfer(std::uint8_t *bytes, std::size_t count, bool sending, std::optional<Clock::time_point> deadline) {
  while (count != 0) {
    if (!wait(sending ? POLLOUT : POLLIN, deadline)) return false;
    // The reader sends a message in two pieces and waits until the receipt of the first is confirmed.
    if (!sending) confirmAtOnce();
    const ssize_t moved = sending ? ::send(socket_, bytes, count, MSG_NOSIGNAL) : recv(socket_, bytes, count, 0);
    if (moved < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (moved <= 0) fail(SIMULATOR_READER_GONE, "ended the connection");
    bytes += moved;
    count -= static_cast<std::size_t>(moved);
    // What has begun must come to its end.
    if (!deadline) deadline = Clock::now() + kPatience;
  }
  return true;
}

std::optional<std::vector<std::uint8_t>> Reader::receive() {
  std::array<std::uint8_t, 2> length;
  if (!wait(POLLIN, std::nullopt)) return std::nullopt;
  const Clock::time_point deadline = Clock::now() + kPatience;
  if (!transfer(length.data(), length.size(), false, deadline)) return std::nullopt;
  std::vector<std::uint8_t> message(static_cast<std::size_t>(length[0] << 8 | length[1]));
  if (message.empty()) fail(SIMULATOR_READER_NONSENSE, "sent an empty message");
  if (!transfer(message.data(), message.size(), false, deadline)) return std::nullopt;
  return message;
}

bool Reader::send(std::span<const std::uint8_t> message) {
  std::vector<std::uint8_t> bytes = {static_cast<std::uint8_t>(message.size() >> 8),
                                     static_cast<std::uint8_t>(message.size() & 0xFF)};
  bytes.insert(bytes.end(), message.begin(), message.end());
  return transfer(bytes.data(), bytes.size(), true, Clock::now() + kPatience);
}

// The answer to an APDU: data and status word.
std::vector<std::uint8_t> answerTo(std::uint64_t device, std::span<const std::uint8_t> command) {
  std::vector<std::uint8_t> answer(kLongestAnswer);
  std::uint64_t length = 0;
  std::int32_t status = exchangeSimulated(device, command, answer.size(), &length, answer.data());
  // A card has no words for what keeps the device manager from asking it.
  if ((status & 0xFF00) == kOwnCodes) status = kNoDiagnosis;
  answer.resize(std::min<std::uint64_t>(length, answer.size()));
  answer.push_back(static_cast<std::uint8_t>(status >> 8));
  answer.push_back(static_cast<std::uint8_t>(status));
  return answer;
}

// Until the call is to end.
void serve(Reader &reader, std::uint64_t device) {
  while (const auto message = reader.receive()) {
    if (!isSimulated(device)) throw StoreError(SIMULATOR_NO_DEVICE, "the device in the virtual reader was closed");
    if (message->size() > 1) {
      if (!reader.send(answerTo(device, *message))) return;
      continue;
    }
    switch (message->front()) {
      case kPowerOff:
      case kPowerOn:
      case kReset:
        resetSimulated(device);
        break;
      case kTellAtr:
        if (!reader.send(kAtr)) return;
        break;
      default:
        reader.fail(SIMULATOR_READER_NONSENSE,
                    "gave order " + std::to_string(message->front()) + ", which its protocol does not know");
    }
  }
}

}  // namespace
}  // namespace kelm::devices

using namespace kelm::devices;

int simulatorServe(std::uint64_t device, const char *reader, int stop, void (*ready)(void *context), void *context) {
  try {
    if (!isSimulated(device)) throw StoreError(SIMULATOR_NO_DEVICE, "no such device");
    const Address address = addressOf(reader ? reader : "");
    Reader connection(address.host + ":" + address.port, stop);
    if (!connection.connectTo(address)) return 0;
    if (ready) ready(context);
    serve(connection, device);
    return 0;
  } catch (const std::exception &error) {
    rememberFailure(error);
    return -1;
  }
}
