// SPDX-License-Identifier: Apache-2.0
// Measures the distance of drawn ridges from their spectrum, and turns a window across them. In C++.
#include <kelmtrova/image.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <memory>

int main() {
  constexpr int kSamples = 256, kPeriod = 8;
  std::array<float, kSamples> real{}, imaginary{};
  for (int i = 0; i < kSamples; ++i) real[static_cast<size_t>(i)] = i % kPeriod < kPeriod / 2 ? 60.0F : 200.0F;
  FFT(real.data(), imaginary.data(), kSamples);

  size_t strongest = 1;
  for (size_t i = 1; i < kSamples / 2; ++i) {
    if (std::hypot(real[i], imaginary[i]) > std::hypot(real[strongest], imaginary[strongest])) strongest = i;
  }
  std::printf("%.1f pixels apart\n", kSamples / static_cast<double>(strongest));

  // Five by one pixels in steps of 45 degrees; the library's memory is released by itself.
  constexpr uint8_t kSteps = 4, kWidth = 5;
  const auto release = [](AxisPoint **tables) { AxisDestroy(tables, kSteps); };
  const std::unique_ptr<AxisPoint *, decltype(release)> tables(AxisTransform(kSteps, kWidth, 1), release);
  if (!tables) return 1;
  const AxisPoint end = tables.get()[kSteps][kWidth - 1];
  std::printf("turned by 90 degrees, the last point lies at %d, %d\n", end.x, end.y);
}
