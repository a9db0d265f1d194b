// SPDX-License-Identifier: Apache-2.0
// Quality of many pictures: one line for each, in the order in which they were named.
#pragma once

#include <string>
#include <vector>

namespace kelm::tools {

struct QualitySettings {
  std::vector<std::string> paths;  // files, folders, or "-" for a list on standard input; see tools/image/paths.h
  std::string out;                 // the file for the lines, "" for standard output
  int jobs = 1;
  bool csv = false;
  bool nullBytes = false;  // the list's entries end with null bytes
  bool resume = false;     // keeps what `out` has already
};

// Writes the lines, a closing line on standard error and, on a terminal that the lines do not go to, the progress. The
// exit code: 0, or 2 when nothing could be read; a picture that could not has a line with its error and stops nothing.
// Throws a Failure when the lines cannot be written.
int measureQuality(const QualitySettings &settings);

}  // namespace kelm::tools
