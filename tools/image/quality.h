// SPDX-License-Identifier: Apache-2.0
// Quality of many pictures: one line for each, in the order in which they were named.
#pragma once

#include <string>
#include <vector>

namespace kelm::tools {

struct QualitySettings {
  std::vector<std::string> paths;  // files, folders (searched with everything below them), or "-" for standard input
  int jobs = 1;
  bool csv = false;
};

// Writes the lines to standard output and, on a terminal, the progress to standard error. The exit code: 0, or 2 when
// any picture could not be read; such a picture has a line with its error and stops nothing.
int measureQuality(const QualitySettings &settings);

}  // namespace kelm::tools
