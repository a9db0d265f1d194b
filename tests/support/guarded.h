// SPDX-License-Identifier: Apache-2.0
// Memory between two pages that cannot be touched: a read or write one byte outside ends the test.
#ifndef KELMTROVA_TESTS_SUPPORT_GUARDED_H
#define KELMTROVA_TESTS_SUPPORT_GUARDED_H

#include <cstddef>
#include <cstring>
#include <span>

namespace kelm::test {

enum class Guard { kBefore, kAfter };  // which end of the memory lies hard against its guard page

class GuardedBytes {
 public:
  explicit GuardedBytes(std::size_t size, Guard guard = Guard::kAfter);
  ~GuardedBytes();
  GuardedBytes(const GuardedBytes &) = delete;
  GuardedBytes &operator=(const GuardedBytes &) = delete;
  void *data() const { return data_; }

 private:
  void *mapping_;
  std::size_t mappingSize_;
  void *data_;
};

// `count` samples of type T with guard pages around them; the samples start as `source` when it is given.
template <typename T>
class Guarded {
 public:
  explicit Guarded(std::size_t count, Guard guard = Guard::kAfter) : bytes_(count * sizeof(T), guard), count_(count) {}
  explicit Guarded(std::span<const T> source, Guard guard = Guard::kAfter) : Guarded(source.size(), guard) {
    if (!source.empty()) {
      std::memcpy(data(), source.data(), source.size_bytes());
    }
  }
  T *data() const { return static_cast<T *>(bytes_.data()); }
  std::size_t size() const { return count_; }
  T &operator[](std::size_t i) const { return data()[i]; }
  T *begin() const { return data(); }
  T *end() const { return data() + count_; }

 private:
  GuardedBytes bytes_;
  std::size_t count_;
};

}  // namespace kelm::test

#endif
