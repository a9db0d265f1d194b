// SPDX-License-Identifier: Apache-2.0
// Counting grey levels, and the statistics of the counts.
#ifndef KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_H
#define KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_H

#include <cstddef>
#include <cstdint>

#include "image/support/memory.h"
#include "kelmtrova/image.h"

namespace kelm::image {

constexpr int kGreyLevels = 256;

// Writes all 256 counters: how many of the `pixels` bytes have each value. Takes no heap memory.
void computeHistogram(std::uint32_t *counters, const std::uint8_t *image, std::size_t pixels);

// The same into a new block of one Histogram, which is what HistogramCompute hands out; null without memory.
Block<Histogram> newHistogram(const std::uint8_t *image, std::size_t pixels);

// The rounded mean of `count` values with the sum `weighted`, in signed 32-bit arithmetic; 0 when count is 0.
std::uint8_t roundedMean(std::uint32_t weighted, std::uint32_t count);

// The rounded mean square of `count` deviations with the sum of squares `squares`; 0 when count is 0.
std::uint32_t roundedVariance(std::uint32_t squares, std::uint32_t count);

}  // namespace kelm::image

#endif
