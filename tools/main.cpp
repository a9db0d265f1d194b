// SPDX-License-Identifier: Apache-2.0
// kelmtrova: tokens, fingers, images and pictures from the command line.
#include <csignal>

#include "tools/image/worker.h"
#include "tools/program.h"

int main(int argc, char **argv) {
  // A file at the limit of its size is an error like a full disk, not the end of the program.
  std::signal(SIGXFSZ, SIG_IGN);
  if (argc == 2 && argv[1] == kelm::tools::kWorkerWord) return kelm::tools::serveAsWorker();
  return kelm::tools::runProgram({argv + 1, argv + argc});
}
