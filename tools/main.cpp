// kelmtrova: tokens, fingers, images and pictures from the command line.
#include <CLI/CLI.hpp>

int main(int argc, char **argv) {
  CLI::App app{"Fingerprint tokens and fingerprint pictures", "kelmtrova"};
  CLI11_PARSE(app, argc, argv);
  return 0;
}
