// SPDX-License-Identifier: Apache-2.0
// Morphology against OpenCV: 3 x 3 against dilate and erode, by count against boxFilter and a threshold.
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

constexpr int kWindow = 9;

cv::Mat maskOf(Size size, std::uint8_t foreground) {
  return cv::Mat(size.height, size.width, CV_8U, maskPicture(size.height, size.width, 5, foreground).data()).clone();
}

// Ours work in place, on what the call before left: their time does not depend on the values in the mask.
void add3x3(std::vector<Pair> &pairs, const char *name,
            std::int32_t (*morph)(std::uint8_t *, std::int16_t, std::int16_t),
            void (*peer)(const cv::Mat &, cv::Mat &)) {
  for (const Size size : kSizes) {
    const cv::Mat mask = maskOf(size, 255);
    cv::Mat work = mask.clone(), out = mask.clone();
    pairs.push_back({named(name, size), "dilate / erode 3 x 3",
                     [=]() mutable { morph(work.data, size.height, size.width); }, [=]() mutable { peer(mask, out); }});
  }
}

template <typename T>
void addByCount(std::vector<Pair> &pairs, const char *name,
                std::int32_t (*morph)(T *, std::int16_t, std::int16_t, std::uint8_t, std::uint8_t),
                std::uint8_t foreground, bool dilate) {
  for (const Size size : kSizes) {
    cv::Mat mask;
    maskOf(size, foreground).convertTo(mask, cv::DataType<T>::type);
    cv::Mat work = mask.clone(), counts(size.height, size.width, CV_16U), out = mask.clone();
    pairs.push_back({named(name, size) + ", 9 x 9", "boxFilter + threshold",
                     [=]() mutable { morph(work.ptr<T>(), size.height, size.width, kWindow, kWindow); },
                     [=]() mutable {
                       cv::boxFilter(mask, counts, CV_16U, {kWindow, kWindow}, {-1, -1}, false, cv::BORDER_CONSTANT);
                       const double threshold = (dilate ? 15 : kWindow * kWindow) * (foreground == 255 ? 255.0 : 1.0);
                       cv::compare(counts, threshold, out, dilate ? cv::CMP_GE : cv::CMP_EQ);
                     }});
  }
}

const Registration registration([] {
  std::vector<Pair> pairs;
  add3x3(pairs, "BDilate", BDilate, [](const cv::Mat &in, cv::Mat &out) { cv::dilate(in, out, cv::Mat()); });
  add3x3(pairs, "BErode", BErode, [](const cv::Mat &in, cv::Mat &out) { cv::erode(in, out, cv::Mat()); });
  addByCount(pairs, "BWDilateFast", BWDilateFast, 1, true);
  addByCount(pairs, "BWErodeFast", BWErodeFast, 1, false);
  addByCount(pairs, "BWDilateFastUint16", BWDilateFastUint16, 1, true);
  addByCount(pairs, "BWErodeFastUint16", BWErodeFastUint16, 1, false);
  addByCount(pairs, "MY_BWDilateFastUint16", MY_BWDilateFastUint16, 255, true);
  addByCount(pairs, "MY_BWErodeFastUint16", MY_BWErodeFastUint16, 255, false);
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
