// SPDX-License-Identifier: Apache-2.0
// Morphology against OpenCV and Leptonica: 3 x 3 against dilate and erode, by count against boxFilter and a threshold.
#include <leptonica/allheaders.h>

#include <cstdint>
#include <memory>
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

struct DestroyPix {
  void operator()(PIX *pix) const { pixDestroy(&pix); }
};
using Picture = std::unique_ptr<PIX, DestroyPix>;

// Leptonica's masks are packed bits: with the packing and unpacking that bytes need, and without.
void addBricks(std::vector<Pair> &pairs, const char *name,
               std::int32_t (*morph)(std::uint8_t *, std::int16_t, std::int16_t),
               PIX *(*brick)(PIX *, PIX *, l_int32, l_int32)) {
  for (const Size size : kSizes) {
    const cv::Mat mask = maskOf(size, 255);
    const std::shared_ptr<PIX> bytes = Picture(pixCreate(size.width, size.height, 8));
    for (int y = 0; y < size.height; ++y) {
      for (int x = 0; x < size.width; ++x) {
        pixSetPixel(bytes.get(), x, y, 255U - mask.at<std::uint8_t>(y, x));  // below the threshold is foreground
      }
    }
    const std::shared_ptr<PIX> bits = Picture(pixConvertTo1(bytes.get(), 128));
    cv::Mat work = mask.clone();
    const auto ours = [=]() mutable { morph(work.data, size.height, size.width); };
    pairs.push_back({named(name, size), "Leptonica's brick, bytes", ours, [=] {
                       const Picture packed(pixConvertTo1(bytes.get(), 128));
                       const Picture morphed(brick(nullptr, packed.get(), 3, 3));
                       const Picture unpacked(pixConvert1To8(nullptr, morphed.get(), 255, 0));
                     }});
    pairs.push_back({named(name, size), "Leptonica's brick, packed bits", ours,
                     [=] { const Picture morphed(brick(nullptr, bits.get(), 3, 3)); }, kForOrientation});
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
  addBricks(pairs, "BDilate", BDilate, pixDilateBrick);
  addBricks(pairs, "BErode", BErode, pixErodeBrick);
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
