// SPDX-License-Identifier: Apache-2.0
// The control functions of the simulated token, looked up while the program runs: a real device manager lacks them.
#pragma once

#include "kelmtrova/simulator.h"

namespace kelm::tools {

struct SimulatorLink {
  decltype(&simulatorCreate) create;
  decltype(&simulatorOpen) open;
  decltype(&simulatorClose) close;
  decltype(&simulatorError) error;
  decltype(&simulatorDefaultStore) defaultStore;
  decltype(&simulatorPlaceFinger) placeFinger;
  decltype(&simulatorRequirePin) requirePin;
  decltype(&simulatorUnblock) unblock;
};

// Null when the device manager is a real one.
const SimulatorLink *simulatorLink();

}  // namespace kelm::tools
