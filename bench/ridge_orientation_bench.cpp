// SPDX-License-Identifier: Apache-2.0
// The orientation fields against the same chain of steps in OpenCV.
#include <cstdlib>
#include <memory>
#include <opencv2/imgproc.hpp>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

constexpr int kWindow = 9;

void ours(const std::vector<std::uint8_t> &image, int height, int width) {
  std::int32_t *products = nullptr;
  std::int32_t *differences = nullptr;
  FingerprintBlockField direction8 = {};
  FingerprintBlockField orientGrad = {};
  FingerprintBlockField direction16 = {};
  FingerprintGetDirectionFloat(image.data(), static_cast<std::uint16_t>(height), static_cast<std::uint16_t>(width),
                               static_cast<std::uint16_t>(2 * height), static_cast<std::uint16_t>(2 * width), kWindow,
                               0, &products, &differences, &direction8, &orientGrad, &direction16);
  for (void *block :
       {static_cast<void *>(products), static_cast<void *>(differences), static_cast<void *>(direction8.data),
        static_cast<void *>(orientGrad.data), static_cast<void *>(direction16.data)}) {
    std::free(block);
  }
}

// One field: the samples at the block centres, their angles, and the angles smoothed as vectors.
cv::Mat field(const cv::Mat &products, const cv::Mat &differences, int step, int window) {
  cv::Mat p(products.rows / step, products.cols / step, CV_32F);
  cv::Mat d(p.size(), CV_32F);
  for (int r = 0; r < p.rows; ++r) {
    for (int c = 0; c < p.cols; ++c) {
      p.at<float>(r, c) = static_cast<float>(products.at<int>(r * step + step / 2, c * step + step / 2));
      d.at<float>(r, c) = static_cast<float>(differences.at<int>(r * step + step / 2, c * step + step / 2));
    }
  }
  cv::Mat angle;
  cv::Mat x;
  cv::Mat y;
  cv::Mat smooth;
  cv::phase(d, p, angle);
  cv::polarToCart(cv::Mat(), angle, x, y);
  cv::boxFilter(x, x, -1, cv::Size(window, window), cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
  cv::boxFilter(y, y, -1, cv::Size(window, window), cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
  cv::phase(x, y, smooth, true);
  return smooth / 2;
}

void theirs(const std::vector<std::uint8_t> &pixels, int height, int width) {
  const cv::Mat image(height, width, CV_8U, const_cast<std::uint8_t *>(pixels.data()));
  cv::Mat gx;
  cv::Mat gy;
  cv::Sobel(image, gx, CV_16S, 1, 0);
  cv::Sobel(image, gy, CV_16S, 0, 1);
  gx.convertTo(gx, CV_32S);
  gy.convertTo(gy, CV_32S);
  cv::Mat products = gx.mul(gy, 2);
  cv::Mat differences = gy.mul(gy) - gx.mul(gx);
  for (cv::Mat *sum : {&products, &differences}) {
    cv::boxFilter(*sum, *sum, CV_32S, cv::Size(kWindow, kWindow), cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
  }
  const cv::Mat fine = field(products, differences, 4, 5);
  const cv::Mat coarse = field(products, differences, 8, 3);
  cv::Mat change;
  cv::absdiff(fine.colRange(1, fine.cols), fine.colRange(0, fine.cols - 1), change);
  cv::boxFilter(change, change, -1, cv::Size(3, 3));
}

std::vector<Pair> pairs() {
  std::vector<Pair> result;
  for (const Size size : kSizes) {
    const auto image = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(size.height, size.width));
    result.push_back({named("FingerprintGetDirectionFloat", size), "cv::Sobel, mul, boxFilter, phase",
                      [=] { ours(*image, size.height, size.width); }, [=] { theirs(*image, size.height, size.width); },
                      1.0});
  }
  return result;
}

const Registration registration(pairs);

}  // namespace
}  // namespace kelm::bench
