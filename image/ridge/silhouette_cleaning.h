// SPDX-License-Identifier: Apache-2.0
// The morphology that cleans the silhouette of a histogram.
#ifndef KELMTROVA_IMAGE_RIDGE_SILHOUETTE_CLEANING_H
#define KELMTROVA_IMAGE_RIDGE_SILHOUETTE_CLEANING_H

#include <cstdint>

#include "image/ridge/histogram_shape.h"

namespace kelm::image {

// The heights of 256 bars, 0 to 255, after the cleaning of a canvas of 256 x 256 whose column i is filled in the rows
// below bars[i]: a dilation by count and an erosion by count with 9 x 9 windows, an erosion and a dilation by 3 x 3.
// tops[i] is the highest filled row of column i, 0 when there is none.
void cleanSilhouette(std::uint8_t (&tops)[kShapeLevels], const std::uint8_t (&bars)[kShapeLevels]);

}  // namespace kelm::image

#endif
