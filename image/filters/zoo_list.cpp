// SPDX-License-Identifier: Apache-2.0
// The stack of packed pixel positions that callers may fill regions with.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "image/support/buffer.h"
#include "kelmtrova/image.h"

void zooInitList(ZooList *list, std::int32_t capacity) {
  if (list == nullptr) {
    return;
  }
  *list = {nullptr, 0, capacity};
  if (capacity >= 1) {
    list->items = kelm::image::allocateZeroed<std::uint32_t>(static_cast<std::size_t>(capacity)).release();
    list->capacity = list->items == nullptr ? 0 : capacity;
  }
}

std::int32_t zooPush(ZooList *list, std::uint32_t entry) {
  if (list == nullptr || list->items == nullptr || list->count < 0 || list->count >= list->capacity) {
    return 0;
  }
  list->items[list->count++] = entry;
  return 1;
}

std::int32_t zooPop(ZooList *list, std::uint32_t *entry) {
  if (list == nullptr || entry == nullptr || list->items == nullptr || list->count < 1 ||
      list->count > list->capacity) {
    return 0;
  }
  *entry = list->items[--list->count];
  return 1;
}

std::int32_t zooIsListEmpty(const ZooList *list) { return list == nullptr || list->count < 1 ? 1 : 0; }

void zooClearup(ZooList *list) {
  if (list != nullptr && list->capacity >= 1) {
    std::free(list->items);
    list->items = nullptr;
  }
}
