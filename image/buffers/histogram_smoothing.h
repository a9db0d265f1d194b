// SPDX-License-Identifier: Apache-2.0
// Low-pass smoothing of a histogram in the frequency domain.
#ifndef KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_SMOOTHING_H
#define KELMTROVA_IMAGE_BUFFERS_HISTOGRAM_SMOOTHING_H

#include <cstdint>

namespace kelm::image {

// Folds 256 counters into 128 bins and smooths these in place: what HistogramSmooth does.
void smoothHistogram(std::uint32_t *counters);

}  // namespace kelm::image

#endif
