// SPDX-License-Identifier: Apache-2.0
// The report as one HTML page that needs nothing else: pictures, numbers and a switchable overlay.
#pragma once

#include <string>

#include "tools/image/analysis.h"

namespace kelm::tools {

std::string reportAsHtml(const Analysis &analysis, const std::string &name);

}  // namespace kelm::tools
