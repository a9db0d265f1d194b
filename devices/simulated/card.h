// SPDX-License-Identifier: Apache-2.0
// The simulated token's commands: what each does to its memory and what it answers.
#ifndef KELMTROVA_TOKEN_CARD_H
#define KELMTROVA_TOKEN_CARD_H

#include <array>
#include <cstdint>
#include <optional>

#include "devices/simulated/store.h"

namespace kelm::devices {

// What stands for the features of a finger: its length and a digest of its bytes. A finger without bytes has none.
struct Features {
  std::uint64_t length = 0;
  std::array<std::uint8_t, 16> digest{};
  bool operator==(const Features &) const = default;
};

Features featuresOf(ByteView finger);

struct Reply {
  std::uint16_t status = 0x9000;
  Bytes data = {};
};

// What the token forgets when it loses power.
struct PowerSession {
  std::optional<std::uint16_t> selected;
  std::optional<Features> captured;
  std::array<std::optional<Features>, 3> buffers;
  // The buffers filled since the last enrollment or match: they belong together.
  std::array<bool, 3> fresh{};
  std::optional<Features> live;
  bool fingerCached = false;
  bool pinVerified = false;
  // An answer that waits for GET RESPONSE.
  std::optional<Reply> pending;
};

// Carries out one command as one transaction. When the memory fails, the answer is 0x6581 and nothing has changed.
Reply answerCommand(Store &store, PowerSession &session, const std::optional<Features> &finger, ByteView command);

}  // namespace kelm::devices

#endif
