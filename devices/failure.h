// SPDX-License-Identifier: Apache-2.0
// How the device manager's own work fails: with one of its codes and a line for people.
#ifndef KELMTROVA_DEVICES_FAILURE_H
#define KELMTROVA_DEVICES_FAILURE_H

#include <stdexcept>
#include <string>

#include "kelmtrova/device_manager.h"

namespace kelm::devices {

struct Failure : std::runtime_error {
  explicit Failure(DeviceManagerCode codeGiven) : Failure(codeGiven, deviceManagerCodeText(codeGiven)) {}
  Failure(DeviceManagerCode codeGiven, const std::string &line) : std::runtime_error(line), code(codeGiven) {}
  DeviceManagerCode code;
};

}  // namespace kelm::devices

#endif
