// SPDX-License-Identifier: Apache-2.0
// Ours against a peer doing the same job on the same pixels in the same run.
#ifndef KELMTROVA_BENCH_BENCH_H
#define KELMTROVA_BENCH_BENCH_H

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace kelm::bench {

// One line of the table. Both jobs do the whole work of one call; whatever they allocate they release.
struct Pair {
  std::string name;  // for example "BErode 1024 x 1024"
  std::string peer;  // for example "cv::erode 3 x 3"
  std::function<void()> ours;
  std::function<void()> theirs;
  double aim = 1.0;  // the ratio ours / theirs that must be held
};

// The aim of a pair whose peer does another job, or a part of it: its ratio tells where we stand, and counts in no
// mean.
inline constexpr double kForOrientation = std::numeric_limits<double>::infinity();

// Adds the pairs of a file: define one registration object per file, at namespace scope.
struct Registration {
  explicit Registration(std::function<std::vector<Pair>()> pairs);
};

// The pictures of the table: a print of the sensor, and a large one.
struct Size {
  std::int16_t height, width;
};
inline constexpr Size kSizes[] = {{360, 256}, {1024, 1024}};
// "BErode 360 x 256"
std::string named(const char *what, Size size);

// A picture with ridge-like texture, the same on every run.
std::vector<std::uint8_t> ridgePicture(int height, int width, std::uint32_t seed = 1);
// A 0 / `foreground` mask with large areas and, for every 1000 pixels, `specks` small ones.
std::vector<std::uint8_t> maskPicture(int height, int width, int specks, std::uint8_t foreground = 255);

}  // namespace kelm::bench

#endif
