// SPDX-License-Identifier: Apache-2.0
// The transform bit for bit against its literal loop; every angle that it can meet against the C library.
#include <cmath>
#include <cstring>
#include <utility>

#include "image/buffers/twiddle.h"
#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using kelm::test::Guarded;
using kelm::test::same;
using Signal = std::vector<float>;

void literalTransform(Signal &re, Signal &im) {
  const std::size_t n = re.size();
  auto e = static_cast<float>(6.283185307179586 / static_cast<double>(static_cast<float>(n)));
  for (std::size_t span = n; span > 1; span /= 2) {
    const std::size_t half = span / 2;
    float a = 0;
    for (std::size_t j = 0; j < half; ++j) {
      const auto c = static_cast<float>(std::cos(static_cast<double>(a)));
      const auto s = static_cast<float>(std::sin(static_cast<double>(a)));
      a = a + e;
      for (std::size_t p = j; p < n; p += span) {
        const std::size_t q = p + half;
        const float xt = re[p] - re[q];
        const float yt = im[p] - im[q];
        re[p] = re[p] + re[q];
        im[p] = im[p] + im[q];
        re[q] = c * xt + s * yt;
        im[q] = c * yt - s * xt;
      }
    }
    e = e + e;
  }
  std::size_t j = 0;
  for (std::size_t i = 0; i + 1 < n; ++i) {
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
    std::size_t m = n / 2;
    while (m <= j) {
      j -= m;
      m /= 2;
    }
    j += m;
  }
}

TEST(Fourier, EqualsTheLiteralLoopBitForBit) {
  std::mt19937 random(3);
  std::uniform_real_distribution<float> sample(-1000, 1000);
  for (std::uint16_t n = 2; n <= 16384; n = static_cast<std::uint16_t>(2 * n)) {
    // The random signal meets every twiddle; an impulse at 1 would show each of them alone.
    for (const bool impulse : {false, true}) {
      Signal re(n), im(n);
      for (std::size_t i = 0; i < n; ++i) {
        re[i] = impulse ? static_cast<float>(i == 1) : sample(random);
        im[i] = impulse ? 0 : sample(random);
      }
      const Guarded<float> reGot(re, kelm::test::Guard::kAfter), imGot(im, kelm::test::Guard::kBefore);
      FFT(reGot.data(), imGot.data(), n);
      literalTransform(re, im);
      for (std::size_t i = 0; i < n; ++i) {
        re[i] /= static_cast<float>(n);
        im[i] /= static_cast<float>(n);
      }
      EXPECT_TRUE(same(reGot.data(), re) && same(imGot.data(), im)) << "forward " << n;
      IFFT(reGot.data(), imGot.data(), n);
      literalTransform(re, im);
      EXPECT_TRUE(same(reGot.data(), re) && same(imGot.data(), im)) << "inverse " << n;
    }
  }
}

TEST(Fourier, FactorsEqualTheCLibraryAtEveryAngle) {
  for (std::uint32_t half = 1; half <= 8192; half *= 2) {
    const auto step = static_cast<float>(6.283185307179586 / (2.0 * half));
    Signal angles(half), c(half), s(half), cosines(half), sines(half);
    float angle = 0;
    for (float &a : angles) {
      a = angle;
      angle += step;
    }
    c = angles;
    kelm::image::computeTwiddles(c.data(), s.data(), half);
    for (std::size_t j = 0; j < half; ++j) {
      cosines[j] = static_cast<float>(std::cos(static_cast<double>(angles[j])));
      sines[j] = static_cast<float>(std::sin(static_cast<double>(angles[j])));
    }
    ASSERT_TRUE(same(c.data(), cosines) && same(s.data(), sines)) << half;
  }
}

TEST(Fourier, TouchesNothingWithoutAProperLength) {
  for (const std::int32_t n : {-16384, -1, 0, 1, 3, 6, 127, 129, 16383, 32768, 65535, 65536, INT32_MIN, INT32_MAX}) {
    float re = 1, im = 2;  // any access behind them is reported by the sanitizers
    IFFT(&re, &im, n);
    if (n >= 0 && n <= 65535) {
      FFT(&re, &im, static_cast<std::uint16_t>(n));
    }
    EXPECT_TRUE(re == 1 && im == 2) << n;
  }
  float two[2] = {1, 2};
  FFT(nullptr, two, 2);
  FFT(two, nullptr, 2);
  IFFT(nullptr, two, 2);
  IFFT(two, nullptr, 2);
  EXPECT_TRUE(two[0] == 1 && two[1] == 2);
}

}  // namespace
