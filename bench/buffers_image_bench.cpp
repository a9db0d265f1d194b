// SPDX-License-Identifier: Apache-2.0
// Buffer operations and the histogram against the C library and OpenCV.
#include <cmath>
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

void addHistograms(std::vector<Pair> &pairs, Size size) {
  const auto height = static_cast<std::uint16_t>(size.height);
  const auto width = static_cast<std::uint16_t>(size.width);
  const auto add = [&](const std::string &kind, std::vector<std::uint8_t> pixels, double aim) {
    const Picture picture = std::make_shared<std::vector<std::uint8_t>>(std::move(pixels));
    pairs.push_back({named(("HistogramCompute " + kind).c_str(), size), "cv::calcHist",
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
  add("grey", ridgePicture(height, width), 0.95);
  add("mask, few specks,", maskPicture(height, width, 1), 0.25);
  add("mask, many specks,", maskPicture(height, width, 20), 0.5);
}

void addPictures(std::vector<Pair> &pairs, Size size) {
  const auto height = static_cast<std::uint16_t>(size.height);
  const auto width = static_cast<std::uint16_t>(size.width);
  const Picture source = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(height, width));
  const Picture work = std::make_shared<std::vector<std::uint8_t>>(*source);
  const Picture theirWork = std::make_shared<std::vector<std::uint8_t>>(*source);
  pairs.push_back({named("ImageCopy", size), "memcpy", [=] { ImageCopy(work->data(), source->data(), height, width); },
                   [=] { std::memcpy(work->data(), source->data(), source->size()); }, 1.05});
  pairs.push_back({named("ImageFlood", size), "memset", [=] { ImageFlood(work->data(), 7, height, width); },
                   [=] { std::memset(work->data(), 7, work->size()); }, 1.05});
  // Both from a fresh copy: normalising twice would find nothing to do.
  pairs.push_back({named("ImageNormalize", size), "cv::meanStdDev + convertTo",
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
  pairs.push_back({named("ImageEnlarge", size), "cv::resize nearest",
                   [=] {
                     std::free(ImageEnlarge(source->data(), height, width, static_cast<std::uint16_t>(2 * height),
                                            static_cast<std::uint16_t>(2 * width)));
                   },
                   [=] {
                     cv::Mat out;
                     cv::resize(matOf(source, height, width), out, {2 * width, 2 * height}, 0, 0, cv::INTER_NEAREST);
                   }});
  const auto reduce = [=] {
    std::free(ImageReduce(source->data(), height, width, static_cast<std::uint16_t>(height / 2),
                          static_cast<std::uint16_t>(width / 2)));
  };
  pairs.push_back({named("ImageReduce", size), "cv::pyrDown", reduce, [=] {
                     cv::Mat out;
                     cv::pyrDown(matOf(source, height, width), out);
                   }});
  pairs.push_back({named("ImageReduce", size), "cv::resize INTER_AREA", reduce,
                   [=] {
                     cv::Mat out;
                     cv::resize(matOf(source, height, width), out, {width / 2, height / 2}, 0, 0, cv::INTER_AREA);
                   },
                   1.5});
  addHistograms(pairs, size);
}

const Registration kPairs([] {
  std::vector<Pair> pairs;
  for (const Size size : kSizes) {
    addPictures(pairs, size);
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
