// SPDX-License-Identifier: Apache-2.0
// Angles, their cosines and sines and directions in degrees, many at a time: the true values rounded to double
// precision, and rounded or truncated from there. The same on every processor, whatever the C library's last bit.
#ifndef KELMTROVA_IMAGE_SUPPORT_ANGLES_H
#define KELMTROVA_IMAGE_SUPPORT_ANGLES_H

#include <cstddef>
#include <cstdint>

namespace kelm::image {

// angles[i] = the angle of the point (x[i], y[i]) in radians, from -pi to pi.
void pointAngles(float *angles, const std::int32_t *y, const std::int32_t *x, std::size_t n);

// Angles from -pi to pi.
void cosinesAndSines(float *cosines, float *sines, const float *angles, std::size_t n);

// Half the angle of the point (x[i], y[i]) in whole degrees, toward zero.
void halfPointAngles(std::int16_t *degrees, const float *y, const float *x, std::size_t n);

// Half of angles[i] (radians, -pi to pi) in whole degrees, toward zero.
void halfAngles(std::int16_t *degrees, const float *angles, std::size_t n);

}  // namespace kelm::image

#endif
