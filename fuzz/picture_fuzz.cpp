// SPDX-License-Identifier: Apache-2.0
// The program's reader of PGM, whose pictures are written and read again, and its filter for PNG, whose result passes
// through it unchanged and is no longer than the picture's header allows.
#include <algorithm>
#include <cstdlib>
#include <span>

#include "tools/image/picture.h"
#include "tools/image/png_filter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace kelm::tools;
  const std::span<const std::uint8_t> bytes(data, size);
  try {
    if (looksLikePgm(bytes)) {
      const Picture picture = decodePgm(bytes);
      if (picture.samples.size() <= 1U << 14 && decodePgm(encodePgm(picture)).samples != picture.samples) std::abort();
    }
    if (looksLikePng(bytes)) {
      const std::vector<std::uint8_t> kept = essentialPng(bytes);
      if (kept.size() > size || essentialPng(kept) != kept) std::abort();
    }
  } catch (const PictureError &) {
  }
  return 0;
}
