// SPDX-License-Identifier: Apache-2.0
// Thresholds against Otsu's choice, raggedness of a mask against an erosion and two counts.
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
Pair threshold(const std::string &name, Method method, int height, int width) {
  const auto source = std::make_shared<Bytes>(gradientPicture(height, width));
  const auto work = std::make_shared<Bytes>(*source);
  const auto ours = [=] {
    std::copy(source->begin(), source->end(), work->begin());
    method(work->data(), static_cast<std::int16_t>(height), static_cast<std::int16_t>(width));
  };
  const auto theirs = [=] {
    std::copy(source->begin(), source->end(), work->begin());
    cv::Mat image(height, width, CV_8U, work->data());
    cv::threshold(image, image, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
  };
  return {name, "cv::threshold, Otsu", ours, theirs, 1.0};
}

Pair complexity(const std::string &size, int height, int width) {
  const auto mask = std::make_shared<Bytes>(maskPicture(height, width, 2));
  const auto ours = [=] {
    volatile float result =
        Complexity(mask->data(), static_cast<std::int16_t>(height), static_cast<std::int16_t>(width), 255);
    static_cast<void>(result);
  };
  const auto inner = std::make_shared<cv::Mat>();
  const cv::Mat cross = cv::getStructuringElement(cv::MORPH_CROSS, cv::Size(3, 3));
  const auto theirs = [=] {
    const cv::Mat image(height, width, CV_8U, mask->data());
    cv::erode(image, *inner, cross);
    volatile int count = cv::countNonZero(image) - cv::countNonZero(*inner);
    static_cast<void>(count);
  };
  return {"Complexity " + size, "cv::erode cross, cv::countNonZero", ours, theirs, 1.0};
}

std::vector<Pair> pairs() {
  std::vector<Pair> result;
  for (const auto &[height, width] : {std::pair{360, 256}, std::pair{1024, 1024}}) {
    const std::string size = std::to_string(width) + " x " + std::to_string(height);
    result.push_back(threshold("FpThresholdingGradsImage " + size, FpThresholdingGradsImage, height, width));
    result.push_back(threshold("FpThresholdingGradsImageEx " + size, FpThresholdingGradsImageEx, height, width));
    result.push_back(complexity(size, height, width));
  }
  return result;
}

const Registration registration(pairs);

}  // namespace
}  // namespace kelm::bench
