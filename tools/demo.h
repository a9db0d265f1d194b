// SPDX-License-Identifier: Apache-2.0
// `kelmtrova demo`.
#pragma once

#include <string>

namespace kelm::tools {

// Shows the life of a token as a transcript of this program's own commands; an exit code.
// `reports`: where the analysed print goes; empty for a folder of its own under the temporary one.
int runDemo(const std::string &reports);

}  // namespace kelm::tools
