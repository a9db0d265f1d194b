// SPDX-License-Identifier: Apache-2.0
#include "image/support/angles.h"

#include <cmath>

#include "image/support/precise_trigonometry.h"
#include "tests/support/samples.h"

namespace {

using kelm::test::Random;
using namespace kelm::image;
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
      EXPECT_PRED2(close, arcTangent(y, x), std::atan2(y, x)) << y << ' ' << x;
      EXPECT_PRED2(close, preciseArcTangent(y, x), std::atan2(y, x)) << y << ' ' << x;
    }
  }
  for (int i = 0; i < 200000; ++i) {
    const double y = (random(65536) - 32768) * std::exp2(random(16));
    const double x = (random(65536) - 32768) * std::exp2(random(16));
    ASSERT_PRED2(close, arcTangent(y, x), std::atan2(y, x)) << y << ' ' << x;
    const double angle = static_cast<double>(static_cast<float>(std::abs(std::atan2(y, x))));
    ASSERT_PRED2(close, cosineAndSine(angle).cosine, std::cos(angle)) << angle;
    ASSERT_PRED2(close, cosineAndSine(angle).sine, std::sin(angle)) << angle;
  }
}

// At most half a unit in the last place from the true value, for which a longer format stands.
TEST(Angles, PreciseValuesAreRoundedCorrectly) {
  Random random(12);
  const auto rounded = [](double value, long double expected) {
    const double unit = std::nextafter(std::abs(value), HUGE_VAL) - std::abs(value);
    return std::abs(value - expected) <= unit * 0.502L;
  };
  for (int i = 0; i < 20000; ++i) {
    const double y = (random(65536) - 32768) * std::exp2(random(16) - i % 40);
    const double x = (random(65536) - 32768) * std::exp2(random(16));
    ASSERT_PRED2(rounded, preciseArcTangent(y, x), std::atan2(static_cast<long double>(y), x)) << y << ' ' << x;
    const float angle = static_cast<float>(std::atan2(y, x));
    const CosineAndSine values = preciseCosineAndSine(static_cast<double>(angle));
    ASSERT_PRED2(rounded, values.cosine, std::cos(static_cast<long double>(angle))) << angle;
    ASSERT_PRED2(rounded, values.sine, std::sin(static_cast<long double>(angle))) << angle;
  }
}

// The true values lie within 2^-52 of one where the rounding turns, so the last bit of a double decides. Found by a
// search through all floats, and through points; the values were computed to 113 bits.
TEST(Angles, AmbiguousValuesAreDecidedInDoublePrecision) {
  const struct {
    std::int32_t y, x;
    float angle;
  } points[] = {{7559, 6406, 0x1.bc4cfcp-1F}, {3982, -677, 0x1.bd3c4ap+0F}};
  for (const auto &c : points) {
    float angle = 0;
    pointAngles(&angle, &c.y, &c.x, 1);
    EXPECT_EQ(angle, c.angle);
  }
  const struct { float angle, cosine; } angles[] = {{0x1p-12F, 1.0F}, {-0x1.20ffccp-7F, 0x1.fffae8p-1F}};
  for (const auto &c : angles) {
    float cosine = 0;
    float sine = 0;
    cosinesAndSines(&cosine, &sine, &c.angle, 1);
    EXPECT_EQ(cosine, c.cosine);
  }
  const struct {
    float y, x;
    std::int16_t degrees;
  } halves[] = {{0x1.b8e04p-5F, -0x1.8a884ap+0F, 89}, {0x1.cfda2cp+3F, -0x1.8605cep+0F, 48}};
  for (const auto &c : halves) {
    std::int16_t degrees = 0;
    halfPointAngles(&degrees, &c.y, &c.x, 1);
    EXPECT_EQ(degrees, c.degrees);
  }
}

// Points next to the whole degrees.
TEST(Angles, WholeDegreesEqualTheCLibrary) {
  Random random(12);
  constexpr std::size_t kPoints = 1 << 18;
  std::vector<float> y(kPoints), x(kPoints);
  std::vector<std::int16_t> degrees(kPoints);
  for (std::size_t i = 0; i < kPoints; ++i) {
    const double angle = (random(179) - 89) * kPi / 90.0;
    const double length = 1 + random(1 << 20) * 0x1p-20;
    x[i] = static_cast<float>(length * std::cos(angle));
    y[i] = static_cast<float>(static_cast<double>(x[i]) * std::tan(angle));
  }
  halfPointAngles(degrees.data(), y.data(), x.data(), kPoints);
  for (std::size_t i = 0; i < kPoints; ++i) {
    const double exact = std::atan2(static_cast<double>(y[i]), static_cast<double>(x[i])) * 57.295779513 / 2.0;
    ASSERT_EQ(degrees[i], static_cast<std::int16_t>(exact)) << y[i] << ' ' << x[i];
  }
}

}  // namespace
