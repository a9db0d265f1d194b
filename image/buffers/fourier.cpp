// Radix-2 decimation in frequency: butterflies first, bit reversal afterwards.
//
// The angle of a twiddle is a running single-precision sum. The step of a stage with `half` butterflies per block is
// fl(2 pi) / (2 * half) whatever the length of the transform, for halving and doubling are exact: so there are 16383
// angles in all.
#include "image/buffers/fourier.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "image/support/dispatch.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::uint32_t kLongest = 16384;
constexpr std::uint32_t kStrip = 256;  // twiddles held at a time

// The factors c = cos(a), s = sin(a) of `count` butterflies from angle `a` on; returns the angle after the last.
float computeTwiddles(float *c, float *s, std::uint32_t count, float a, float step) {
  for (std::uint32_t j = 0; j < count; ++j) {
    c[j] = static_cast<float>(std::cos(static_cast<double>(a)));
    s[j] = static_cast<float>(std::sin(static_cast<double>(a)));
    a += step;
  }
  return a;
}

KELM_INLINE void butterfliesBody(float *__restrict reP, float *__restrict imP, float *__restrict reQ,
                                 float *__restrict imQ, const float *__restrict c, const float *__restrict s,
                                 std::uint32_t count) {
  for (std::uint32_t j = 0; j < count; ++j) {
    const float xt = reP[j] - reQ[j];
    const float yt = imP[j] - imQ[j];
    reP[j] = reP[j] + reQ[j];
    imP[j] = imP[j] + imQ[j];
    reQ[j] = c[j] * xt + s[j] * yt;
    imQ[j] = c[j] * yt - s[j] * xt;
  }
}

KELM_KERNEL(void, butterflies,
            (float *reP, float *imP, float *reQ, float *imQ, const float *c, const float *s, std::uint32_t count),
            (reP, imP, reQ, imQ, c, s, count), butterfliesBody)

void runStage(float *re, float *im, std::uint32_t n, std::uint32_t half, float step) {
  float c[kStrip];
  float s[kStrip];
  float angle = 0;
  for (std::uint32_t j = 0; j < half; j += kStrip) {
    const std::uint32_t count = std::min(kStrip, half - j);
    angle = computeTwiddles(c, s, count, angle, step);
    for (std::uint32_t p = j; p < n; p += 2 * half) {
      butterflies(re + p, im + p, re + p + half, im + p + half, c, s, count);
    }
  }
}

void reverseBits(float *re, float *im, std::uint32_t n) {
  std::uint32_t j = 0;
  for (std::uint32_t i = 0; i < n - 1; ++i) {
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
    std::uint32_t m = n / 2;
    while (m <= j) {
      j -= m;
      m /= 2;
    }
    j += m;
  }
}

}  // namespace

bool isTransformLength(std::int64_t n) { return n >= 2 && n <= kLongest && (n & (n - 1)) == 0; }

void fourierTransform(float *re, float *im, std::uint32_t n) {
  auto step = static_cast<float>(6.283185307179586 / static_cast<double>(n));
  for (std::uint32_t half = n / 2; half > 0; half /= 2) {
    runStage(re, im, n, half, step);
    step += step;
  }
  reverseBits(re, im, n);
}

void normalizedFourierTransform(float *re, float *im, std::uint32_t n) {
  fourierTransform(re, im, n);
  // A power of two: multiplying by its reciprocal rounds as dividing by it.
  const float factor = 1.0F / static_cast<float>(n);
  for (std::uint32_t i = 0; i < n; ++i) {
    re[i] *= factor;
    im[i] *= factor;
  }
}

}  // namespace kelm::image

using namespace kelm::image;

void FFT(float *re, float *im, uint16_t n) {
  if (re != nullptr && im != nullptr && isTransformLength(n)) {
    normalizedFourierTransform(re, im, n);
  }
}

void IFFT(float *re, float *im, int32_t n) {
  if (re != nullptr && im != nullptr && isTransformLength(n)) {
    fourierTransform(re, im, static_cast<std::uint32_t>(n));
  }
}
