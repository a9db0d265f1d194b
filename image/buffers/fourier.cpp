// SPDX-License-Identifier: Apache-2.0
// Radix-2 decimation in frequency: butterflies first, bit reversal afterwards.
//
// The butterflies of a stage do not depend on each other, so they may run side by side and in any order. Long signals
// take their last three stages, the bit reversal and the scaling in one pass over tiles of eight by eight samples.
#include "image/buffers/fourier.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "image/buffers/twiddle.h"
#include "image/support/dispatch.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::uint32_t kLongest = 16384;
constexpr std::uint32_t kStrip = 256;  // factors held at a time
constexpr std::uint32_t kSide = 8;     // of a tile
constexpr std::uint32_t kReversed[kSide] = {0, 4, 2, 6, 1, 5, 3, 7};

KELM_INLINE void butterfly(float &reP, float &imP, float &reQ, float &imQ, float c, float s) {
  const float xt = reP - reQ;
  const float yt = imP - imQ;
  reP = reP + reQ;
  imP = imP + imQ;
  reQ = c * xt + s * yt;
  imQ = c * yt - s * xt;
}

// `count` butterflies side by side, between samples that lie `half` apart.
KELM_INLINE void butterflyRow(float *re, float *im, std::uint32_t half, const float *c, const float *s,
                              std::uint32_t count) {
  float *__restrict reP = re;
  float *__restrict imP = im;
  float *__restrict reQ = re + half;
  float *__restrict imQ = im + half;
  for (std::uint32_t j = 0; j < count; ++j) {
    butterfly(reP[j], imP[j], reQ[j], imQ[j], c[j], s[j]);
  }
}

KELM_INLINE void runStage(float *re, float *im, std::uint32_t n, std::uint32_t half, float step) {
  float angles[kStrip];
  float c[kStrip];
  float s[kStrip];
  float angle = 0;
  for (std::uint32_t j = 0; j < half; j += kStrip) {
    const std::uint32_t count = std::min(kStrip, half - j);
    angle = sumAngles(angles, count, angle, step);
    computeTwiddles(c, s, angles, count);
    for (std::uint32_t p = j; p < n; p += 2 * half) {
      butterflyRow(re + p, im + p, half, c, s, count);
    }
  }
}

// The factors of the last three stages, one stage after the other.
struct Tail {
  float c[kSide];
  float s[kSide];
};

KELM_INLINE Tail tailTwiddles(float step) {
  float angles[kSide] = {};
  std::uint32_t first = 0;
  for (std::uint32_t half = kSide / 2; half > 0; half /= 2, step += step) {
    sumAngles(angles + first, half, 0, step);
    first += half;
  }
  Tail tail;
  computeTwiddles(tail.c, tail.s, angles, kSide);
  return tail;
}

// Column c of a tile holds sample c of eight blocks of eight.
struct Tile {
  float re[kSide][kSide];
  float im[kSide][kSide];
};

KELM_INLINE void runTail(Tile &tile, const Tail &tail) {
  const float *c = tail.c;
  const float *s = tail.s;
  for (std::uint32_t half = kSide / 2; half > 0; c += half, s += half, half /= 2) {
    for (std::uint32_t block = 0; block < kSide; block += 2 * half) {
      for (std::uint32_t j = 0; j < half; ++j) {
        const std::uint32_t p = block + j;
        for (std::uint32_t lane = 0; lane < kSide; ++lane) {
          butterfly(tile.re[p][lane], tile.im[p][lane], tile.re[p + half][lane], tile.im[p + half][lane], c[j], s[j]);
        }
      }
    }
  }
}

// A sample's index consists of a row (its three highest bits), a middle and a column (its three lowest). The bit
// reversal exchanges rows with columns, both reversed, and the tile of `middle` with that of the reversed middle. Lanes
// are loaded in reversed order, so that columns only have to be stored in reversed order.
KELM_INLINE void loadTile(Tile &tile, const float *re, const float *im, std::uint32_t stride) {
  for (std::uint32_t lane = 0; lane < kSide; ++lane) {
    for (std::uint32_t column = 0; column < kSide; ++column) {
      tile.re[column][lane] = re[kReversed[lane] * stride + column];
      tile.im[column][lane] = im[kReversed[lane] * stride + column];
    }
  }
}

KELM_INLINE void storeTile(const Tile &tile, float *re, float *im, std::uint32_t stride, float scale) {
  for (std::uint32_t column = 0; column < kSide; ++column) {
    for (std::uint32_t lane = 0; lane < kSide; ++lane) {
      re[kReversed[column] * stride + lane] = tile.re[column][lane] * scale;
      im[kReversed[column] * stride + lane] = tile.im[column][lane] * scale;
    }
  }
}

KELM_INLINE void finishTiles(float *re, float *im, std::uint32_t n, const Tail &tail, float scale) {
  const std::uint32_t stride = n / kSide;
  const std::uint32_t middles = stride / kSide;
  std::uint32_t mirror = 0;  // the reversed middle, counted upwards from its highest bit
  for (std::uint32_t middle = 0; middle < middles; ++middle) {
    if (middle <= mirror) {
      Tile tile;
      Tile other;
      loadTile(tile, re + middle * kSide, im + middle * kSide, stride);
      runTail(tile, tail);
      if (middle != mirror) {
        loadTile(other, re + mirror * kSide, im + mirror * kSide, stride);
        runTail(other, tail);
        storeTile(other, re + middle * kSide, im + middle * kSide, stride, scale);
      }
      storeTile(tile, re + mirror * kSide, im + mirror * kSide, stride, scale);
    }
    std::uint32_t bit = middles / 2;
    for (; (mirror & bit) != 0; bit /= 2) {
      mirror ^= bit;
    }
    mirror |= bit;
  }
}

KELM_INLINE void reverseShort(float *re, float *im, std::uint32_t n, float scale) {
  std::uint32_t j = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
    std::uint32_t bit = n / 2;
    for (; (j & bit) != 0; bit /= 2) {
      j ^= bit;
    }
    j |= bit;
  }
  for (std::uint32_t i = 0; i < n; ++i) {
    re[i] *= scale;
    im[i] *= scale;
  }
}

KELM_INLINE void transformBody(float *re, float *im, std::uint32_t n, float scale) {
  const bool tiled = n >= kSide * kSide;
  auto step = static_cast<float>(6.283185307179586 / static_cast<double>(n));
  for (std::uint32_t half = n / 2; half > (tiled ? kSide / 2 : 0); half /= 2) {
    runStage(re, im, n, half, step);
    step += step;
  }
  if (tiled) {
    finishTiles(re, im, n, tailTwiddles(step), scale);
  } else {
    reverseShort(re, im, n, scale);
  }
}

KELM_KERNEL(void, transform, (float *re, float *im, std::uint32_t n, float scale), (re, im, n, scale), transformBody)

bool isTransformLength(std::int64_t n) { return n >= 2 && n <= kLongest && (n & (n - 1)) == 0; }

}  // namespace

void fourierTransform(float *re, float *im, std::uint32_t n) { transform(re, im, n, 1.0F); }

void normalizedFourierTransform(float *re, float *im, std::uint32_t n) {
  // n is a power of two: multiplying by its reciprocal rounds as dividing by it does.
  transform(re, im, n, 1.0F / static_cast<float>(n));
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
