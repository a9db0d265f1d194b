// SPDX-License-Identifier: Apache-2.0
// The way from the device manager's entry to an open simulated token.
#ifndef KELMTROVA_DEVICES_SIMULATED_EXCHANGE_H
#define KELMTROVA_DEVICES_SIMULATED_EXCHANGE_H

#include <cstdint>
#include <span>

namespace kelm::devices {

// Numbers of simulated tokens begin here and count up; a number is never used again.
constexpr std::uint64_t kFirstSimulated = 0x4B450001;

// Whether the number names an open simulated token.
bool isSimulated(std::uint64_t device);

// One command and its answer: at most `capacity` bytes go to `answer`, their number to `*answerLength` (more than
// `capacity` when a fault makes the token lie). The status word, or a DeviceManagerCode.
std::int32_t exchangeSimulated(std::uint64_t device, std::span<const std::uint8_t> command, std::uint64_t capacity,
                               std::uint64_t *answerLength, std::uint8_t *answer) noexcept;

// An exclusive stretch on the token begins and ends. They throw a Failure of devices/failure.h.
void beginStretchSimulated(std::uint64_t device);
void endStretchSimulated(std::uint64_t device);

// The power goes and comes back, also what a fault cut: the token forgets its session.
void resetSimulated(std::uint64_t device);

}  // namespace kelm::devices

#endif
