// SPDX-License-Identifier: Apache-2.0
// Computed to about 2^-100 with numbers of two doubles (T. J. Dekker, "A floating-point technique for extending the
// available precision", 1971). std::fma rounds once on every processor, in software where it must.
#include "image/support/precise_trigonometry.h"

#include <cmath>

namespace kelm::image {
namespace {

// high + low, where high is the sum rounded to double precision.
struct DoubleDouble {
  double high;
  double low;
};

DoubleDouble exactSum(double a, double b) {
  const double sum = a + b;
  const double added = sum - a;
  return {sum, (a - (sum - added)) + (b - added)};
}

DoubleDouble exactProduct(double a, double b) {
  const double product = a * b;
  return {product, std::fma(a, b, -product)};
}

DoubleDouble sum(const DoubleDouble &a, const DoubleDouble &b) {
  const DoubleDouble high = exactSum(a.high, b.high);
  const DoubleDouble low = exactSum(a.low, b.low);
  const DoubleDouble both = exactSum(high.high, high.low + low.high);
  return exactSum(both.high, both.low + low.low);
}

DoubleDouble product(const DoubleDouble &a, const DoubleDouble &b) {
  const DoubleDouble high = exactProduct(a.high, b.high);
  return exactSum(high.high, high.low + (a.high * b.low + a.low * b.high));
}

DoubleDouble quotient(const DoubleDouble &a, double b) {
  const double high = a.high / b;
  const DoubleDouble back = exactProduct(high, b);
  return exactSum(high, ((a.high - back.high) - back.low + a.low) / b);
}

DoubleDouble negative(const DoubleDouble &a) { return {-a.high, -a.low}; }

struct PreciseCosineAndSine {
  DoubleDouble cosine;
  DoubleDouble sine;
};

// The Taylor series from the term of degree `degree` on, which is `term`; for angles up to pi / 4.
DoubleDouble alternatingSeries(DoubleDouble term, int degree, const DoubleDouble &angleSquared) {
  constexpr int kLastDegree = 29;  // (pi / 4)^30 / 30! is below 2^-117
  DoubleDouble result = term;
  for (int d = degree + 2; d <= kLastDegree; d += 2) {
    term = quotient(negative(product(term, angleSquared)), static_cast<double>(d * (d - 1)));
    result = sum(result, term);
  }
  return result;
}

// For angles from -pi to pi.
PreciseCosineAndSine doubledCosineAndSine(double angle) {
  constexpr double kPerHalfPi = 0.63661977236758134308;
  constexpr double kHalfPi[] = {1.5707963267948966192, 6.1232339957367658862e-17, -1.4973849048591833364e-33};
  const double quarters = std::floor(angle * kPerHalfPi + 0.5);  // -2 to 2, so the products are exact
  DoubleDouble rest = {angle, 0.0};
  for (const double part : kHalfPi) {
    rest = sum(rest, {-quarters * part, 0.0});
  }
  const DoubleDouble squared = product(rest, rest);
  const DoubleDouble cosine = alternatingSeries({1.0, 0.0}, 0, squared);
  const DoubleDouble sine = alternatingSeries(rest, 1, squared);
  switch (static_cast<int>(quarters)) {
    case 0:
      return {cosine, sine};
    case 1:
      return {negative(sine), cosine};
    case -1:
      return {sine, negative(cosine)};
    default:
      return {negative(cosine), negative(sine)};
  }
}

}  // namespace

CosineAndSine preciseCosineAndSine(double angle) {
  const PreciseCosineAndSine values = doubledCosineAndSine(angle);
  return {values.cosine.high, values.sine.high};
}

// The estimate, and the small angle that is left after a turn by it.
double preciseArcTangent(double y, double x) {
  const double estimate = arcTangent(y, x);
  const PreciseCosineAndSine turn = doubledCosineAndSine(estimate);
  const DoubleDouble left = sum(product({y, 0.0}, turn.cosine), negative(product({x, 0.0}, turn.sine)));
  const double along = x * turn.cosine.high + y * turn.sine.high;
  return left.high == 0.0 ? estimate : estimate + left.high / along;
}

}  // namespace kelm::image
