// SPDX-License-Identifier: Apache-2.0
// The simulated token's commands: what each does to its memory and what it answers.
#ifndef KELMTROVA_DEVICES_SIMULATED_CARD_H
#define KELMTROVA_DEVICES_SIMULATED_CARD_H

#include <array>
#include <cstdint>
#include <optional>

#include "devices/simulated/store.h"

namespace kelm::devices {

Features featuresOf(ByteView finger);

// Whether a finger was enrolled into a file with that content.
bool isTemplate(ByteView content);

struct Reply {
  std::uint16_t status = KELM_SW_SUCCESS;
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

// Carries out one command as one transaction; what counts a try does so in a transaction of its own before it looks at
// the PIN or the finger. When the memory fails, the answer is 0x6581, the failure is remembered for the thread, and
// nothing has changed but for such a try.
Reply answerCommand(Store &store, PowerSession &session, ByteView command);

enum class PinVerdict { kRight, kWrong, kBlocked };
// Compares with the PIN of the token, within `transaction`: counts the try, durably, and only then compares. The right
// PIN fills the tries again.
PinVerdict comparePin(Store &store, Transaction &transaction, ByteView pin);

}  // namespace kelm::devices

#endif
