// SPDX-License-Identifier: Apache-2.0
// kelmtrova: tokens, fingers, images and pictures from the command line.
#include "tools/program.h"

int main(int argc, char **argv) { return kelm::tools::runProgram({argv + 1, argv + argc}); }
