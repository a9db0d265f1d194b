// SPDX-License-Identifier: Apache-2.0
// The reader of WSQ against a plain encoder that is written the other way round: direct sums, recursion, codes of eight
// bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tools/image/wsq.h"

namespace {

using kelm::tools::decodeWsq;
using kelm::tools::WsqError;
using kelm::tools::WsqPicture;
using Bytes = std::vector<std::uint8_t>;
using Line = std::vector<double>;

constexpr int kEdge = 8192;
constexpr std::size_t kArea = 8U << 20;

// The bureau's analysis filters, from the centre outwards, times 10 to the 9th.
constexpr std::array<int, 5> kLow{852698679, 377402855, -110624404, -23849465, 37828455};
constexpr std::array<int, 4> kHigh{788485616, -418092273, -40689417, 64538882};

struct Encoder {
  int width, height;
  std::vector<double> plane;
  double bin = 0.25;
  Bytes bytes{};
  std::size_t zeros = 0;

  void number(unsigned value, int count) {
    while (count-- > 0) bytes.push_back(static_cast<std::uint8_t>(value >> 8 * count));
  }
  void segment(unsigned marker, unsigned length) {
    number(marker, 2);
    number(length + 2, 2);
  }

  template <typename Taps>
  static double filtered(const Line &line, int at, const Taps &taps) {
    const int length = static_cast<int>(line.size());
    const auto sample = [&](int i) {
      while (length > 1 && (i < 0 || i >= length)) i = i < 0 ? -i : 2 * (length - 1) - i;
      return line[static_cast<std::size_t>(length > 1 ? i : 0)];
    };
    double sum = taps[0] * sample(at);
    for (int k = 1; k < static_cast<int>(taps.size()); ++k) {
      sum += taps[static_cast<std::size_t>(k)] * (sample(at - k) + sample(at + k));
    }
    return sum * 1e-9;
  }

  static Line halves(const Line &line, bool mirrored) {
    Line low, high;
    for (int i = 0; i < static_cast<int>(line.size()); ++i) {
      (i % 2 == 0 ? low : high).push_back(i % 2 == 0 ? filtered(line, i, kLow) : filtered(line, i, kHigh));
    }
    Line &first = mirrored ? high : low;
    const Line &second = mirrored ? low : high;
    first.insert(first.end(), second.begin(), second.end());
    return first;
  }

  struct Part {
    int x, y, columns, rows;
    bool mirroredX, mirroredY;
  };

  double &at(int x, int y) { return plane[static_cast<std::size_t>(y * width + x)]; }

  std::array<Part, 4> split(const Part &part) {
    for (int y = part.y; y < part.y + part.rows; ++y) {
      Line row;
      for (int x = 0; x < part.columns; ++x) row.push_back(at(part.x + x, y));
      row = halves(row, part.mirroredX);
      for (int x = 0; x < part.columns; ++x) at(part.x + x, y) = row[static_cast<std::size_t>(x)];
    }
    for (int x = part.x; x < part.x + part.columns; ++x) {
      Line column;
      for (int y = 0; y < part.rows; ++y) column.push_back(at(x, part.y + y));
      column = halves(column, part.mirroredY);
      for (int y = 0; y < part.rows; ++y) at(x, part.y + y) = column[static_cast<std::size_t>(y)];
    }
    const int left = (part.columns + (part.mirroredX ? 0 : 1)) / 2;
    const int top = (part.rows + (part.mirroredY ? 0 : 1)) / 2;
    return {{{part.x, part.y, left, top, false, false},
             {part.x + left, part.y, part.columns - left, top, true, false},
             {part.x, part.y + top, left, part.rows - top, false, true},
             {part.x + left, part.y + top, part.columns - left, part.rows - top, true, true}}};
  }

  void splitInto(std::vector<Part> &leaves, const Part &part, int levels) {
    if (levels == 0) return leaves.push_back(part);
    for (const Part &quarter : split(part)) splitInto(leaves, quarter, levels - 1);
  }

  void symbol(unsigned code) {
    bytes.push_back(static_cast<std::uint8_t>(code));
    if (bytes.back() == 0xFF) bytes.push_back(0);
  }
  void endRun() {
    for (; zeros > 0xFF; zeros -= std::min<std::size_t>(zeros, 0xFFFF)) {
      symbol(105);  // 106: the codes are those of the symbols less one
      symbol(static_cast<unsigned>(std::min<std::size_t>(zeros, 0xFFFF) >> 8));
      symbol(static_cast<unsigned>(std::min<std::size_t>(zeros, 0xFFFF) & 0xFF));
    }
    if (zeros > 100) {
      symbol(104);
      symbol(static_cast<unsigned>(zeros));
    } else if (zeros > 0) {
      symbol(static_cast<unsigned>(zeros) - 1);
    }
    zeros = 0;
  }
  void coefficient(double value) {
    const auto size = static_cast<unsigned>(std::max(0.0, std::floor((std::abs(value) - 0.6 * bin) / bin) + 1));
    if (size == 0) return static_cast<void>(++zeros);
    endRun();
    const unsigned sign = value < 0 ? 1 : 0;
    if (size <= 73) return symbol(value < 0 ? 179 - size : 179 + size);
    symbol((size > 0xFF ? 102 : 100) + sign);
    if (size > 0xFF) symbol(size >> 8);
    symbol(size & 0xFF);
  }

  Bytes encode() {
    number(0xFFA0, 2);
    const std::string comment = "NIST_COM 2\nPPI 1000\nLOSSY 1\n";
    segment(0xFFA8, static_cast<unsigned>(comment.size()));
    bytes.insert(bytes.end(), comment.begin(), comment.end());
    segment(0xFFA4, 2 + 6 * 9);
    bytes.insert(bytes.end(), {9, 7});
    const auto tap = [&](int value) {
      bytes.insert(bytes.end(), {static_cast<std::uint8_t>(value < 0), 9});
      number(static_cast<unsigned>(std::abs(value)), 4);
    };
    std::for_each(kLow.begin(), kLow.end(), tap);
    std::for_each(kHigh.begin(), kHigh.end(), tap);
    segment(0xFFA5, 3 + 64 * 6);
    bytes.insert(bytes.end(), {2, 0, 44});
    for (int band = 0; band < 64; ++band) {
      bytes.push_back(4);
      number(static_cast<unsigned>(bin * 1e4), 2);
      bytes.push_back(4);
      number(static_cast<unsigned>(bin * 1.2e4), 2);
    }
    segment(0xFFA2, 15);
    bytes.insert(bytes.end(), {0, 255});
    number(static_cast<unsigned>(height), 2);
    number(static_cast<unsigned>(width), 2);
    bytes.insert(bytes.end(), {1, 4, 0xE2, 2, 0, 150, 0, 0, 0});  // shift 125, scale 1.5
    segment(0xFFA6, 1 + 16 + 254);
    bytes.push_back(3);
    for (int length = 1; length <= 16; ++length) bytes.push_back(length == 8 ? 254 : 0);
    for (int value = 1; value <= 254; ++value) bytes.push_back(static_cast<std::uint8_t>(value));

    for (double &value : plane) value = (value - 125) / 1.5;
    std::vector<Part> leaves;
    const auto quarters = split({0, 0, width, height, false, false});
    const auto inner = split(quarters[0]);
    const auto innermost = split(inner[0]);
    const auto lowest = split(innermost[0]);
    splitInto(leaves, lowest[0], 1);
    leaves.insert(leaves.end(), lowest.begin() + 1, lowest.end());
    for (std::size_t i = 1; i < 4; ++i) splitInto(leaves, innermost[i], 1);
    splitInto(leaves, inner[1], 2);
    splitInto(leaves, inner[2], 2);
    leaves.push_back(inner[3]);
    for (std::size_t i = 1; i < 4; ++i) splitInto(leaves, quarters[i], 1);
    for (std::size_t band = 0; band < leaves.size(); ++band) {
      if (band == 0 || band == 19 || band == 52) {
        endRun();
        segment(0xFFA3, 1);
        bytes.push_back(3);
      }
      const Part &leaf = leaves[band];
      for (int y = leaf.y; y < leaf.y + leaf.rows; ++y) {
        for (int x = leaf.x; x < leaf.x + leaf.columns; ++x) coefficient(at(x, y));
      }
    }
    endRun();
    number(0xFFA1, 2);
    return bytes;
  }
};

// Waves, noise and, in the right half, nothing: long runs of zeros.
std::vector<double> pictureOf(int width, int height) {
  std::mt19937 random(7);
  std::vector<double> grey;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      grey.push_back(x > 40 && x > width / 2
                         ? 200
                         : std::floor(120 + 90 * std::sin(x * 0.7 + y * 0.2) + static_cast<double>(random() % 40)));
    }
  }
  return grey;
}

TEST(Wsq, EverySizeComesBackWithinAGreyLevel) {
  for (const auto &[width, height] :
       {std::pair{1, 1}, {2, 1}, {1, 9}, {3, 5}, {17, 33}, {64, 64}, {101, 75}, {600, 231}}) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    const std::vector<double> grey = pictureOf(width, height);
    const WsqPicture picture = decodeWsq(Encoder{width, height, grey}.encode(), kEdge, kArea);
    ASSERT_EQ(picture.width, width);
    ASSERT_EQ(picture.height, height);
    EXPECT_EQ(picture.pixelsPerInch, 1000);
    double worst = 0;
    for (std::size_t i = 0; i < grey.size(); ++i) worst = std::max(worst, std::abs(grey[i] - picture.samples[i]));
    EXPECT_LE(worst, 1);
  }
}

TEST(Wsq, WhatIsCutOffOrDamagedIsRefused) {
  const Bytes whole = Encoder{33, 20, pictureOf(33, 20)}.encode();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_THROW(decodeWsq(cut, kEdge, kArea), WsqError) << length << " bytes";
  }
  EXPECT_THROW(decodeWsq(whole, 32, kArea), WsqError);
  EXPECT_THROW(decodeWsq(whole, kEdge, 659), WsqError);
  // A damaged byte gives another picture or an error, never one of another size than declared.
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (const int value : {0x00, 0x7F, 0xFF}) {
      Bytes damaged = whole;
      damaged[i] = static_cast<std::uint8_t>(value);
      try {
        const WsqPicture picture = decodeWsq(damaged, kEdge, kArea);
        EXPECT_EQ(picture.samples.size(),
                  static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height));
      } catch (const WsqError &) {
      }
    }
  }
}

}  // namespace
