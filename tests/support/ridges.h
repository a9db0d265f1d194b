// SPDX-License-Identifier: Apache-2.0
// Ridge pictures with known truth, for checks of what the image functions make of fingerprints.
#ifndef KELMTROVA_TESTS_SUPPORT_RIDGES_H
#define KELMTROVA_TESTS_SUPPORT_RIDGES_H

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "tests/support/samples.h"

namespace kelm::test {

constexpr double kPi = 3.14159265358979323846;

struct RidgePicture {
  int height, width;
  std::vector<std::uint8_t> pixels;

  std::uint8_t &at(int x, int y) { return pixels[static_cast<std::size_t>(y * width + x)]; }

  // Every pixel from its position.
  static RidgePicture of(int height, int width, auto &&grey) {
    return {height, width,
            picture(height, width, [&](int x, int y) { return std::clamp(std::lround(grey(x, y)), 0L, 255L); })};
  }
};

inline double ridgeWave(double across, double period) { return 128 + 100 * std::sin(2 * kPi * across / period); }

// Straight ridges that run at `degrees`, counter-clockwise from the horizontal with row 0 at the top.
inline RidgePicture straightRidges(int height, int width, double degrees, double period) {
  const double angle = degrees * kPi / 180;
  return RidgePicture::of(height, width,
                          [=](int x, int y) { return ridgeWave(x * std::sin(angle) + y * std::cos(angle), period); });
}

// Rings around (cx, cy).
inline RidgePicture concentricRidges(int height, int width, double cx, double cy, double period) {
  return RidgePicture::of(height, width, [=](int x, int y) { return ridgeWave(std::hypot(x - cx, y - cy), period); });
}

// A loop: arches around a core, straight and vertical below it.
inline RidgePicture loopRidges(int height, int width, double cx, double cy, double period) {
  return RidgePicture::of(height, width, [=](int x, int y) {
    return ridgeWave(y < cy ? std::hypot(x - cx, y - cy) : std::abs(x - cx), period);
  });
}

inline RidgePicture noise(int height, int width, std::uint32_t seed) {
  Random random(seed);
  return RidgePicture::of(height, width, [&](int, int) { return 96.0 + random(64); });
}

// A bright margin of `edge` pixels all around.
inline void addMargin(RidgePicture *picture, int edge) {
  for (int y = 0; y < picture->height; ++y) {
    for (int x = 0; x < picture->width; ++x) {
      if (std::min(std::min(x, y), std::min(picture->width - 1 - x, picture->height - 1 - y)) < edge) {
        picture->at(x, y) = 250;
      }
    }
  }
}

// Bright rows from `first` to `end` - 1, where the finger lost contact.
inline void addGap(RidgePicture *picture, int first, int end) {
  for (int y = first; y < end; ++y) {
    std::fill_n(&picture->at(0, y), picture->width, std::uint8_t{250});
  }
}

}  // namespace kelm::test

#endif
