#include "tools/image/commands.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>

#include "tools/exit_codes.h"
#include "tools/image/picture.h"
#include "tools/image/synth.h"

namespace kelm::tools {
namespace {

// Runs a command; whatever goes wrong becomes one line and exit code 2.
void guarded(int &exitCode, const std::function<int()> &command) {
  try {
    exitCode = command();
  } catch (const std::bad_alloc &) {
    fprintf(stderr, "kelmtrova: memory is exhausted\n");
    exitCode = kExitUsage;
  } catch (const std::exception &error) {
    fprintf(stderr, "kelmtrova: %s\n", error.what());
    exitCode = kExitUsage;
  }
}

// "416x560"; a wrong size is an option error.
std::string parseSize(const std::string &text, SynthSettings &settings) {
  char rest = 0;
  if (sscanf(text.c_str(), "%4dx%4d%c", &settings.width, &settings.height, &rest) != 2 || settings.width < 64 ||
      settings.height < 64 || settings.width > 2048 || settings.height > 2048) {
    return "a size is written like 416x560, from 64x64 to 2048x2048";
  }
  return "";
}

void addSynth(CLI::App &image, int &exitCode) {
  struct Options {
    SynthSettings settings;
    std::string printClass, out, truth, size;
  };
  auto options = std::make_shared<Options>();

  CLI::App *command = image.add_subcommand("synth", "Makes a synthetic print: the same seed, the same samples");
  command->add_option("--class", options->printClass, "the pattern of the ridges")
      ->check(CLI::IsMember(std::vector<std::string>(kPrintClasses.begin(), kPrintClasses.end())))
      ->required()
      ->type_name("CLASS");
  command->add_option("--seed", options->settings.seed, "what the random choices start from")->default_val(1);
  command->add_option("--size", options->size, "width x height in pixels, at 500 pixels per inch; 416x560 if not given")
      ->check([options](const std::string &text) { return parseSize(text, options->settings); })
      ->type_name("WxH");
  command->add_option("--noise", options->settings.noise, "0 for a clean print, 100 for a very poor one")
      ->check(CLI::Range(0, 100))
      ->default_val(20);
  command->add_option("-o,--output", options->out, "the picture: .png or .pgm")->required();
  command->add_option("--truth", options->truth, "the true orientation and period of the ridges, as JSON");
  command->callback([options, &exitCode] {
    guarded(exitCode, [&] {
      const auto *name = std::find(kPrintClasses.begin(), kPrintClasses.end(), options->printClass);
      options->settings.printClass = static_cast<PrintClass>(name - kPrintClasses.begin());
      const SynthPrint print = synthesise(options->settings);
      writePicture(options->out, print.picture);
      if (!options->truth.empty()) {
        const std::string truth = truthAsJson(options->settings, print);
        writeFile(options->truth, truth.data(), truth.size());
      }
      return kExitDone;
    });
  });
}

}  // namespace
}  // namespace kelm::tools

void addImageCommands(CLI::App &app, int &exitCode) {
  using namespace kelm::tools;
  CLI::App *image = app.add_subcommand("image", "Fingerprint pictures: what the image toolkit makes of them");
  image->require_subcommand(1);
  addSynth(*image, exitCode);
}

int demoImage(const std::string & /*directory*/) { return kelm::tools::kExitDone; }
