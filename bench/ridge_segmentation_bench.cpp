// SPDX-License-Identifier: Apache-2.0
// Thresholds against Otsu's choice, raggedness of a mask against an erosion and two counts.
#include <algorithm>
#include <memory>
#include <opencv2/imgproc.hpp>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Method = std::int32_t (*)(std::uint8_t *, std::int16_t, std::int16_t);

// Background with weak gradients, and ridges.
Bytes gradientPicture(int height, int width) {
  Bytes image = ridgePicture(height, width);
  const Bytes mask = maskPicture(height, width, 1);
  for (std::size_t i = 0; i < image.size(); ++i) {
    image[i] = mask[i] != 0 ? image[i] : image[i] / 8;
  }
  return image;
}

// Both sides copy the picture first, because ours works in place.
Pair threshold(const char *name, Method method, Size size) {
  const auto source = std::make_shared<Bytes>(gradientPicture(size.height, size.width));
  const auto work = std::make_shared<Bytes>(*source);
  const auto ours = [=] {
    std::copy(source->begin(), source->end(), work->begin());
    method(work->data(), size.height, size.width);
  };
  const auto theirs = [=] {
    std::copy(source->begin(), source->end(), work->begin());
    cv::Mat image(size.height, size.width, CV_8U, work->data());
    cv::threshold(image, image, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
  };
  return {named(name, size), "cv::threshold, Otsu", ours, theirs, 1.0};
}

Pair complexity(Size size) {
  const auto mask = std::make_shared<Bytes>(maskPicture(size.height, size.width, 2));
  const auto ours = [=] {
    volatile float result = Complexity(mask->data(), size.height, size.width, 255);
    static_cast<void>(result);
  };
  const auto inner = std::make_shared<cv::Mat>();
  const cv::Mat cross = cv::getStructuringElement(cv::MORPH_CROSS, cv::Size(3, 3));
  const auto theirs = [=] {
    const cv::Mat image(size.height, size.width, CV_8U, mask->data());
    cv::erode(image, *inner, cross);
    volatile int count = cv::countNonZero(image) - cv::countNonZero(*inner);
    static_cast<void>(count);
  };
  return {named("Complexity", size), "cv::erode cross, cv::countNonZero", ours, theirs, 1.0};
}

std::vector<Pair> pairs() {
  std::vector<Pair> result;
  for (const Size size : kSizes) {
    result.push_back(threshold("FpThresholdingGradsImage", FpThresholdingGradsImage, size));
    result.push_back(threshold("FpThresholdingGradsImageEx", FpThresholdingGradsImageEx, size));
    result.push_back(complexity(size));
  }
  return result;
}

const Registration registration(pairs);

}  // namespace
}  // namespace kelm::bench
