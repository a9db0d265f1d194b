// SPDX-License-Identifier: Apache-2.0
// Region growing and small-area removal against OpenCV.
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

std::string named(const char *what, Size size, int specks) {
  return named(what, size) + (specks == 0 ? ", clean" : specks < 10 ? ", few specks" : ", many specks");
}

// Both sides fill to and fro between two labels, so that every call has the same work and nothing is copied.
Pair growPair(const std::string &name, Size size, std::vector<std::uint8_t> picture) {
  const auto mask = std::make_shared<std::vector<std::uint8_t>>(std::move(picture));
  const auto copy = std::make_shared<std::vector<std::uint8_t>>(*mask);
  const auto fillOurs = [mask, size](int seed, int label) {
    std::uint32_t area;
    std::int16_t box[4];
    RegionGrow(mask->data(), size.height, size.width, static_cast<std::int16_t>(size.height / 2),
               static_cast<std::int16_t>(size.width / 2), &area, &box[0], &box[1], &box[2], &box[3],
               static_cast<std::uint8_t>(seed), static_cast<std::uint8_t>(label), 1);
  };
  const auto fillTheirs = [copy, size](int label) {
    cv::Mat image(size.height, size.width, CV_8U, copy->data());
    cv::Rect box;
    cv::floodFill(image, {size.width / 2, size.height / 2}, cv::Scalar(label), &box, {}, {}, 4);
  };
  const auto first = (*mask)[static_cast<std::size_t>(size.height / 2 * size.width + size.width / 2)];
  return {name, "cv::floodFill, 4-connected",
          [=] {
            fillOurs(first, 100);
            fillOurs(100, first);
          },
          [=] {
            fillTheirs(100);
            fillTheirs(first);
          }};
}

// Ridges a few pixels wide, joined by a line through the seed.
std::vector<std::uint8_t> narrowRidges(Size size) {
  std::vector<std::uint8_t> mask = ridgePicture(size.height, size.width);
  for (std::size_t i = 0; i < mask.size(); ++i) {
    const bool joins = i % static_cast<std::size_t>(size.width) == static_cast<std::size_t>(size.width / 2);
    mask[i] = joins || mask[i] > 150 ? 255 : 0;
  }
  return mask;
}

void removeWithOpenCv(cv::Mat &image, cv::Mat &labels, cv::Mat &stats, cv::Mat &centroids, int largest) {
  cv::connectedComponentsWithStats(image, labels, stats, centroids, 4, CV_32S);
  std::vector<std::uint8_t> values(static_cast<std::size_t>(stats.rows), 255);
  for (int i = 0; i < stats.rows; ++i) {
    values[static_cast<std::size_t>(i)] = i == 0 || stats.at<int>(i, cv::CC_STAT_AREA) <= largest ? 0 : 255;
  }
  for (int y = 0; y < image.rows; ++y) {
    const int *const row = labels.ptr<int>(y);
    std::uint8_t *const out = image.ptr(y);
    for (int x = 0; x < image.cols; ++x) {
      out[x] = values[static_cast<std::size_t>(row[x])];
    }
  }
}

Pair removePair(Size size, int specks) {
  const auto mask = std::make_shared<std::vector<std::uint8_t>>(maskPicture(size.height, size.width, specks));
  const auto work = std::make_shared<std::vector<std::uint8_t>>(*mask);
  return {named("RemoveSmallArea", size, specks), "connectedComponentsWithStats + relabel",
          [=] {
            *work = *mask;
            RemoveSmallArea(work->data(), size.height, size.width, 255, 0, 60);
          },
          [=] {
            *work = *mask;
            cv::Mat image(size.height, size.width, CV_8U, work->data());
            cv::Mat labels, stats, centroids;
            removeWithOpenCv(image, labels, stats, centroids, 60);
          }};
}

const Registration kRegions([] {
  std::vector<Pair> pairs;
  for (const Size size : kSizes) {
    for (const int specks : {0, 2, 20}) {
      pairs.push_back(growPair(named("RegionGrow", size, specks), size, maskPicture(size.height, size.width, specks)));
      pairs.push_back(removePair(size, specks));
    }
    pairs.push_back(growPair(named("RegionGrow", size) + ", narrow ridges", size, narrowRidges(size)));
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
