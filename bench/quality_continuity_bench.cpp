// SPDX-License-Identifier: Apache-2.0
// The continuity check and its sums against OpenCV.
#include <memory>
#include <opencv2/core.hpp>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

using Bytes = std::shared_ptr<std::vector<std::uint8_t>>;

void reduceWithOpenCv(const Bytes &image, Size size) {
  const cv::Mat picture(size.height, size.width, CV_8U, image->data());
  cv::Mat rows, columns;
  cv::reduce(picture, rows, 1, cv::REDUCE_SUM, CV_32S);
  cv::reduce(picture, columns, 0, cv::REDUCE_SUM, CV_32S);
}

const Registration kContinuity([] {
  std::vector<Pair> pairs;
  for (const Size size : kSizes) {
    const auto image = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(size.height, size.width));
    const auto sums = std::make_shared<std::vector<std::int32_t>>(2048);
    const auto reduce = [=] { reduceWithOpenCv(image, size); };
    pairs.push_back({named("NotContinue", size), "cv::reduce, rows and columns",
                     [=] { NotContinue(image->data(), size.height, size.width, 200); }, reduce});
    pairs.push_back({named("Project", size) + ", both modes", "cv::reduce, rows and columns",
                     [=] {
                       Project(sums->data(), image->data(), size.height, size.width, 0);
                       Project(sums->data(), image->data(), size.height, size.width, 1);
                     },
                     reduce});
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
