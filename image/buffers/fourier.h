// SPDX-License-Identifier: Apache-2.0
// The radix-2 transform of single-precision signals held in two arrays.
#ifndef KELMTROVA_IMAGE_BUFFERS_FOURIER_H
#define KELMTROVA_IMAGE_BUFFERS_FOURIER_H

#include <cstdint>

namespace kelm::image {

// X[k] = sum of x[n] * e^(-2 pi i k n / N) in place, without normalisation; n is a power of two from 2 to 16384.
void fourierTransform(float *re, float *im, std::uint32_t n);

// The same, divided by n.
void normalizedFourierTransform(float *re, float *im, std::uint32_t n);

}  // namespace kelm::image

#endif
