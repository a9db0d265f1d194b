// SPDX-License-Identifier: Apache-2.0
// The single steps of the toolkit as commands: a picture in, a picture or raw numbers out.
#pragma once

#include <string>
#include <vector>

#include "tools/image/picture.h"

namespace kelm::tools {

struct StepSettings {
  int window = 9;        // orientation, gradients, segment: smoothing window in pixels of the half-size picture
  int blockSize = 8;     // orientation: 8 or 16
  int targetMean = 127;  // normalize
  int targetVariance = 4000;
  bool smooth = false;  // histogram
};

struct Step {
  const char *name;
  const char *help;
  // The bytes of the file: .npy when `raw`, otherwise a PNG.
  std::vector<uint8_t> (*run)(const Picture &picture, const StepSettings &settings, bool raw);
  bool anySize;  // works on pictures below kSmallestEdge as well
};

const std::vector<Step> &steps();

}  // namespace kelm::tools
