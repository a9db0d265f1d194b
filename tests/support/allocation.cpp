// SPDX-License-Identifier: Apache-2.0
#include "tests/support/allocation.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

extern "C" {
void *REAL(malloc)(std::size_t);
void *REAL(calloc)(std::size_t, std::size_t);
void *REAL(realloc)(void *, std::size_t);
void REAL(free)(void *);
}

namespace {

struct State {
  bool watching;
  std::uint64_t count;
  std::uint64_t failing;
  std::int64_t outstanding;
  bool secretReleased;
};
thread_local State state;

bool refuse() {
  if (!state.watching) {
    return false;
  }
  if (++state.count == state.failing) {
    errno = ENOMEM;
    return true;
  }
  return false;
}

void *taken(void *block) {
  if (state.watching && block != nullptr) {
    ++state.outstanding;
  }
  return block;
}

}  // namespace

#pragma GCC visibility push(default)  // seen by the library

extern "C" {

void *malloc(std::size_t size) noexcept { return refuse() ? nullptr : taken(REAL(malloc)(size)); }

void *calloc(std::size_t count, std::size_t size) noexcept {
  return refuse() ? nullptr : taken(REAL(calloc)(count, size));
}

void *realloc(void *block, std::size_t size) noexcept {
  if (block == nullptr) {
    return malloc(size);
  }
  return refuse() ? nullptr : REAL(realloc)(block, size);
}

void free(void *block) noexcept {
  if (state.watching && block != nullptr) {
    --state.outstanding;
    state.secretReleased |= kelm::test::holdsSecret(static_cast<std::uint8_t *>(block), malloc_usable_size(block));
  }
  REAL(free)(block);
}
}

#pragma GCC visibility pop

namespace kelm::test {

// More than the few bytes by which a block may be larger than was asked for.
bool holdsSecret(const std::uint8_t *bytes, std::size_t count) {
  return std::search_n(bytes, bytes + count, 16, kSecret) != bytes + count;
}

AllocationWatch::AllocationWatch(std::uint64_t failing) { state = {true, 0, failing, 0, false}; }
AllocationWatch::~AllocationWatch() { state.watching = false; }
std::uint64_t AllocationWatch::allocations() const { return state.count; }
bool AllocationWatch::failed() const { return state.failing != 0 && state.count >= state.failing; }
std::int64_t AllocationWatch::outstanding() const { return state.outstanding; }
bool AllocationWatch::secretReleased() const { return state.secretReleased; }

AllocationPause::AllocationPause() : watching_(state.watching) { state.watching = false; }
AllocationPause::~AllocationPause() { state.watching = watching_; }

}  // namespace kelm::test
