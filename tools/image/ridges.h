// SPDX-License-Identifier: Apache-2.0
// What the toolkit's gradient products say about a print: where it lies and how clear its ridges are.
//
// Coherence is the length of the summed vector of products and differences over the sum of their lengths (Bazen and
// Gerez, Systematic methods for the computation of the directional fields and singular points of fingerprints, 2002):
// 1 where all gradients point along one line, about 0.1 in noise, whatever the contrast.
#pragma once

#include "tools/image/toolkit.h"

namespace kelm::tools {

// For each pixel of the half-size picture.
struct Coherence {
  Grid<float> share;       // 0 to 1, over a window of 13 x 13
  Grid<int32_t> strength;  // summed squares of the gradients over 5 x 5
};

Coherence coherenceOf(const Picture &half);

// The median of a map of periods, kNoPeriod where no cell has one.
uint8_t medianPeriod(const Grid<uint8_t> &periods);

// The periods smoothed over 7 x 7 cells, without those that differ from their surroundings by more than a quarter, and
// how much of each cell's surroundings agrees on one, from 0 to 1. Cells outside the mask have none.
struct Periods {
  Grid<uint8_t> smoothed;
  Grid<float> agreement;
};

// What is taken for the finger, and what is known of its ridges. Areas beside it whose ridges cannot be told from
// noise, such as the lines of a form, are left out.
struct Finger {
  Picture mask;  // 0 and 255, half size
  Periods periods;
  Grid<uint8_t> clarity;  // of blocks of 8 x 8 pixels, from 0 (noise, paper) to 100
};

// The least mean clarity of ridges that can be told from noise.
inline constexpr double kLeastClarity = 20;

Finger fingerOf(const Coherence &coherence, const Grid<uint8_t> &periods);

// Directions as they would be measured with gradients that are the same for all directions. Sobel's see a wave of few
// pixels too flat or too steep between the multiples of 45 degrees, by up to 3 degrees for one of 4.5 pixels; the
// period is in pixels of the half-size picture.
void straightenDirections(Grid<int16_t> &directions, double period);

// Whether halving the picture would lose its ridges: they lie less than about 6.5 pixels apart.
bool narrowRidges(const Picture &picture, const Picture &half);

}  // namespace kelm::tools
