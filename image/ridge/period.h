// SPDX-License-Identifier: Apache-2.0
// Ridge periods from grey-level profiles across the ridges, many profiles side by side.
#ifndef KELMTROVA_IMAGE_RIDGE_PERIOD_H
#define KELMTROVA_IMAGE_RIDGE_PERIOD_H

#include <cstdint>

#include "image/ridge/crossing.h"

namespace kelm::image {

constexpr int kPeriodLanes = 64;
constexpr std::uint8_t kNoPeriod = 255;

// Sample i of the profile in lane l is samples[i][l].
struct ProfileBatch {
  std::uint8_t samples[kProfileSamples][kPeriodLanes];
};

// Eight times the period of every profile, or kNoPeriod where it shows fewer than two ridges or fewer than two valleys.
void ridgePeriods(std::uint8_t *values, const ProfileBatch *profiles);

}  // namespace kelm::image

#endif
