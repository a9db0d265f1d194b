// SPDX-License-Identifier: Apache-2.0
#include "tests/robustness/painted_stack.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>

#include "tests/support/allocation.h"

// AddressSanitizer would keep the frames elsewhere, in order to find uses after the return, and the paint would stay.
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options() {
  return "detect_stack_use_after_return=0";
}

namespace kelm::test {

namespace {

struct Work {
  const std::function<void()> &call;
  const std::uint8_t *frame = nullptr;
};

void *perform(void *argument) {
  auto *const work = static_cast<Work *>(argument);
  work->frame = static_cast<const std::uint8_t *>(__builtin_frame_address(0));
  work->call();
  return nullptr;
}

}  // namespace

StackUse callOnPaintedStack(const std::function<void()> &call, std::uint8_t paint) {
  alignas(4096) static std::uint8_t stack[1 << 18];
  call();
  std::fill(std::begin(stack), std::end(stack), paint);
  Work work{call};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack, sizeof stack);
  pthread_t thread;
  EXPECT_EQ(pthread_create(&thread, &attributes, perform, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  const auto *const deepest =
      std::find_if(std::begin(stack), std::end(stack), [paint](std::uint8_t byte) { return byte != paint; });
  return {static_cast<std::size_t>(work.frame - deepest), holdsSecret(stack, sizeof stack)};
}

}  // namespace kelm::test
