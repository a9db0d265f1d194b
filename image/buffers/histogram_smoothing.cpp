// SPDX-License-Identifier: Apache-2.0
// Low-pass smoothing of a histogram in the frequency domain (a fourth-order Butterworth-like weight).
#include "image/buffers/histogram_smoothing.h"

#include <cmath>
#include <cstring>

#include "image/buffers/fourier.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::uint32_t kBins = 128;

struct Weights {
  float bin[kBins / 2];
};

// The weights of the frequency bins, 1 / (0.414 * (i / cutoff)^4 + 1). The square of a single-precision number is exact
// in double precision; squared once more it gives the weights that the C library's pow gives, for both cut-offs.
constexpr Weights weightsFor(float cutoff) {
  Weights weights{};
  for (std::uint32_t i = 0; i < kBins / 2; ++i) {
    const auto ratio = static_cast<double>(static_cast<float>(i) / cutoff);
    const double square = ratio * ratio;
    weights.bin[i] = static_cast<float>(1.0 / (0.414 * (square * square) + 1.0));
  }
  return weights;
}

constexpr Weights kWeights256 = weightsFor(5.0F);
constexpr Weights kWeights128 = weightsFor(7.0F);

// |value| truncated toward zero; 2^31 for everything that a signed 32-bit integer cannot hold.
std::uint32_t magnitudeOf(float value) {
  constexpr float kLimit = 2147483648.0F;
  const float magnitude = std::fabs(value);
  return magnitude < kLimit ? static_cast<std::uint32_t>(magnitude) : 0x80000000U;
}

// Smooths 128 bins and writes back those of the reversed result from `first` on: the transform applied twice returns
// its input in reversed circular order, so counter j gets the filtered bin j + 1.
void smoothBins(std::uint32_t *counters, const Weights &weights, std::uint32_t first) {
  float re[kBins];
  float im[kBins] = {};
  for (std::uint32_t i = 0; i < kBins; ++i) {
    re[i] = static_cast<float>(counters[i]);
  }
  normalizedFourierTransform(re, im, kBins);
  for (std::uint32_t i = 0; i < kBins / 2; ++i) {
    const float weight = weights.bin[i];
    re[i] *= weight;
    im[i] *= weight;
    re[kBins - 1 - i] *= weight;
    im[kBins - 1 - i] *= weight;
  }
  fourierTransform(re, im, kBins);
  for (std::uint32_t i = first; i < kBins; ++i) {
    counters[kBins - 1 - i] = magnitudeOf(re[i]);
  }
}

}  // namespace

void smoothHistogram(std::uint32_t *counters) {
  constexpr std::uint32_t kFirst = 20;  // leaves the folded counts of the 20 brightest bins
  for (std::uint32_t i = 0; i < kBins; ++i) {
    counters[i] = counters[2 * i] + counters[2 * i + 1];
  }
  std::memset(counters + kBins, 0, kBins * sizeof *counters);
  smoothBins(counters, kWeights256, kFirst);
}

}  // namespace kelm::image

using namespace kelm::image;

int32_t HistogramSmooth(Histogram *counters) {
  if (counters == nullptr) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  smoothHistogram(counters->counter);
  return KELM_IMAGE_OK;
}

int32_t HistogramSmooth128(uint32_t *counters) {
  if (counters == nullptr) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  smoothBins(counters, kWeights128, 0);
  return KELM_IMAGE_OK;
}
