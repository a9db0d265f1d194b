// SPDX-License-Identifier: Apache-2.0
// What the tests of the image functions share: random samples, calls with plain ints, comparison bit for bit.
#ifndef KELMTROVA_TESTS_SUPPORT_SAMPLES_H
#define KELMTROVA_TESTS_SUPPORT_SAMPLES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "tests/support/guarded.h"

namespace kelm::test {

using Bytes = std::vector<std::uint8_t>;

struct Freeing {
  void operator()(void *block) const { std::free(block); }
};
template <typename T>
using Owned = std::unique_ptr<T[], Freeing>;

struct Random {
  std::mt19937 bits;
  explicit Random(std::uint32_t seed) : bits(seed) {}
  std::uint32_t operator()() { return static_cast<std::uint32_t>(bits()); }
  int operator()(int n) { return static_cast<int>(bits() % static_cast<std::uint32_t>(n)); }  // 0 to n - 1
};

// Every sample from its place in the row and its row.
template <typename T = std::uint8_t>
std::vector<T> picture(int height, int width, auto &&sample) {
  std::vector<T> samples;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      samples.push_back(static_cast<T>(sample(x, y)));
    }
  }
  return samples;
}

inline Bytes noise(int height, int width, Random &random) {
  return picture(height, width, [&](int, int) { return random(256); });
}

// Calls a function with every argument converted to the type of its parameter.
template <typename Result, typename... Parameters, typename... Arguments>
Result call(Result (*function)(Parameters...), Arguments... arguments) {
  return function(static_cast<Parameters>(arguments)...);
}

template <typename T>
testing::AssertionResult same(const T *got, const std::vector<T> &expected) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (std::memcmp(&got[i], &expected[i], sizeof(T)) != 0) {
      return testing::AssertionFailure() << "sample " << i << " is " << +got[i] << ", expected " << +expected[i];
    }
  }
  return testing::AssertionSuccess();
}

inline Guard guardOf(int round) { return round % 2 == 0 ? Guard::kAfter : Guard::kBefore; }

}  // namespace kelm::test

#endif
