// SPDX-License-Identifier: Apache-2.0
// Radix-2 decimation in frequency: butterflies first, bit reversal afterwards.
//
// The butterflies of a stage do not depend on each other, so they may run side by side and in any order. Two stages are
// taken in one pass over the samples. The last three, the bit reversal and the scaling are one more pass, over tiles of
// eight by eight samples.
#include "image/buffers/fourier.h"

#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <utility>

#include "image/buffers/twiddle.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::uint32_t kLongest = 16384;
constexpr std::uint32_t kShort = 128;  // stages of up to so many factors take them from one table
constexpr std::uint32_t kStrip = 32;   // longer ones compute so many at a time
constexpr std::uint32_t kSide = 8;     // of a tile
constexpr std::uint32_t kReversed[kSide] = {0, 4, 2, 6, 1, 5, 3, 7};

// The compiler cannot know that samples which lie apart do not overlap.
#ifdef __clang__
#define KELM_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#else
#define KELM_INDEPENDENT _Pragma("GCC ivdep")
#endif

struct Factors {
  const float *c;
  const float *s;
  __attribute__((always_inline)) Factors from(std::uint32_t first) const { return {c + first, s + first}; }
};

template <std::uint32_t kCount>
struct FactorTable {
  float c[kCount];
  float s[kCount];
};

// The lower end of a butterfly: (x + iy) e^(-ia), for the samples' difference x + iy.
template <typename Sample>
KELM_INLINE void turn(Sample &re, Sample &im, const Sample &x, const Sample &y, float c, float s) {
  re = c * x + s * y;
  im = c * y - s * x;
}

// A stage of butterflies between samples that lie `half` apart.
KELM_INLINE void oneStage(float *re, float *im, std::uint32_t n, std::uint32_t half, Factors factors) {
  for (std::uint32_t block = 0; block < n; block += 2 * half) {
    float *const reHigh = re + block + half;
    float *const imHigh = im + block + half;
    KELM_INDEPENDENT
    for (std::uint32_t j = 0; j < half; ++j) {
      const float re0 = re[block + j];
      const float im0 = im[block + j];
      const float re1 = reHigh[j];
      const float im1 = imHigh[j];
      re[block + j] = re0 + re1;
      im[block + j] = im0 + im1;
      turn(reHigh[j], imHigh[j], re0 - re1, im0 - im1, factors.c[j], factors.s[j]);
    }
  }
}

// Two stages at once, over four samples that lie `quarter` apart: `even` turns the difference of the first and the
// third, `odd` that of the second and the fourth, `next` those of the second stage.
KELM_INLINE void twoStages(float *re, float *im, std::uint32_t quarter, Factors even, Factors odd, Factors next,
                           std::uint32_t count) {
  const std::uint32_t second = quarter;
  const std::uint32_t third = 2 * quarter;
  const std::uint32_t fourth = 3 * quarter;
  KELM_INDEPENDENT
  for (std::uint32_t j = 0; j < count; ++j) {
    const float re0 = re[j] + re[j + third];
    const float im0 = im[j] + im[j + third];
    const float re1 = re[j + second] + re[j + fourth];
    const float im1 = im[j + second] + im[j + fourth];
    float re2, im2, re3, im3;
    turn(re2, im2, re[j] - re[j + third], im[j] - im[j + third], even.c[j], even.s[j]);
    turn(re3, im3, re[j + second] - re[j + fourth], im[j + second] - im[j + fourth], odd.c[j], odd.s[j]);
    re[j] = re0 + re1;
    im[j] = im0 + im1;
    turn(re[j + second], im[j + second], re0 - re1, im0 - im1, next.c[j], next.s[j]);
    re[j + third] = re2 + re3;
    im[j + third] = im2 + im3;
    turn(re[j + fourth], im[j + fourth], re2 - re3, im2 - im3, next.c[j], next.s[j]);
  }
}

// A stage of `half` factors and the next one; `scale` is the stage's step over that of the first stage.
KELM_INLINE void longStages(float *re, float *im, std::uint32_t n, std::uint32_t half, const AngleRuns &runs,
                            float scale) {
  const std::uint32_t quarter = half / 2;
  FactorTable<3 * kStrip> table;
  const Factors factors = {table.c, table.s};
  for (std::uint32_t j = 0; j < quarter; j += kStrip) {
    stageTwiddles(table.c, table.s, runs, half, j, kStrip, scale);
    stageTwiddles(table.c + kStrip, table.s + kStrip, runs, half, quarter + j, kStrip, scale);
    stageTwiddles(table.c + 2 * kStrip, table.s + 2 * kStrip, runs, quarter, j, kStrip, 2 * scale);
    for (std::uint32_t p = j; p < n; p += 2 * half) {
      twoStages(re + p, im + p, quarter, factors, factors.from(kStrip), factors.from(2 * kStrip), kStrip);
    }
  }
}

typedef float Four __attribute__((vector_size(16)));
typedef float Eight __attribute__((vector_size(32)));

// The four rows become columns.
KELM_INLINE void transpose(Four (&row)[4]) {
  const Four evenLow = __builtin_shufflevector(row[0], row[1], 0, 4, 1, 5);
  const Four evenHigh = __builtin_shufflevector(row[0], row[1], 2, 6, 3, 7);
  const Four oddLow = __builtin_shufflevector(row[2], row[3], 0, 4, 1, 5);
  const Four oddHigh = __builtin_shufflevector(row[2], row[3], 2, 6, 3, 7);
  row[0] = __builtin_shufflevector(evenLow, oddLow, 0, 1, 4, 5);
  row[1] = __builtin_shufflevector(evenLow, oddLow, 2, 3, 6, 7);
  row[2] = __builtin_shufflevector(evenHigh, oddHigh, 0, 1, 4, 5);
  row[3] = __builtin_shufflevector(evenHigh, oddHigh, 2, 3, 6, 7);
}

// Row r of a tile holds sample r of eight blocks of eight, in vectors as wide as the processor's: to a processor with
// narrower ones, compilers pass wide ones piece by piece through memory.
template <typename Vector>
using Rows = Vector[kSide][kSide * sizeof(float) / sizeof(Vector)];

template <typename Vector>
struct Tile {
  Rows<Vector> re;
  Rows<Vector> im;
};

template <std::uint32_t kHalf, typename Vector>
KELM_INLINE void tileStage(Tile<Vector> &tile, Factors factors) {
  for (std::uint32_t block = 0; block < kSide; block += 2 * kHalf) {
    for (std::uint32_t j = 0; j < kHalf; ++j) {
      const std::uint32_t p = block + j;
      const std::uint32_t q = p + kHalf;
      for (std::uint32_t i = 0; i < std::size(tile.re[p]); ++i) {
        const Vector x = tile.re[p][i] - tile.re[q][i];
        const Vector y = tile.im[p][i] - tile.im[q][i];
        tile.re[p][i] = tile.re[p][i] + tile.re[q][i];
        tile.im[p][i] = tile.im[p][i] + tile.im[q][i];
        turn(tile.re[q][i], tile.im[q][i], x, y, factors.c[j], factors.s[j]);
      }
    }
  }
}

// A sample's index consists of a row (its three highest bits), a middle and a column (its three lowest). The bit
// reversal exchanges rows with columns, both reversed, and the tile of `middle` with that of the reversed middle. Rows
// are loaded in reversed order, so that columns only have to be stored in reversed order.
template <typename Vector>
KELM_INLINE void loadRows(Rows<Vector> &rows, const float *samples, std::uint32_t stride) {
  for (std::uint32_t column = 0; column < kSide; column += 4) {
    for (std::uint32_t half = 0; half < 2; ++half) {
      Four lanes[4];
      for (std::uint32_t lane = 0; lane < 4; ++lane) {
        std::memcpy(&lanes[lane], samples + kReversed[4 * half + lane] * stride + column, sizeof(Four));
      }
      transpose(lanes);
      for (std::uint32_t i = 0; i < 4; ++i) {
        std::memcpy(reinterpret_cast<char *>(rows[column + i]) + half * sizeof(Four), &lanes[i], sizeof(Four));
      }
    }
  }
}

template <typename Vector>
KELM_INLINE void storeRows(const Rows<Vector> &rows, float *samples, std::uint32_t stride, float scale) {
  for (std::uint32_t column = 0; column < kSide; ++column) {
    for (std::uint32_t i = 0; i < std::size(rows[column]); ++i) {
      const Vector scaled = rows[column][i] * scale;
      std::memcpy(samples + kReversed[column] * stride + i * sizeof(Vector) / sizeof(float), &scaled, sizeof scaled);
    }
  }
}

// A tile after the last three stages, with their 4 + 2 + 1 factors.
template <typename Vector>
KELM_INLINE void loadTile(Tile<Vector> &tile, const float *re, const float *im, std::uint32_t stride, Factors tail) {
  loadRows<Vector>(tile.re, re, stride);
  loadRows<Vector>(tile.im, im, stride);
  tileStage<4>(tile, tail);
  tileStage<2>(tile, tail.from(4));
  tileStage<1>(tile, tail.from(6));
}

template <typename Vector>
KELM_INLINE void storeTile(const Tile<Vector> &tile, float *re, float *im, std::uint32_t stride, float scale) {
  storeRows<Vector>(tile.re, re, stride, scale);
  storeRows<Vector>(tile.im, im, stride, scale);
}

// Counts on a number of bits, whose highest is `bit`, from the highest bit downwards.
KELM_INLINE std::uint32_t nextReversed(std::uint32_t number, std::uint32_t bit) {
  for (; (number & bit) != 0; bit /= 2) {
    number ^= bit;
  }
  return number | bit;
}

template <typename Vector>
KELM_INLINE void finishTiles(float *re, float *im, std::uint32_t n, Factors tail, float scale) {
  const std::uint32_t stride = n / kSide;
  const std::uint32_t middles = stride / kSide;
  std::uint32_t mirror = 0;  // the reversed middle
  for (std::uint32_t middle = 0; middle < middles; ++middle) {
    const std::uint32_t here = middle * kSide;
    const std::uint32_t there = mirror * kSide;
    if (here <= there) {
      Tile<Vector> tile;
      loadTile(tile, re + here, im + here, stride, tail);
      if (here != there) {
        Tile<Vector> other;
        loadTile(other, re + there, im + there, stride, tail);
        storeTile(other, re + here, im + here, stride, scale);
      }
      storeTile(tile, re + there, im + there, stride, scale);
    }
    mirror = nextReversed(mirror, middles / 2);
  }
}

KELM_INLINE void reverseShort(float *re, float *im, std::uint32_t n, float scale) {
  std::uint32_t j = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
    j = nextReversed(j, n / 2);
  }
  for (std::uint32_t i = 0; i < n; ++i) {
    re[i] *= scale;
    im[i] *= scale;
  }
}

// The factors of a stage of `half` and of all that follow, one stage after the other.
KELM_INLINE void fillTable(FactorTable<2 * kShort> &table, const AngleRuns &runs, std::uint32_t half, float scale) {
  constexpr std::uint32_t kFew = 16;  // too few for loops of their own
  float *c = table.c;
  float *s = table.s;
  for (; half > kFew; c += half, s += half, half /= 2, scale *= 2) {
    const std::uint32_t part = half / 4;
    stageTwiddles(c, s, runs, half, 0, part, scale);
    stageTwiddles(c + part, s + part, runs, half, part, 2 * part, scale);
    stageTwiddles(c + 3 * part, s + 3 * part, runs, half, 3 * part, part, scale);
  }
  float *angles = c;
  for (std::uint32_t count = half; count > 0; angles += count, count /= 2, scale *= 2) {
    fillAngles(angles, runs, 0, count, scale);
  }
  *angles = 0;  // an even number of them, so that none is computed alone
  computeTwiddles(c, s, 2 * half);
}

template <typename Vector>
KELM_INLINE void transformBody(float *re, float *im, std::uint32_t n, float scale) {
  AngleRuns runs;
  findAngleRuns(runs, n / 2, static_cast<float>(6.283185307179586 / static_cast<double>(n)));
  std::uint32_t half = n / 2;
  float doubled = 1;  // the stage's step over that of the first stage
  for (; half > kShort; half /= 4, doubled *= 4) {
    longStages(re, im, n, half, runs, doubled);
  }
  FactorTable<2 * kShort> table;
  fillTable(table, runs, half, doubled);
  Factors factors = {table.c, table.s};
  if (n < kSide * kSide) {
    for (; half > 0; factors = factors.from(half), half /= 2) {
      oneStage(re, im, n, half, factors);
    }
    reverseShort(re, im, n, scale);
    return;
  }
  if (std::countr_zero(half / kSide) % 2 == 0) {  // an odd number of stages before the tiles
    oneStage(re, im, n, half, factors);
    factors = factors.from(half);
    half /= 2;
  }
  for (; half > kSide; factors = factors.from(half + half / 2), half /= 4) {
    for (std::uint32_t p = 0; p < n; p += 2 * half) {
      twoStages(re + p, im + p, half / 2, factors, factors.from(half / 2), factors.from(half), half / 2);
    }
  }
  finishTiles<Vector>(re, im, n, factors, scale);
}

void transform(float *re, float *im, std::uint32_t n, float scale) {
  if (instructionSet() == InstructionSet::kPlain) {
    Kernel<transformBody<Four>>::runPlain(re, im, n, scale);
  } else {
    kernel<transformBody<Eight>>(re, im, n, scale);
  }
}

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
