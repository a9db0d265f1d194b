// SPDX-License-Identifier: Apache-2.0
// The library keeps these functions to itself, so they are compiled into the test.
#include "image/ridge/angles.cpp"

#include "tests/support/samples.h"

namespace {

using kelm::test::Random;
constexpr double kPi = 3.14159265358979311600;

// Far more exact than the rounding that is built on them allows for; the signs of zeros included.
TEST(Angles, PolynomialsFollowTheCLibrary) {
  Random random(11);
  const auto close = [](double value, double expected) {
    return std::abs(value - expected) <= std::abs(expected) * 0x1p-48 && std::signbit(value) == std::signbit(expected);
  };
  const double corners[] = {0.0, -0.0, 1.0, -1.0, 0.41421356237309503, 0x1p-100, -0x1p31};
  for (const double y : corners) {
    for (const double x : corners) {
      EXPECT_PRED2(close, kelm::image::arcTangent(y, x), std::atan2(y, x)) << y << ' ' << x;
    }
  }
  for (int i = 0; i < 200000; ++i) {
    const double y = (random(65536) - 32768) * std::exp2(random(16));
    const double x = (random(65536) - 32768) * std::exp2(random(16));
    ASSERT_PRED2(close, kelm::image::arcTangent(y, x), std::atan2(y, x)) << y << ' ' << x;
    const double angle = static_cast<double>(static_cast<float>(std::abs(std::atan2(y, x))));
    ASSERT_PRED2(close, kelm::image::cosineAndSine(angle).cosine, std::cos(angle)) << angle;
    ASSERT_PRED2(close, kelm::image::cosineAndSine(angle).sine, std::sin(angle)) << angle;
  }
}

// Points next to the whole degrees, where some are so close that the C library has to decide.
TEST(Angles, WholeDegreesEqualTheCLibrary) {
  Random random(12);
  constexpr std::size_t kPoints = 1 << 20;
  std::vector<float> y(kPoints), x(kPoints);
  std::vector<std::int16_t> degrees(kPoints);
  int doubts = 0;
  for (std::size_t i = 0; i < kPoints; ++i) {
    const double angle = (random(179) - 89) * kPi / 90.0;
    const double length = 1 + random(1 << 20) * 0x1p-20;
    x[i] = static_cast<float>(length * std::cos(angle));
    y[i] = static_cast<float>(static_cast<double>(x[i]) * std::tan(angle));
  }
  kelm::image::halfPointAngles(degrees.data(), y.data(), x.data(), kPoints);
  for (std::size_t i = 0; i < kPoints; ++i) {
    const double exact = std::atan2(static_cast<double>(y[i]), static_cast<double>(x[i])) * 57.295779513 / 2.0;
    ASSERT_EQ(degrees[i], static_cast<std::int16_t>(exact)) << y[i] << ' ' << x[i];
    doubts += std::abs(exact - std::round(exact)) < std::abs(exact) * 0x1p-41 ? 1 : 0;
  }
  EXPECT_GT(doubts, 0);
}

}  // namespace
