// SPDX-License-Identifier: Apache-2.0
// Exhausted memory on demand. The test program's malloc family (allocation.cpp) replaces the C library's for the whole
// process; it counts and fails allocations of the thread that asked for it.
#ifndef KELMTROVA_TESTS_SUPPORT_ALLOCATION_H
#define KELMTROVA_TESTS_SUPPORT_ALLOCATION_H

#include <cstddef>
#include <cstdint>

namespace kelm::test {

// What must not stay behind in memory is made of this byte.
constexpr std::uint8_t kSecret = 0xA7;
bool holdsSecret(const std::uint8_t *bytes, std::size_t count);

// While it lives, allocations of this thread are counted and the `failing`-th one (from 1; 0 = none) answers null.
class AllocationWatch {
 public:
  explicit AllocationWatch(std::uint64_t failing = 0);
  ~AllocationWatch();
  AllocationWatch(const AllocationWatch &) = delete;
  AllocationWatch &operator=(const AllocationWatch &) = delete;

  std::uint64_t allocations() const;  // asked for so far, the failed one included
  bool failed() const;                // whether the failing one was reached
  std::int64_t outstanding() const;   // blocks taken minus blocks released: 0 when nothing leaked
  bool secretReleased() const;        // whether a block still held a secret when it was released
};

// While it lives, nothing is counted and nothing fails: for what stands outside the library, such as a device manager.
class AllocationPause {
 public:
  AllocationPause();
  ~AllocationPause();
  AllocationPause(const AllocationPause &) = delete;
  AllocationPause &operator=(const AllocationPause &) = delete;

 private:
  bool watching_;
};

}  // namespace kelm::test

#endif
