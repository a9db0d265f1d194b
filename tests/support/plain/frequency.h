// SPDX-License-Identifier: Apache-2.0
// FpGetFrequency as a plain loop, cell after cell and point by point: what the tests compare with and the measurements
// are made against.
#ifndef KELMTROVA_TESTS_SUPPORT_PLAIN_FREQUENCY_H
#define KELMTROVA_TESTS_SUPPORT_PLAIN_FREQUENCY_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelmtrova/image.h"

namespace kelm::plain {

class Frequency {
 public:
  Frequency() {
    for (int d = 0; d <= 180; ++d) {
      const double angle = static_cast<float>(d * 3.141592653589793 / 180.0);
      cosine_[d] = static_cast<std::int16_t>(256.0 * std::cos(angle));
      sine_[d] = static_cast<std::int16_t>(256.0 * std::sin(angle));
    }
  }

  std::vector<std::uint8_t> run(const std::uint8_t *pixels, int height, int width, const FingerprintBlockField &field) {
    pixels_ = pixels;
    height_ = height;
    width_ = width;
    const int cellRows = height / 4;
    const int cellCols = width / 4;
    std::vector<std::uint8_t> map(static_cast<std::size_t>(cellRows * cellCols), 255);
    for (int cy = 0; cy < cellRows; ++cy) {
      for (int cx = 0; cx < cellCols; ++cx) {
        const int bx = std::min<int>(cx / 2, field.cols - 1);
        const int by = std::min<int>(cy / 2, field.rows - 1);
        int direction = field.data[bx + field.cols * (field.rows - 1 - by)];
        direction = direction < -180 || direction > 180 ? direction % 180 : direction;
        direction += direction < 0 ? 180 : 0;
        sample(cx * 4, cy * 4, cosine_[direction], sine_[direction]);
        const int value = period();
        if (value >= 0) {
          map[static_cast<std::size_t>(cy * cellCols + cx)] = static_cast<std::uint8_t>(std::min(value, 255));
        }
      }
    }
    return map;
  }

 private:
  void sample(int x, int y, int c, int s) {
    for (int k = -16; k <= 16; ++k) {
      const int px = x - ((k * s) >> 8);
      const int py = y + ((k * c) >> 8);
      int sum = 0;
      int count = 0;
      const auto add = [&](int column, int row) {
        if (column >= 0 && column < width_ && row >= 0 && row < height_) {
          sum += pixels_[row * width_ + column];
          ++count;
        }
      };
      add(px, py);
      for (int j = 1; j <= 2; ++j) {
        const int u = (j * c) >> 8;
        const int v = (j * s) >> 8;
        add(px + u, py + v);
        add(px - u, py - v);
      }
      if (count > 0) {
        profile_[k + 16] = static_cast<std::uint8_t>(sum / count);
      }
    }
  }

  int period() {
    int peaks[33], valleys[33];
    int peakCount = 0, valleyCount = 0;
    int peakStart = -1, peakEnd = -1, valleyStart = -1, valleyEnd = -1;
    const std::uint8_t *p = profile_;
    for (int i = 1; i <= 31; ++i) {
      if (p[i - 1] < p[i] && p[i] >= p[i + 1]) peakStart = i;
      if (p[i - 1] <= p[i] && p[i] > p[i + 1]) peakEnd = i;
      if (peakStart >= 0 && peakEnd >= peakStart) {
        peaks[peakCount++] = (peakStart + peakEnd) / 2;
        peakStart = peakEnd = -1;
      }
      if (p[i - 1] > p[i] && p[i] <= p[i + 1]) valleyStart = i;
      if (p[i - 1] >= p[i] && p[i] < p[i + 1]) valleyEnd = i;
      if (valleyStart >= 0 && valleyEnd >= valleyStart) {
        valleys[valleyCount++] = (valleyStart + valleyEnd) / 2;
        valleyStart = valleyEnd = -1;
      }
    }
    if (peakCount > 2 || valleyCount > 2) {
      return peakCount > 2 ? commonGap(peaks, peakCount) : commonGap(valleys, valleyCount);
    }
    if (peakCount == 2 && valleyCount == 2) {
      const int span = peaks[0] > valleys[0] ? peaks[1] - valleys[0] : valleys[1] - peaks[0];
      return 2 * ((8 * span) / 3);
    }
    return -1;
  }

  static int commonGap(const int *list, int count) {
    std::uint8_t gaps[100] = {};
    for (int i = 1; i < count; ++i) {
      ++gaps[list[i] - list[i - 1]];
    }
    int best = 0;
    int common = 0;
    for (int d = 2; d <= 49; ++d) {
      const int sum = static_cast<std::uint8_t>(gaps[d - 1] + gaps[d] + gaps[d + 1]);
      if (sum >= best) {
        best = sum;
        common = d;
      }
    }
    return 8 * common;
  }

  const std::uint8_t *pixels_ = nullptr;
  int height_ = 0, width_ = 0;
  std::int16_t cosine_[181], sine_[181];
  std::uint8_t profile_[33] = {};
};

}  // namespace kelm::plain

#endif
