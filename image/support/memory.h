// SPDX-License-Identifier: Apache-2.0
// The older form of image/support/buffer.h, until the last user has moved over.
#ifndef KELMTROVA_IMAGE_SUPPORT_MEMORY_H
#define KELMTROVA_IMAGE_SUPPORT_MEMORY_H

#include "image/support/buffer.h"

namespace kelm::image {

template <typename T>
using Block = Buffer<T>;

}  // namespace kelm::image

#endif
