// SPDX-License-Identifier: Apache-2.0
// Sine, cosine and arc tangent rounded correctly to double precision, for the few values that trigonometry.h is not
// exact enough for. C libraries differ in the last bit, and one differs from itself between processors with and without
// fused multiply-add; these results are the same everywhere.
#ifndef KELMTROVA_IMAGE_SUPPORT_PRECISE_TRIGONOMETRY_H
#define KELMTROVA_IMAGE_SUPPORT_PRECISE_TRIGONOMETRY_H

#include "image/support/trigonometry.h"

namespace kelm::image {

// For angles from -pi to pi.
CosineAndSine preciseCosineAndSine(double angle);

// The angle of the point (x, y), from -pi to pi.
double preciseArcTangent(double y, double x);

}  // namespace kelm::image

#endif
