// SPDX-License-Identifier: Apache-2.0
#include "tools/image/commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>

#include "tools/image/analysis.h"
#include "tools/image/html.h"
#include "tools/image/picture.h"
#include "tools/image/quality.h"
#include "tools/image/sheet.h"
#include "tools/image/steps.h"
#include "tools/image/synth.h"
#include "tools/output.h"
#include "tools/text.h"

namespace kelm::tools {
namespace {

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
    const auto *name = std::find(kPrintClasses.begin(), kPrintClasses.end(), options->printClass);
    options->settings.printClass = static_cast<PrintClass>(name - kPrintClasses.begin());
    const SynthPrint print = synthesise(options->settings);
    writePicture(options->out, print.picture);
    if (!options->truth.empty()) {
      writeFile(options->truth, truthAsJson(options->settings, print));
    }
    exitCode = kExitDone;
  });
}

void addAnalyze(CLI::App &image, int &exitCode) {
  struct Options {
    std::string in, out;
    bool json = false;
  };
  auto options = std::make_shared<Options>();
  CLI::App *command = image.add_subcommand("analyze", "Everything the toolkit says about a print, on one page");
  command->add_option("print", options->in, "the picture: PNG or PGM")->required();
  command->add_option("-o,--output", options->out, "the report: .png for a contact sheet, .html for a page");
  command->add_flag("--json", options->json, "the numbers on standard output");
  command->callback([options, &exitCode] {
    const bool page = hasExtension(options->out, ".html") || hasExtension(options->out, ".htm");
    if (options->out.empty() ? !options->json : !page && !hasExtension(options->out, ".png")) {
      throw PictureError("a report needs -o with a name that ends in .png or .html, or --json");
    }
    const Analysis analysis = analyse(readPicture(options->in), options->in);
    if (page) {
      writeFile(options->out, reportAsHtml(analysis, options->in));
    } else if (!options->out.empty()) {
      writeFile(options->out, encodePng(paintSheet(analysis, options->in)));
    }
    if (options->json) put(numbersAsJson(analysis, options->in) + '\n');
    exitCode = kExitDone;
  });
}

void addQuality(CLI::App &image, int &exitCode) {
  auto settings = std::make_shared<QualitySettings>();
  CLI::App *command = image.add_subcommand("quality", "The quality of many pictures: one JSON line for each");
  command->add_option("paths", settings->paths, "pictures, folders of pictures, or - for paths on standard input")
      ->required();
  command->add_option("-j,--jobs", settings->jobs, "pictures worked on at once")
      ->check(CLI::Range(1, 1024))
      ->default_val(1);
  command->add_flag("--csv", settings->csv, "comma-separated values, with a line of names first");
  command->callback([settings, &exitCode] { exitCode = measureQuality(*settings); });
}

void addStep(CLI::App &image, const Step &step, int &exitCode) {
  struct Options {
    StepSettings settings;
    std::string in, out;
  };
  auto options = std::make_shared<Options>();
  StepSettings &settings = options->settings;
  CLI::App *command = image.add_subcommand(step.name, step.help);
  command->add_option("picture", options->in, "the picture: PNG or PGM")->required();
  command->add_option("-o,--output", options->out, "a picture (.png) or raw numbers (.npy)")->required();
  const std::string name = step.name;
  if (!step.anySize && name != "quality-map") {
    command->add_option("--window", settings.window, "smoothing window in pixels of the half-size picture")
        ->check(CLI::Range(1, 31))
        ->default_val(settings.window);
  }
  if (name == "orientation") {
    command->add_option("--block", settings.blockSize, "edge of a block in pixels")
        ->check(CLI::IsMember({8, 16}))
        ->default_val(settings.blockSize);
  }
  if (name == "normalize") {
    command->add_option("--mean", settings.targetMean)->check(CLI::Range(0, 255))->default_val(settings.targetMean);
    command->add_option("--variance", settings.targetVariance)
        ->check(CLI::Range(0, 65025))
        ->default_val(settings.targetVariance);
  }
  if (name == "histogram") {
    command->add_flag("--smooth", settings.smooth, "smoothed, in 128 bins of two grey levels");
  }
  command->callback([options, &step, &exitCode] {
    const bool raw = hasExtension(options->out, ".npy");
    if (!raw && !hasExtension(options->out, ".png")) {
      throw PictureError("the output is a picture (.png) or raw numbers (.npy)");
    }
    const Picture picture = readPicture(options->in);
    if (!step.anySize) requireAnalysable(picture, options->in);
    writeFile(options->out, step.run(picture, options->settings, raw));
    exitCode = kExitDone;
  });
}

}  // namespace

void addImageCommands(CLI::App &app, int &exitCode) {
  CLI::App *image = app.add_subcommand("image", "Fingerprint pictures: what the image toolkit makes of them");
  image->require_subcommand(1);
  addAnalyze(*image, exitCode);
  addQuality(*image, exitCode);
  addSynth(*image, exitCode);
  for (const Step &step : steps()) addStep(*image, step, exitCode);
}

void demoImage(const std::string &directory) {
  std::filesystem::create_directories(directory);
  const auto inside = [&](const char *name) { return (std::filesystem::path(directory) / name).string(); };
  const SynthPrint print = synthesise({});
  writePicture(inside("whorl.png"), print.picture);
  const Analysis analysis = analyse(print.picture, "whorl.png");
  writeFile(inside("whorl-report.png"), encodePng(paintSheet(analysis, "whorl.png")));
  writeFile(inside("whorl-report.html"), reportAsHtml(analysis, "whorl.png"));
  const Numbers &numbers = analysis.numbers;
  put(fmt::format("\nA synthetic whorl ({} x {} pixels), analysed:\n", print.picture.width, print.picture.height));
  put(fmt::format("  mean quality  {:.0f} of 255, spread {:.0f}\n", numbers.quality, numbers.qualitySpread));
  put(fmt::format("  foreground    {:.0f} % of the picture\n", 100 * numbers.foreground));
  put(fmt::format("  ridge period  {:.1f} pixels\n", numbers.period));
  put(fmt::format("  the report    {}\n                {}\n", shown(inside("whorl-report.html")),
                  shown(inside("whorl-report.png"))));
}

}  // namespace kelm::tools
