// SPDX-License-Identifier: Apache-2.0
// The bytes of one fuzzing input, taken from the front; when they run out, zeros come.
#ifndef KELMTROVA_FUZZ_INPUT_H
#define KELMTROVA_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kelm::fuzz {

class Input {
 public:
  Input(const std::uint8_t *data, std::size_t size) : data_(data), left_(size) {}

  bool empty() const { return left_ == 0; }

  template <typename T>
  T take() {
    T value{};
    fill(&value, sizeof(value));
    return value;
  }

  std::uint8_t byte() { return take<std::uint8_t>(); }

  // Copies to `out`, repeating the last byte where the input ends.
  void fill(void *out, std::size_t size) {
    if (size == 0) {
      return;
    }
    const std::size_t taken = std::min(size, left_);
    auto *bytes = static_cast<std::uint8_t *>(out);
    if (taken > 0) {
      std::memcpy(bytes, data_, taken);
      data_ += taken;
      left_ -= taken;
    }
    std::memset(bytes + taken, taken > 0 ? bytes[taken - 1] : 0, size - taken);
  }

  // A buffer of exactly `count` samples on the heap, where the sanitizer sees every byte outside it.
  template <typename T>
  std::vector<T> samples(std::size_t count) {
    std::vector<T> values(count);
    fill(values.data(), count * sizeof(T));
    values.shrink_to_fit();
    return values;
  }

 private:
  const std::uint8_t *data_;
  std::size_t left_;
};

}  // namespace kelm::fuzz

#endif
