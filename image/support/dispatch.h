// SPDX-License-Identifier: Apache-2.0
// The older form of image/support/kernel.h, until the last kernel has moved over.
#ifndef KELMTROVA_IMAGE_SUPPORT_DISPATCH_H
#define KELMTROVA_IMAGE_SUPPORT_DISPATCH_H

#include "image/support/kernel.h"

#define KELM_KERNEL(result, name, parameters, arguments, body) \
  static result name parameters { return kernel<static_cast<result(*) parameters>(body)> arguments; }

#endif
