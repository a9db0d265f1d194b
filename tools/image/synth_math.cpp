// SPDX-License-Identifier: Apache-2.0
#include "tools/image/synth_math.h"

namespace kelm::tools {
namespace {

// Truncation and a correction instead of floor(), which an instruction set may bring or not.
double nearestWhole(double x) {
  const auto whole = static_cast<int64_t>(x + (x < 0 ? -0.5 : 0.5));
  return static_cast<double>(whole);
}

}  // namespace

double steadyCos(double angle) {
  const double turns = angle / (2 * kPi);
  double x = (turns - nearestWhole(turns)) * 2 * kPi;  // -pi to pi
  // Taylor's series for an eighth of the angle, doubled three times: cos 2x = 2 cos^2 x - 1.
  x /= 8;
  const double s = x * x;
  double c = 1 + s * (-1.0 / 2 + s * (1.0 / 24 + s * (-1.0 / 720 + s * (1.0 / 40320 + s * (-1.0 / 3628800)))));
  for (int i = 0; i < 3; ++i) c = 2 * c * c - 1;
  return c;
}

double steadySin(double angle) { return steadyCos(angle - kPi / 2); }

double steadyAtan2(double y, double x) {
  const double ax = x < 0 ? -x : x;
  const double ay = y < 0 ? -y : y;
  if (ax == 0 && ay == 0) return 0;
  double t = ax > ay ? ay / ax : ax / ay;  // 0 to 1
  // With t above tan(pi / 12): atan t = pi / 6 + atan((t sqrt 3 - 1) / (t + sqrt 3)).
  constexpr double kRoot3 = 1.7320508075688772;
  double base = 0;
  if (t > 0.26794919243112270) {
    base = kPi / 6;
    t = (t * kRoot3 - 1) / (t + kRoot3);
  }
  const double s = t * t;
  double angle = 0;
  for (int k = 21; k >= 1; k -= 2) angle = 1.0 / k - s * angle;
  angle = base + t * angle;
  if (ay > ax) angle = kPi / 2 - angle;
  if (x < 0) angle = kPi - angle;
  return y < 0 ? -angle : angle;
}

double steadyExp(double x) {
  if (x < -700) return 0;
  // exp x = exp(x / 1024) ^ 1024.
  const double t = x / 1024;
  double e = 1 + t * (1 + t * (1.0 / 2 + t * (1.0 / 6 + t * (1.0 / 24 + t * (1.0 / 120)))));
  for (int i = 0; i < 10; ++i) e *= e;
  return e;
}

}  // namespace kelm::tools
