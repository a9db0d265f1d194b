// SPDX-License-Identifier: Apache-2.0
// Box sums and means against cv::boxFilter of the same sample types.
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

template <typename Out, typename In>
using Filter = std::int32_t (*)(Out *, const In *, std::int16_t, std::int16_t, std::uint8_t, std::uint8_t);

template <typename Out, typename In>
void addPairs(std::vector<Pair> &pairs, const char *name, Filter<Out, In> filter, bool mean) {
  for (const Size size : kSizes) {
    const cv::Mat picture =
        cv::Mat(size.height, size.width, CV_8U, ridgePicture(size.height, size.width).data()).clone();
    for (const int window : {3, 9, 31}) {
      cv::Mat in, out(size.height, size.width, cv::DataType<Out>::type);
      picture.convertTo(in, cv::DataType<In>::type);
      const cv::Mat theirOut = out.clone();
      const std::string title = named((name + (" " + std::to_string(window) + ",")).c_str(), size);
      pairs.push_back(
          {title, mean ? "cv::boxFilter normalised" : "cv::boxFilter",
           [=]() mutable {
             filter(out.ptr<Out>(), in.ptr<In>(), size.height, size.width, static_cast<std::uint8_t>(window),
                    static_cast<std::uint8_t>(window));
           },
           [=] {
             cv::boxFilter(in, theirOut, theirOut.depth(), {window, window}, {-1, -1}, mean, cv::BORDER_CONSTANT);
           }});
    }
  }
}

const Registration registration([] {
  std::vector<Pair> pairs;
  addPairs(pairs, "fvs_ImageLocalSumChar2Char", fvs_ImageLocalSumChar2Char, false);
  addPairs(pairs, "fvs_ImageLocalSumChar2Uint16", fvs_ImageLocalSumChar2Uint16, false);
  addPairs(pairs, "fvs_ImageLocalSumUint162Uint16", fvs_ImageLocalSumUint162Uint16, false);
  addPairs(pairs, "fvs_ImageLocalSumInt2Int", fvs_ImageLocalSumInt2Int, false);
  addPairs(pairs, "fvs_ImageLocalSumFloat2Float", fvs_ImageLocalSumFloat2Float, false);
  addPairs(pairs, "fvs_ImageMeanChar2Char", fvs_ImageMeanChar2Char, true);
  addPairs(pairs, "fvs_ImageMeanInt2Int", fvs_ImageMeanInt2Int, true);
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
