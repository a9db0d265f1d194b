// The factors of the Fourier transform's butterflies.
//
// The angle of factor j is a running single-precision sum that starts at 0, and the factors are the cosine and sine of
// that angle, computed in double precision and rounded to single. The step of the 2^k factors of a stage is
// fl(2 pi) / 2^(k + 1) whatever the length of the transform, because halving and doubling are exact. So for transforms
// of up to 16384 samples there are 16383 angles in all, each below 3.2. The polynomials here give the same
// single-precision numbers as the C library for every one of them, several at a time; the tests go through them all.
#ifndef KELMTROVA_IMAGE_BUFFERS_TWIDDLE_H
#define KELMTROVA_IMAGE_BUFFERS_TWIDDLE_H

#include <cstdint>

#include "image/support/dispatch.h"

namespace kelm::image {

// Appends `count` angles from `angle` on; returns the one after the last.
KELM_INLINE float sumAngles(float *angles, std::uint32_t count, float angle, float step) {
  for (std::uint32_t j = 0; j < count; ++j) {
    angles[j] = angle;
    angle += step;
  }
  return angle;
}

// c = cos(angle), s = sin(angle) for angles from 0 to 5 pi / 4. The polynomials for -pi / 4 ... pi / 4 are those of
// fdlibm (k_cos.c, k_sin.c), with an error below 2^-57; so is the splitting of pi / 2 into two parts.
KELM_INLINE void computeTwiddles(float *__restrict c, float *__restrict s, const float *__restrict angles,
                                 std::uint32_t count) {
  constexpr double kPerHalfPi = 0.63661977236758134308;
  constexpr double kHalfPiHigh = 1.57079632673412561417;  // 33 bits, so that twice it is exact
  constexpr double kHalfPiLow = 6.07710050650619224932e-11;
  for (std::uint32_t j = 0; j < count; ++j) {
    const auto angle = static_cast<double>(angles[j]);
    const auto quadrant = static_cast<double>(static_cast<std::int32_t>(angle * kPerHalfPi + 0.5));  // 0, 1 or 2
    const double r = (angle - quadrant * kHalfPiHigh) - quadrant * kHalfPiLow;
    const double z = r * r;
    const double sine = r + r * z *
                                (-1.66666666666666324348e-01 +
                                 z * (8.33333333332248946124e-03 +
                                      z * (-1.98412698298579493134e-04 +
                                           z * (2.75573137070700676789e-06 +
                                                z * (-2.50507602534068634195e-08 + z * 1.58969099521155010221e-10)))));
    const double cosine =
        (1.0 - 0.5 * z) + z * z *
                              (4.16666666666666019037e-02 +
                               z * (-1.38888888888741095749e-03 +
                                    z * (2.48015872894767294178e-05 +
                                         z * (-2.75573143513906633035e-07 +
                                              z * (2.08757232129817482790e-09 + z * -1.13596475577881948265e-11)))));
    // (1, 0), (0, 1) or (-1, 0): exchanges the two and sets their signs without a branch, and exactly.
    const double straight = 1.0 - quadrant;
    const double crossed = quadrant * (2.0 - quadrant);
    c[j] = static_cast<float>(straight * cosine - crossed * sine);
    s[j] = static_cast<float>(straight * sine + crossed * cosine);
  }
}

}  // namespace kelm::image

#endif
