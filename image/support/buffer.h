// SPDX-License-Identifier: Apache-2.0
// Memory of the C allocator with an owner: scratch memory that is released on every path, and results until they are
// handed over with release().
//
//   const Buffer<float> sums = allocate<float>(height * width);
//   if (!sums) {
//     return KELM_IMAGE_NO_MEMORY;
//   }
#ifndef KELMTROVA_IMAGE_SUPPORT_BUFFER_H
#define KELMTROVA_IMAGE_SUPPORT_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

namespace kelm::image {

struct Free {
  void operator()(void *memory) const { std::free(memory); }
};

template <typename T>
using Buffer = std::unique_ptr<T[], Free>;

// Uninitialised memory for `count` samples, at least one byte; null when there is none or the size overflows.
template <typename T>
Buffer<T> allocate(std::size_t count) {
  if (count > SIZE_MAX / sizeof(T)) {
    return nullptr;
  }
  const std::size_t bytes = count * sizeof(T);
  return Buffer<T>(static_cast<T *>(std::malloc(bytes == 0 ? 1 : bytes)));
}

// The same, filled with zeros.
template <typename T>
Buffer<T> allocateZeroed(std::size_t count) {
  return Buffer<T>(static_cast<T *>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

// A vector that begins at a multiple of this lies in one cache line; one that does not takes up to twice as long to
// load.
constexpr std::size_t kCacheLine = 64;

// Uninitialised scratch memory whose first sample begins a cache line.
template <typename T>
struct AlignedBuffer {
  Buffer<unsigned char> memory;
  T *samples;

  explicit operator bool() const { return memory != nullptr; }
};

// At least one sample.
template <typename T>
AlignedBuffer<T> allocateAligned(std::size_t count) {
  if (count > (SIZE_MAX - kCacheLine) / sizeof(T)) {
    return {};
  }
  Buffer<unsigned char> memory = allocate<unsigned char>(count * sizeof(T) + kCacheLine);
  const std::size_t past = reinterpret_cast<std::uintptr_t>(memory.get()) % kCacheLine;
  T *const samples = reinterpret_cast<T *>(memory.get() + (kCacheLine - past) % kCacheLine);
  return {std::move(memory), samples};
}

}  // namespace kelm::image

#endif
