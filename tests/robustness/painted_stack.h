// SPDX-License-Identifier: Apache-2.0
// Calls on a stack that was painted before: how deep they reach, and what they leave there.
#ifndef KELMTROVA_TESTS_ROBUSTNESS_PAINTED_STACK_H
#define KELMTROVA_TESTS_ROBUSTNESS_PAINTED_STACK_H

#include <cstddef>
#include <cstdint>
#include <functional>

namespace kelm::test {

struct StackUse {
  std::size_t bytes = 0;     // below the frame that made the call
  bool holdsSecret = false;  // see allocation.h
};

// Makes the call in a thread whose stack is full of `paint`. The call is made once before, so that the loader has done
// its work and left nothing of it behind.
StackUse callOnPaintedStack(const std::function<void()> &call, std::uint8_t paint);

}  // namespace kelm::test

#endif
