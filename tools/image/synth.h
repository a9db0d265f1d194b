// SPDX-License-Identifier: Apache-2.0
// Synthetic fingerprints, for demonstrations and tests.
//
// The orientation follows the zero-pole model of Sherlock and Monro, "A model for interpreting fingerprint topology"
// (Pattern Recognition 26, 1993): half the angles seen from the loops minus half those seen from the deltas. The ridges
// grow from random seeds under repeated oriented filters, as in Cappelli, Erol, Maio and Maltoni, "Synthetic
// fingerprint-image generation" (ICPR 2000); minutiae appear by themselves where the grown patches meet.
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "tools/image/picture.h"

namespace kelm::tools {

inline constexpr std::array<const char *, 5> kPrintClasses = {"arch", "tented-arch", "left-loop", "right-loop",
                                                              "whorl"};
enum class PrintClass { Arch, TentedArch, LeftLoop, RightLoop, Whorl };

struct SynthSettings {
  PrintClass printClass = PrintClass::Whorl;
  uint64_t seed = 1;
  int width = 416;  // 64 to 2048 pixels, like the height
  int height = 560;
  int noise = 20;  // per cent: 0 is a clean print, 100 a very poor one
  int gap = 0;     // height of a band of paper across the print, pixels
};

struct SynthPrint {
  Picture picture;
  // What the picture was made from, one value for each pixel: the direction of the ridges in radians, counter-clockwise
  // from the horizontal as the picture is seen, and the ridge period in pixels; 0 marks the paper around the finger.
  std::vector<float> orientation;
  std::vector<float> period;
};

// The same settings give the same samples on every machine.
SynthPrint synthesise(const SynthSettings &settings);

// The truth in blocks of 8 x 8 pixels: class, seed, width, height, noise, gap, blockSize, rows, cols, and row by row
// `orientation` (degrees, -90 to 90) and `period` (pixels) at the blocks' centres, null outside the finger and in the
// gap.
nlohmann::ordered_json truthOf(const SynthSettings &settings, const SynthPrint &print);

}  // namespace kelm::tools
