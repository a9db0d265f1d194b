// Gradients, block quality and continuity: against the loops written down plainly, memcpy, and OpenCV.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

using Bytes = std::shared_ptr<std::vector<std::uint8_t>>;
using Maps = std::vector<std::vector<std::uint16_t>>;

// Not specialised for the step of its callers here: like the function it stands for, it serves any step.
[[gnu::noipa]] Maps plainGradients(const std::uint8_t *image, int height, int width, int step) {
  constexpr int kOffsets[4][6][2] = {{{-3, 0}, {-2, 0}, {-1, 0}, {1, 0}, {2, 0}, {3, 0}},
                                     {{-3, 3}, {-2, 2}, {-1, 1}, {1, -1}, {2, -2}, {3, -3}},
                                     {{0, 3}, {0, 2}, {0, 1}, {0, -1}, {0, -2}, {0, -3}},
                                     {{-3, -3}, {-2, -2}, {-1, -1}, {1, 1}, {2, 2}, {3, 3}}};
  const int rows = height / step;
  const int cols = width / step;
  Maps maps(4);
  for (std::size_t d = 0; d < 4; ++d) {
    maps[d].resize(static_cast<std::size_t>(rows * cols));
    for (int gy = 1; gy < rows - 1; ++gy) {
      for (int gx = 1; gx < cols - 1; ++gx) {
        const std::uint8_t *const center = image + gy * step * width + gx * step;
        int sum = *center;
        for (const auto &offset : kOffsets[d]) {
          sum += center[offset[0] + offset[1] * width];
        }
        const int mean = sum / 7;
        std::uint16_t &value = maps[d][static_cast<std::size_t>(gy * cols + gx)];
        for (const auto &offset : kOffsets[d]) {
          value = static_cast<std::uint16_t>(value + std::abs(center[offset[0] + offset[1] * width] - mean));
        }
      }
    }
  }
  return maps;
}

void plainSmooth(std::vector<std::uint8_t> &image, std::size_t height, std::size_t width) {
  std::vector<std::uint16_t> sums(image.size());
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      const std::uint8_t *const s = image.data() + y * width + x;
      sums[y * width + x] = static_cast<std::uint16_t>((x > 0 ? s[-1] : 0) + s[0] + (x + 1 < width ? s[1] : 0));
    }
  }
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      const std::size_t i = y * width + x;
      const int sum = (y > 0 ? sums[i - width] : 0) + sums[i] + (y + 1 < height ? sums[i + width] : 0);
      image[i] = static_cast<std::uint8_t>(sum / 9);
    }
  }
}

std::vector<std::uint8_t> plainQuality(const std::uint8_t *image, int height, int width) {
  const Maps maps = plainGradients(image, height, width, 4);
  const std::size_t gcols = static_cast<std::size_t>(width / 4);
  std::vector<std::uint8_t> means(maps[0].size());
  std::vector<std::uint8_t> directions(maps[0].size());
  for (std::size_t i = 0; i < means.size(); ++i) {
    int sum = 0;
    std::size_t least = 0;
    for (std::size_t d = 0; d < 4; ++d) {
      sum += maps[d][i];
      least = maps[d][i] < maps[least][i] ? d : least;
    }
    means[i] = static_cast<std::uint8_t>(std::min(sum >> 2, 255));
    directions[i] = static_cast<std::uint8_t>((least + 1) * 16);
  }
  const auto brows = static_cast<std::size_t>(height / 16);
  const auto bcols = static_cast<std::size_t>(width / 16);
  std::vector<std::uint8_t> grades(brows * bcols);
  for (std::size_t block = 0; block < grades.size(); ++block) {
    int counters[8] = {};
    unsigned total = 0;
    for (std::size_t cell = 0; cell < 16; ++cell) {
      const std::size_t i = (block / bcols * 4 + cell / 4) * gcols + block % bcols * 4 + cell % 4;
      ++counters[(directions[i] >> 4) - 1];
      total += means[i];
    }
    float coherence = 0;
    for (const int counter : counters) {
      coherence = std::max(coherence, static_cast<float>(counter) / 16);
    }
    grades[block] = static_cast<std::uint8_t>(static_cast<float>(total / 16) * coherence);
  }
  plainSmooth(grades, brows, bcols);
  return grades;
}

void ourGradients(const Bytes &image, Size size) {
  std::uint16_t **maps = FpGetImg4DirectionGradsEx(image->data(), size.height, size.width, 4);
  std::for_each_n(maps, 4, std::free);
  std::free(maps);
}

void ourQuality(const Bytes &image, Size size) {
  BlockQualityMap map = {};
  ImageBlkQuality(&map, image->data(), size.height, size.width, 0);
  std::free(map.grades);
}

void reduceWithOpenCv(const Bytes &image, Size size) {
  const cv::Mat picture(size.height, size.width, CV_8U, image->data());
  cv::Mat rows, columns;
  cv::reduce(picture, rows, 1, cv::REDUCE_SUM, CV_32S);
  cv::reduce(picture, columns, 0, cv::REDUCE_SUM, CV_32S);
}

const Registration kQuality([] {
  std::vector<Pair> pairs;
  for (const Size size : kSizes) {
    const auto image = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(size.height, size.width));
    const auto copy = std::make_shared<std::vector<std::uint8_t>>(image->size());
    const auto sums = std::make_shared<std::vector<std::int32_t>>(2048);
    const auto copying = [=] { std::memcpy(copy->data(), image->data(), image->size()); };
    const auto gradients = [=] { ourGradients(image, size); };
    const auto quality = [=] { ourQuality(image, size); };
    const auto plain = [=] { plainGradients(image->data(), size.height, size.width, 4); };
    const auto plainGrades = [=] { plainQuality(image->data(), size.height, size.width); };
    const auto reduce = [=] { reduceWithOpenCv(image, size); };
    pairs.push_back({named("FpGetImg4DirectionGradsEx", size), "the literal loop", gradients, plain, 0.125});
    pairs.push_back({named("FpGetImg4DirectionGradsEx", size), "memcpy of the picture", gradients, copying, 1e9});
    pairs.push_back({named("ImageBlkQuality", size), "the literal loop", quality, plainGrades, 0.125});
    pairs.push_back({named("ImageBlkQuality", size), "memcpy of the picture", quality, copying, 1e9});
    pairs.push_back({named("NotContinue", size), "cv::reduce, rows and columns",
                     [=] { NotContinue(image->data(), size.height, size.width, 200); }, reduce});
    pairs.push_back({named("Project", size) + ", both modes", "cv::reduce, rows and columns",
                     [=] {
                       Project(sums->data(), image->data(), size.height, size.width, 0);
                       Project(sums->data(), image->data(), size.height, size.width, 1);
                     },
                     reduce});
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
