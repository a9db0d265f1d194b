// SPDX-License-Identifier: Apache-2.0
// What goes wrong with a simulated token: its kind and words, and where a thread's last failure is kept.
#ifndef KELMTROVA_DEVICES_SIMULATED_FAILURE_H
#define KELMTROVA_DEVICES_SIMULATED_FAILURE_H

#include <stdexcept>
#include <string>

#include "kelmtrova/simulator.h"

namespace kelm::devices {

struct StoreError : std::runtime_error {
  StoreError(SimulatorFailure why, const std::string &words) : std::runtime_error(words), kind(why) {}
  SimulatorFailure kind;
};

// The failure that an error number of the system means for the file of that name.
StoreError systemFailure(const std::string &name, int error);

// For simulatorFailure() and simulatorError() of this thread.
void rememberFailure(const std::exception &error) noexcept;

}  // namespace kelm::devices

#endif
