// SPDX-License-Identifier: Apache-2.0
// Buffer operations and the histogram against the C library and OpenCV.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

using Picture = std::shared_ptr<std::vector<std::uint8_t>>;

cv::Mat matOf(const Picture &picture, int height, int width) { return {height, width, CV_8U, picture->data()}; }

void addHistograms(std::vector<Pair> &pairs, const std::string &size, std::uint16_t height, std::uint16_t width) {
  const auto add = [&](const std::string &kind, std::vector<std::uint8_t> pixels, double aim) {
    const Picture picture = std::make_shared<std::vector<std::uint8_t>>(std::move(pixels));
    pairs.push_back({"HistogramCompute " + kind + size, "cv::calcHist",
                     [=] { HistogramDestroy(HistogramCompute(picture->data(), height, width)); },
                     [=] {
                       const cv::Mat image = matOf(picture, height, width);
                       const int channel = 0, bins = 256;
                       const float range[] = {0, 256};
                       const float *ranges = range;
                       cv::Mat histogram;
                       cv::calcHist(&image, 1, &channel, {}, histogram, 1, &bins, &ranges);
                     },
                     aim});
  };
  add("grey ", ridgePicture(height, width), 0.95);
  add("mask, few specks ", maskPicture(height, width, 1), 0.25);
  add("mask, many specks ", maskPicture(height, width, 20), 0.5);
}

void addPictures(std::vector<Pair> &pairs, std::uint16_t height, std::uint16_t width) {
  const std::string size = std::to_string(height) + " x " + std::to_string(width);
  const Picture source = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(height, width));
  const Picture work = std::make_shared<std::vector<std::uint8_t>>(*source);
  const Picture theirWork = std::make_shared<std::vector<std::uint8_t>>(*source);
  pairs.push_back({"ImageCopy " + size, "memcpy", [=] { ImageCopy(work->data(), source->data(), height, width); },
                   [=] { std::memcpy(work->data(), source->data(), source->size()); }, 1.05});
  pairs.push_back({"ImageFlood " + size, "memset", [=] { ImageFlood(work->data(), 7, height, width); },
                   [=] { std::memset(work->data(), 7, work->size()); }, 1.05});
  // Both from a fresh copy: normalising twice would find nothing to do.
  pairs.push_back({"ImageNormalize " + size, "cv::meanStdDev + convertTo",
                   [=] {
                     std::memcpy(work->data(), source->data(), source->size());
                     ImageNormalize(work->data(), height, width, 120, 2000);
                   },
                   [=] {
                     std::memcpy(theirWork->data(), source->data(), source->size());
                     cv::Mat image = matOf(theirWork, height, width);
                     cv::Scalar mean, deviation;
                     cv::meanStdDev(image, mean, deviation);
                     const double gain = std::sqrt(2000.0) / deviation[0];
                     image.convertTo(image, CV_8U, gain, 120 - mean[0] * gain);
                   }});
  pairs.push_back({"ImageEnlarge " + size, "cv::resize nearest",
                   [=] {
                     std::free(ImageEnlarge(source->data(), height, width, static_cast<std::uint16_t>(2 * height),
                                            static_cast<std::uint16_t>(2 * width)));
                   },
                   [=] {
                     cv::Mat out;
                     cv::resize(matOf(source, height, width), out, {2 * width, 2 * height}, 0, 0, cv::INTER_NEAREST);
                   }});
  pairs.push_back({"ImageReduce " + size, "cv::pyrDown",
                   [=] {
                     std::free(ImageReduce(source->data(), height, width, static_cast<std::uint16_t>(height / 2),
                                           static_cast<std::uint16_t>(width / 2)));
                   },
                   [=] {
                     cv::Mat out;
                     cv::pyrDown(matOf(source, height, width), out);
                   }});
  addHistograms(pairs, size, height, width);
}

const Registration kPairs([] {
  std::vector<Pair> pairs;
  addPictures(pairs, 360, 256);
  addPictures(pairs, 1024, 1024);
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
