// SPDX-License-Identifier: Apache-2.0
// Numbers for the synthetic prints that are the same on every machine: only additions, multiplications, divisions and
// square roots in a fixed order, which IEEE 754 defines to the last bit; the functions of the C library differ.
#pragma once

#include <cstdint>

namespace kelm::tools {

inline constexpr double kPi = 3.14159265358979323846;

// SplitMix64 (Steele, Lea and Flood 2014).
class Random {
 public:
  explicit Random(uint64_t seed) : state(seed) {}

  uint64_t next() {
    uint64_t z = (state += 0x9e3779b97f4a7c15u);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }
  // 0 to limit - 1, for limits far below 2^32.
  int below(int limit) { return static_cast<int>((next() >> 32) * static_cast<uint64_t>(limit) >> 32); }
  // From low up to, but without, high.
  double between(double low, double high) {
    return low + (high - low) * (static_cast<double>(next() >> 11) / 9007199254740992.0);
  }

 private:
  uint64_t state;
};

double steadyCos(double angle);
double steadySin(double angle);
double steadyAtan2(double y, double x);
double steadyExp(double x);  // for x up to 0; 0 below -700

}  // namespace kelm::tools
