// SPDX-License-Identifier: Apache-2.0
#include "tests/support/guarded.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace kelm::test {

GuardedBytes::GuardedBytes(std::size_t size, Guard guard) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t inner = (size + page - 1) / page * page;
  mappingSize_ = inner + 2 * page;
  mapping_ = mmap(nullptr, mappingSize_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto *first = static_cast<unsigned char *>(mapping_) + page;
  if (mapping_ == MAP_FAILED || (inner > 0 && mprotect(first, inner, PROT_READ | PROT_WRITE) != 0)) {
    std::abort();
  }
  data_ = guard == Guard::kBefore ? first : first + (inner - size);
}

GuardedBytes::~GuardedBytes() { munmap(mapping_, mappingSize_); }

}  // namespace kelm::test
