// SPDX-License-Identifier: Apache-2.0
// Mean smoothing and stripe removal against OpenCV.
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

using Bytes = std::shared_ptr<std::vector<std::uint8_t>>;

Pair smoothPair(Size size) {
  const auto in = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(size.height, size.width));
  const auto out = std::make_shared<std::vector<std::uint8_t>>(in->size());
  return {named("MeanSmooth", size), "cv::blur 3 x 3, BORDER_CONSTANT",
          [=] { MeanSmooth(in->data(), out->data(), size.height, size.width); },
          [=] {
            const cv::Mat source(size.height, size.width, CV_8U, in->data());
            cv::Mat destination(size.height, size.width, CV_8U, out->data());
            cv::blur(source, destination, {3, 3}, {-1, -1}, cv::BORDER_CONSTANT);
          }};
}

// Runs of up to `longest` foreground pixels are erased by an opening with a line one longer.
Pair stripePair(const char *what, Size size, Bytes mask, int longest, std::uint8_t direction) {
  const auto work = std::make_shared<std::vector<std::uint8_t>>(*mask);
  const std::string name = named(what, size) + (direction == 0 ? " rows, " : " columns, ") + std::to_string(longest);
  return {name, "copy + cv::morphologyEx, opening by a line",
          [=] {
            *work = *mask;
            RemoveStripe(work->data(), size.height, size.width, 255, 0, static_cast<std::uint8_t>(longest), direction);
          },
          [=] {
            *work = *mask;
            cv::Mat image(size.height, size.width, CV_8U, work->data());
            const int length = longest + 1;
            const cv::Mat line =
                cv::getStructuringElement(cv::MORPH_RECT, direction == 0 ? cv::Size(length, 1) : cv::Size(1, length));
            cv::morphologyEx(image, image, cv::MORPH_OPEN, line);
          }};
}

const Registration kSmoothing([] {
  std::vector<Pair> pairs;
  for (const Size size : kSizes) {
    pairs.push_back(smoothPair(size));
    const auto mask = std::make_shared<std::vector<std::uint8_t>>(maskPicture(size.height, size.width, 20));
    const auto ridges = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(size.height, size.width));
    for (std::uint8_t &sample : *ridges) {
      sample = sample > 128 ? 255 : 0;
    }
    for (const std::uint8_t direction : {std::uint8_t{0}, std::uint8_t{1}}) {
      for (const int longest : {2, 8, 30}) {
        pairs.push_back(stripePair("RemoveStripe mask", size, mask, longest, direction));
      }
      pairs.push_back(stripePair("RemoveStripe ridges", size, ridges, 4, direction));
    }
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
