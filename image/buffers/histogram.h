// SPDX-License-Identifier: Apache-2.0
// Counting grey levels.
#ifndef KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_H
#define KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_H

#include <cstddef>
#include <cstdint>

#include "image/support/buffer.h"
#include "kelmtrova/image.h"

namespace kelm::image {

constexpr int kGreyLevels = 256;

// Writes all 256 counters: how many of the `pixels` bytes have each value. Takes no heap memory.
void computeHistogram(std::uint32_t *counters, const std::uint8_t *image, std::size_t pixels);

// The same into a new buffer of one Histogram, which is what HistogramCompute hands out; null without memory.
Buffer<Histogram> newHistogram(const std::uint8_t *image, std::size_t pixels);

}  // namespace kelm::image

#endif
