// SPDX-License-Identifier: Apache-2.0
// The contact sheet: one picture that shows what the toolkit makes of a print.
#pragma once

#include <string>

#include "tools/image/analysis.h"

namespace kelm::tools {

ColourPicture paintSheet(const Analysis &analysis, const std::string &name);

}  // namespace kelm::tools
