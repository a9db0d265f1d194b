// SPDX-License-Identifier: Apache-2.0
// A call of every exported function of the image toolkit, on pictures that make every stage work.
#ifndef KELMTROVA_TESTS_ROBUSTNESS_TOOLKIT_CALLS_H
#define KELMTROVA_TESTS_ROBUSTNESS_TOOLKIT_CALLS_H

#include <functional>
#include <vector>

namespace kelm::test {

struct ToolkitCall {
  const char *name;
  int allocations;             // how many it makes at the least
  std::function<bool()> call;  // whether it answered what is stated for exhausted memory
  bool untouched = true;       // then the pictures are as before
};
const std::vector<ToolkitCall> &toolkitCalls();

void restorePictures();
bool picturesUntouched();

}  // namespace kelm::test

#endif
