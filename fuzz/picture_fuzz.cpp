// SPDX-License-Identifier: Apache-2.0
// The program's readers of PNG and PGM; what they accept is written and read again.
#include <cstdlib>
#include <vector>

#include "tools/image/picture.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace kelm::tools;
  try {
    const Picture picture = decodePicture(std::vector<std::uint8_t>(data, data + size), "input");
    if (picture.samples.size() <= 1U << 14 && decodePicture(encodePgm(picture), "copy").samples != picture.samples) {
      std::abort();
    }
  } catch (const PictureError &) {
  }
  return 0;
}
