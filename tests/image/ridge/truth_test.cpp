// SPDX-License-Identifier: Apache-2.0
// What the functions make of ridge pictures whose truth is known.
#include <cmath>
#include <cstdlib>
#include <numeric>

#include "tests/support/fields.h"
#include "tests/support/ridges.h"

namespace {

using kelm::test::Bytes;
using kelm::test::call;
using kelm::test::Owned;
using kelm::test::RidgePicture;

// From a picture at half the resolution.
struct Fields : kelm::test::DirectionFields {
  explicit Fields(const RidgePicture &half) {
    EXPECT_EQ(compute(half.pixels.data(), {half.height, half.width, 2 * half.height, 2 * half.width, 9}), 0);
  }
};

double apart(double a, double b) { return std::abs(std::remainder(a - b, 180)); }

TEST(Truth, DirectionAndPeriodOfStraightRidges) {
  for (int degrees = -90; degrees <= 90; degrees += 10) {
    for (const double period : {7.0, 9.0, 11.0}) {
      const Fields fields(kelm::test::straightRidges(96, 96, degrees, period / 2));
      const FingerprintBlockField &field = fields.direction8;
      // At 3.5 samples for a ridge at half resolution the Sobel operator itself favours the axes and the diagonals.
      const double tolerance = period < 9 ? 5 : 3;
      for (int r = 4; r < field.rows - 4; ++r) {
        for (int c = 4; c < field.cols - 4; ++c) {
          EXPECT_LE(apart(field.data[r * field.cols + c], degrees), tolerance) << degrees << ' ' << period;
        }
      }
      // The frequency expects the picture flipped vertically relative to the field.
      const RidgePicture full = kelm::test::straightRidges(192, 192, -degrees, period);
      std::uint8_t *map = nullptr;
      ASSERT_EQ(FpGetFrequency(full.pixels.data(), 192, 192, &field, &map), 0);
      const Owned<std::uint8_t> owner(map);
      int right = 0;
      for (int cy = 8; cy < 40; ++cy) {
        for (int cx = 8; cx < 40; ++cx) {
          right += std::abs(map[cy * 48 + cx] / 8.0 - period) <= 1 ? 1 : 0;
        }
      }
      EXPECT_GE(right, 32 * 32 * 95 / 100) << degrees << ' ' << period;
    }
  }
}

TEST(Truth, TheCoreOfALoopIsWhereTheDirectionTurns) {
  const Fields fields(kelm::test::loopRidges(128, 128, 60, 52, 4.5));
  const FingerprintBlockField &turn = fields.orientGrad;
  int best = 0;
  for (int i = 0; i < turn.rows * turn.cols; ++i) {
    best = turn.data[i] > turn.data[best] ? i : best;
  }
  EXPECT_NEAR(best / turn.cols * 4 + 2, 52, 8);
  EXPECT_NEAR(best % turn.cols * 4 + 2, 60, 8);
}

// Mean strength of the gradient around every pixel.
RidgePicture gradients(const RidgePicture &p) {
  RidgePicture strength = RidgePicture::of(p.height, p.width, [&](int x, int y) {
    const auto at = [&](int u, int v) -> int {
      return p
          .pixels[static_cast<std::size_t>(std::clamp(v, 0, p.height - 1) * p.width + std::clamp(u, 0, p.width - 1))];
    };
    return (std::abs(at(x + 1, y) - at(x - 1, y)) + std::abs(at(x, y + 1) - at(x, y - 1))) / 2.0;
  });
  call(fvs_ImageMeanChar2Char, strength.pixels.data(), Bytes(strength.pixels).data(), p.height, p.width, 9, 9);
  return strength;
}

TEST(Truth, TheMarginIsBackground) {
  RidgePicture finger = kelm::test::concentricRidges(240, 200, 90, 130, 9);
  kelm::test::addMargin(&finger, 40);
  for (const auto method : {FpThresholdingGradsImage, FpThresholdingGradsImageEx}) {
    RidgePicture mask = gradients(finger);
    method(mask.pixels.data(), 240, 200);
    int wrong = 0;
    int seen = 0;
    for (int y = 8; y < 232; ++y) {
      for (int x = 8; x < 192; ++x) {
        const int edge = std::min(std::min(x, y), std::min(199 - x, 239 - y));
        if (edge < 34 || edge > 46) {
          ++seen;
          wrong += (mask.at(x, y) != 0) != (edge > 46) ? 1 : 0;
        }
      }
    }
    EXPECT_LE(wrong, seen / 50);
  }
}

int meanQuality(const RidgePicture &p) {
  BlockQualityMap map = {};
  EXPECT_EQ(call(ImageBlkQuality, &map, p.pixels.data(), p.height, p.width, 0), 0U);
  const Owned<std::uint8_t> owner(map.grades);
  return std::accumulate(map.grades, map.grades + map.rows * map.cols, 0) / (map.rows * map.cols);
}

TEST(Truth, NoiseHasALowerQualityThanRidges) {
  const int disorder = meanQuality(kelm::test::noise(160, 160, 4));
  for (const int degrees : {0, 30, 45, 90, 135}) {
    EXPECT_GT(meanQuality(kelm::test::straightRidges(160, 160, degrees, 9)), 2 * disorder) << degrees;
  }
}

TEST(Truth, AGapBreaksThePictureUp) {
  RidgePicture finger = kelm::test::straightRidges(160, 160, 70, 9);
  EXPECT_EQ(NotContinue(finger.pixels.data(), 160, 160, 200), 0);
  kelm::test::addGap(&finger, 70, 84);
  EXPECT_EQ(NotContinue(finger.pixels.data(), 160, 160, 200), 1);
}

}  // namespace
