// SPDX-License-Identifier: Apache-2.0
// The library's version as an ELF note: owner "kelmtrova", type 1, three little-endian numbers: major, minor, patch.
#include "kelmtrova/version.h"

#include <cstdint>

namespace {

struct Note {
  std::uint32_t ownerSize;
  std::uint32_t size;
  std::uint32_t type;
  char owner[12];  // padded to four bytes
  std::uint32_t version[3];
};

[[gnu::used, gnu::section(".note.kelmtrova"), gnu::aligned(4)]] constexpr Note kNote = {
    sizeof "kelmtrova",
    sizeof Note::version,
    1,
    "kelmtrova",
    {KELMTROVA_VERSION_MAJOR, KELMTROVA_VERSION_MINOR, KELMTROVA_VERSION_PATCH}};

}  // namespace
