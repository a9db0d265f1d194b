// SPDX-License-Identifier: Apache-2.0
#include "tools/token/simulator_link.h"

#include <dlfcn.h>

namespace kelm::tools {

namespace {

template <typename Function>
bool find(Function &function, const char *name) {
  function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
  return function != nullptr;
}

bool findAll(SimulatorLink &link) {
  return find(link.create, "simulatorCreate") && find(link.open, "simulatorOpen") &&
         find(link.close, "simulatorClose") && find(link.error, "simulatorError") &&
         find(link.defaultStore, "simulatorDefaultStore") && find(link.placeFinger, "simulatorPlaceFinger") &&
         find(link.requirePin, "simulatorRequirePin") && find(link.unblock, "simulatorUnblock");
}

}  // namespace

const SimulatorLink *simulatorLink() {
  static SimulatorLink link;
  static const bool simulated = findAll(link);
  return simulated ? &link : nullptr;
}

}  // namespace kelm::tools
