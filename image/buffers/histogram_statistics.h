// SPDX-License-Identifier: Apache-2.0
// The statistics of counted grey levels.
#ifndef KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_STATISTICS_H
#define KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_STATISTICS_H

#include <cstdint>

namespace kelm::image {

// The rounded mean of `count` values with the sum `weighted`, in signed 32-bit arithmetic; 0 when count is 0.
std::uint8_t roundedMean(std::uint32_t weighted, std::uint32_t count);

// The rounded mean square of `count` deviations with the sum of squares `squares`; 0 when count is 0.
std::uint32_t roundedVariance(std::uint32_t squares, std::uint32_t count);

}  // namespace kelm::image

#endif
