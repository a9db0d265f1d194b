// SPDX-License-Identifier: Apache-2.0
// Tables of rotated offsets against cv::transform of the offsets by each rotation.
#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

Pair rotations(std::uint8_t steps, std::uint8_t extent) {
  cv::Mat offsets(extent, extent, CV_32FC2);
  for (int i = 0; i < extent; ++i) {
    for (int j = 0; j < extent; ++j) {
      offsets.at<cv::Vec2f>(i, j) = {static_cast<float>(j - extent / 2), static_cast<float>(i - extent / 2)};
    }
  }
  const std::string name = "AxisTransform " + std::to_string(steps) + ", " + std::to_string(extent) + " x ";
  return {name + std::to_string(extent), "cv::transform + convertTo",
          [=] { AxisDestroy(AxisTransform(steps, extent, extent), steps); },
          [=] {
            std::vector<cv::Mat> tables(std::size_t{steps} + 1);
            for (std::size_t r = 0; r < tables.size(); ++r) {
              const double phi = static_cast<double>(r) * CV_PI / steps - CV_PI / 2;
              const cv::Matx22f turn(static_cast<float>(std::cos(phi)), static_cast<float>(-std::sin(phi)),
                                     static_cast<float>(std::sin(phi)), static_cast<float>(std::cos(phi)));
              cv::Mat turned;
              cv::transform(offsets, turned, turn);
              turned.convertTo(tables[r], CV_16S);
            }
          }};
}

const Registration kRotations([] {
  return std::vector<Pair>{rotations(16, 33), rotations(90, 65), rotations(180, 255)};
});

}  // namespace
}  // namespace kelm::bench
