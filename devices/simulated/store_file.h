// SPDX-License-Identifier: Apache-2.0
// Stores as whole files: made, exported, imported; each whole or not at all.
#ifndef KELMTROVA_DEVICES_SIMULATED_STORE_FILE_H
#define KELMTROVA_DEVICES_SIMULATED_STORE_FILE_H

#include <string>

#include "devices/simulated/store.h"

namespace kelm::devices {

// These two fail when something lies at `path`.
void createStore(const std::string &path, const Personalisation &personalisation);
void importStore(const std::string &file, const std::string &path);
// Takes the place of an older exported token; fails when anything else lies at `file`.
void exportStore(Store &store, const std::string &file);

}  // namespace kelm::devices

#endif
