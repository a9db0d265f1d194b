// `kelmtrova demo`.
#pragma once

namespace kelm::tools {

// Shows the life of a token as a transcript of this program's own commands; an exit code.
int runDemo();

}  // namespace kelm::tools
