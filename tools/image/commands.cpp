#include "tools/image/commands.h"

#include "tools/exit_codes.h"

void addImageCommands(CLI::App & /*app*/, int & /*exitCode*/) {}

int demoImage(const std::string & /*directory*/) { return kelm::tools::kExitDone; }
