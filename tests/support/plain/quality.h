// SPDX-License-Identifier: Apache-2.0
// Gradients and block quality as plain loops: what the tests compare with and the measurements are made against.
#ifndef KELMTROVA_TESTS_SUPPORT_PLAIN_QUALITY_H
#define KELMTROVA_TESTS_SUPPORT_PLAIN_QUALITY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace kelm::plain {

using Maps = std::vector<std::vector<std::uint16_t>>;

// `border`: points left at 0 at the far edges.
inline Maps gradients(const std::uint8_t *image, int height, int width, int step, int border = 1) {
  constexpr int kOffsets[4][6][2] = {{{-3, 0}, {-2, 0}, {-1, 0}, {1, 0}, {2, 0}, {3, 0}},
                                     {{-3, 3}, {-2, 2}, {-1, 1}, {1, -1}, {2, -2}, {3, -3}},
                                     {{0, 3}, {0, 2}, {0, 1}, {0, -1}, {0, -2}, {0, -3}},
                                     {{-3, -3}, {-2, -2}, {-1, -1}, {1, 1}, {2, 2}, {3, 3}}};
  const int rows = height / step;
  const int cols = width / step;
  Maps maps(4);
  for (std::size_t d = 0; d < 4; ++d) {
    maps[d].resize(static_cast<std::size_t>(rows * cols));
    for (int gy = 1; gy < rows - border; ++gy) {
      for (int gx = 1; gx < cols - border; ++gx) {
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

inline void smooth(std::vector<std::uint8_t> &image, std::size_t height, std::size_t width) {
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

// The grades of the whole blocks, from maps of any values.
inline std::vector<std::uint8_t> blockGrades(const Maps &maps, int height, int width) {
  const std::size_t gcols = static_cast<std::size_t>(width / 4);
  std::vector<std::uint8_t> means(maps[0].size());
  std::vector<std::uint8_t> directions(maps[0].size());
  for (std::size_t i = 0; i < means.size(); ++i) {
    int sum = 0;
    std::size_t least = 0;
    for (std::size_t d = 0; d < 4; ++d) {
      const auto value = static_cast<std::int16_t>(maps[d][i]);
      sum += value;
      least = value < static_cast<std::int16_t>(maps[least][i]) ? d : least;
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
  smooth(grades, brows, bcols);
  return grades;
}

}  // namespace kelm::plain

#endif
