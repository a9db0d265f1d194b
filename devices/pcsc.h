// SPDX-License-Identifier: Apache-2.0
// Tokens in readers of PC/SC. Every call returns after a bounded time; what fails is thrown as a Failure.
#ifndef KELMTROVA_DEVICES_PCSC_H
#define KELMTROVA_DEVICES_PCSC_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "devices/worker.h"
#include "kelmtrova/device_manager.h"

namespace kelm::devices {

struct Reader {
  std::string name;
  bool cardPresent = false;
  std::vector<std::uint8_t> atr;
};

std::vector<Reader> listReaders();

// The reader that a name, a part of one or a number means.
const Reader &chooseReader(const std::vector<Reader> &readers, std::string_view wanted);

// What the worker's thread has to do with PC/SC (pcsc.cpp).
struct PcscSession;

// One opened token.
class PcscDevice {
 public:
  // Connects to the card in the reader that `wanted` means.
  explicit PcscDevice(std::string_view wanted);

  // The status word; the answer's data go to `room`, their number to `length`. Throws a Failure in place of a code of
  // the device manager.
  std::uint16_t exchange(std::span<const std::uint8_t> command, std::span<std::uint8_t> room, std::uint64_t &length);
  void begin();
  void end();

 private:
  // One call of this device after the other.
  std::mutex lock_;
  std::string reader_;
  Worker<PcscSession> worker_;
};

}  // namespace kelm::devices

#endif
