// SPDX-License-Identifier: Apache-2.0
// Sine, cosine and arc tangent in double precision as plain arithmetic, so that loops over them vectorise. The
// polynomials and the splitting of pi / 2 into two parts are those of fdlibm (k_cos.c, k_sin.c, s_atan.c), with errors
// near 2^-57; with the roundings of their evaluation the results lie within 2^-50 of the true ones, relatively.
#ifndef KELMTROVA_IMAGE_SUPPORT_TRIGONOMETRY_H
#define KELMTROVA_IMAGE_SUPPORT_TRIGONOMETRY_H

#include <cstdint>

#include "image/support/kernel.h"

namespace kelm::image {

struct CosineAndSine {
  double cosine;
  double sine;
};

// Of an angle's distance from `quadrant` (0, 1 or 2) times pi / 2; little more than pi / 4 to either side.
KELM_INLINE CosineAndSine cosineAndSineFrom(double quadrant, double angle) {
  constexpr double kHalfPiHigh = 1.57079632673412561417;  // 33 bits, so that twice it is exact
  constexpr double kHalfPiLow = 6.07710050650619224932e-11;
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
  return {cosine, sine};
}

// For angles from 0 to 5 pi / 4.
KELM_INLINE CosineAndSine cosineAndSine(double angle) {
  constexpr double kPerHalfPi = 0.63661977236758134308;
  const auto quadrant = static_cast<double>(static_cast<std::int32_t>(angle * kPerHalfPi + 0.5));  // 0, 1 or 2
  const auto [cosine, sine] = cosineAndSineFrom(quadrant, angle);
  // (1, 0), (0, 1) or (-1, 0): exchanges the two and sets their signs without a branch, and exactly.
  const double straight = 1.0 - quadrant;
  const double crossed = quadrant * (2.0 - quadrant);
  return {straight * cosine - crossed * sine, straight * sine + crossed * cosine};
}

// The angle of the point (x, y), from -pi to pi; both finite, and 0 where both are 0 and x has no sign.
KELM_INLINE double arcTangent(double y, double x) {
  constexpr double kPi = 3.14159265358979311600;
  constexpr double kNothing = 1e-300;                       // lost in every sum but that of zeros
  constexpr double kTangentOfEighth = 0.41421356237309503;  // of pi / 8
  const double absX = __builtin_fabs(x);
  const double absY = __builtin_fabs(y);
  const double side = __builtin_copysign(1.0, absX - absY);  // of the diagonal
  const double longer = absX >= absY ? absX : absY;
  const double shorter = absX >= absY ? absY : absX;
  // Choices are factors of 0, 1 and -1, which change nothing else: arithmetic under a condition would be a branch.
  // Between pi / 8 and pi / 4 the angle is taken from the diagonal.
  const double diagonal = 0.5 - __builtin_copysign(0.5, longer * kTangentOfEighth - shorter);
  const double t = (shorter - diagonal * longer) / (longer + diagonal * shorter + kNothing);
  const double z = t * t;
  const double series =
      3.33333333333329318027e-01 +
      z * (-1.99999999998764832476e-01 +
           z * (1.42857142725034663711e-01 +
                z * (-1.11111104054623557880e-01 +
                     z * (9.09088713343650656196e-02 +
                          z * (-7.69187620504482999495e-02 +
                               z * (6.66107313738753120669e-02 +
                                    z * (-5.83357013379057348645e-02 +
                                         z * (4.97687799461593236017e-02 + z * (-3.65315727442169155270e-02 +
                                                                                z * 1.62858201153657823623e-02)))))))));
  const double fromAxis = diagonal * (kPi / 4) + (t - t * z * series);
  const double fromX = (1.0 - side) * (kPi / 4) + side * fromAxis;
  const double half = __builtin_copysign(1.0, x);  // a negative zero is negative, as in the C library
  const double upper = (1.0 - half) * (kPi / 2) + half * fromX;
  return __builtin_copysign(upper, y);
}

}  // namespace kelm::image

#endif
