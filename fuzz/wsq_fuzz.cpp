// SPDX-License-Identifier: Apache-2.0
// The program's reader of WSQ: any bytes are a picture of the size it names, or an error.
#include <cstdint>
#include <cstdlib>

#include "tools/image/wsq.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace kelm::tools;
  try {
    const WsqPicture picture = decodeWsq({data, size}, 512, 1U << 16);
    if (picture.samples.size() != static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height)) {
      std::abort();
    }
  } catch (const WsqError &) {
  }
  return 0;
}
