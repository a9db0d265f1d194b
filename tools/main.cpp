// kelmtrova: tokens, fingers, images and pictures from the command line.
#include <CLI/CLI.hpp>

#include "tools/exit_codes.h"
#include "tools/image/commands.h"

int main(int argc, char **argv) {
  CLI::App app{"Fingerprint tokens and fingerprint pictures", "kelmtrova"};
  int exitCode = kelm::tools::kExitDone;
  addImageCommands(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? kelm::tools::kExitDone : kelm::tools::kExitUsage;
  }
  return exitCode;
}
