// SPDX-License-Identifier: Apache-2.0
#include "tools/image/commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>

#include "tools/exit_codes.h"
#include "tools/image/analysis.h"
#include "tools/image/maps.h"
#include "tools/image/page.h"
#include "tools/image/picture.h"
#include "tools/image/quality.h"
#include "tools/image/steps.h"
#include "tools/image/synth.h"
#include "tools/output.h"
#include "tools/text.h"

namespace kelm::tools {
namespace {

constexpr const char *kPictureHelp = "the picture, in any format of docs/image-program.md; - for standard input";

// Where a command's result goes, and in which format.
struct Target {
  std::string path, format;

  void addTo(CLI::App &command, const std::string &help) {
    command.add_option("-o,--output", path, help + "; - for standard output")->type_name("FILE");
    command.add_option("--format", format, "the format, whatever the file is called")->type_name("png|...");
  }
  // The format asked for, or the ending of the name; it must be one of those given, of which the first is taken for
  // standard output.
  std::string chosen(const std::vector<std::string> &known) const {
    std::string wanted = format;
    if (wanted.empty() && path == "-") return known.front();
    if (wanted.empty()) wanted = std::filesystem::path(path).extension().string();
    if (wanted.starts_with('.')) wanted.erase(0, 1);
    std::transform(wanted.begin(), wanted.end(), wanted.begin(), [](unsigned char c) { return std::tolower(c); });
    if (std::find(known.begin(), known.end(), wanted) != known.end()) return wanted;
    throw FileFailure(path + ": this is written as " + fmt::format("{}", fmt::join(known, ", ")) +
                      (wanted.empty() ? "" : ", not as " + wanted));
  }
  void write(std::span<const uint8_t> bytes) const {
    if (path == "-") return put({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    writeFile(path, bytes);
  }
};

Bytes bytesOf(const std::string &text) { return {text.begin(), text.end()}; }

Bytes encoded(const Picture &picture, const std::string &format) {
  return format == "pgm" ? encodePgm(picture) : encodePng(picture);
}

Bytes pageAs(const std::string &format, const Page &page) {
  if (format == "html" || format == "htm") return bytesOf(pageAsHtml(page));
  return pageAsSheet(page, format == "svg" ? Format::Svg : format == "pdf" ? Format::Pdf : Format::Png);
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

struct SynthOptions {
  SynthSettings settings;
  std::string printClass, truth, size;
  int count = 0;
  Target target;
};

void setClass(SynthOptions &options, uint64_t number) {
  const auto *name = std::find(kPrintClasses.begin(), kPrintClasses.end(), options.printClass);
  const auto index =
      name == kPrintClasses.end() ? number % kPrintClasses.size() : static_cast<uint64_t>(name - kPrintClasses.begin());
  options.settings.printClass = static_cast<PrintClass>(index);
}

void writeTruth(const SynthOptions &options, const std::string &lines) {
  if (options.truth == "-") return put(lines);
  if (!options.truth.empty()) writeFile(options.truth, lines);
}

void synthesiseOne(SynthOptions &options) {
  const std::string format = options.target.chosen({"png", "pgm"});
  if (options.target.path == "-" && options.truth == "-") {
    throw Failure(kExitUsage, "both the picture and its truth would go to standard output");
  }
  setClass(options, options.settings.seed);
  const SynthPrint print = synthesise(options.settings);
  options.target.write(encoded(print.picture, format));
  writeTruth(options, jsonText(truthOf(options.settings, print), -1) + '\n');
}

void synthesiseMany(SynthOptions &options) {
  namespace fs = std::filesystem;
  const std::string format = options.target.format.empty() ? "png" : options.target.chosen({"png", "pgm"});
  if (options.target.path == "-")
    throw Failure(kExitUsage, "--count: the prints go into a folder, not to standard output");
  std::error_code error;
  fs::create_directories(options.target.path, error);
  if (error) throw FileFailure(options.target.path + ": " + error.message());
  std::string truths;
  for (int i = 0; i < options.count; ++i) {
    setClass(options, options.settings.seed);
    const SynthPrint print = synthesise(options.settings);
    const std::string name = fmt::format("{}-{}.{}", kPrintClasses[static_cast<size_t>(options.settings.printClass)],
                                         options.settings.seed, format);
    writeFile((fs::path(options.target.path) / name).string(), encoded(print.picture, format));
    nlohmann::ordered_json line = {{"path", name}};
    line.update(truthOf(options.settings, print));
    truths += jsonText(line, -1) + '\n';
    ++options.settings.seed;
  }
  writeTruth(options, truths);
}

void addSynth(CLI::App &image, int &exitCode) {
  constexpr uint64_t kLargestSeed = (uint64_t{1} << 53) - 1;  // JSON numbers hold it exactly
  auto options = std::make_shared<SynthOptions>();
  CLI::App *command = image.add_subcommand("synth", "Makes synthetic prints: the same seed, the same samples");
  std::vector<std::string> classes(kPrintClasses.begin(), kPrintClasses.end());
  classes.push_back("any");
  command->add_option("--class", options->printClass, "the pattern of the ridges; any: by the seed, in turn")
      ->check(CLI::IsMember(classes))
      ->required()
      ->type_name("CLASS");
  command->add_option("--seed", options->settings.seed, "what the random choices start from, 0 to 2^53 - 1")
      ->check(CLI::Range(uint64_t{0}, kLargestSeed))
      ->default_val(1);
  command->add_option("--size", options->size, "width x height in pixels, at 500 pixels per inch; 416x560 if not given")
      ->check([options](const std::string &text) { return parseSize(text, options->settings); })
      ->type_name("WxH");
  command->add_option("--noise", options->settings.noise, "0 for a clean print, 100 for a very poor one")
      ->check(CLI::Range(0, 100))
      ->default_val(20);
  command->add_option("--gap", options->settings.gap, "wipes out a band across the print, so many pixels high")
      ->check(CLI::Range(0, 512))
      ->default_val(0);
  command->add_option("--count", options->count, "makes so many, with this seed and those after it, into a folder")
      ->check(CLI::Range(1, 1'000'000));
  options->target.addTo(*command, "the picture: .png or .pgm; with --count the folder");
  command->get_option("--output")->required();
  command->add_option(
      "--truth", options->truth,
      "the true orientation and period of the ridges, as JSON; with --count a line for each print; - for "
      "standard output");
  command->get_option("--truth")->type_name("FILE");
  command->footer(
      "Examples:\n  kelmtrova image synth --class whorl -o whorl.png\n"
      "  kelmtrova image synth --class any --count 200 --noise 40 -o prints --truth prints.jsonl");
  command->callback([options, &exitCode] {
    options->count > 0 ? synthesiseMany(*options) : synthesiseOne(*options);
    exitCode = kExitDone;
  });
}

// What a person wants to know first.
std::string summaryText(const Page &page) {
  size_t width = 0;
  for (const auto &[what, value] : page.numbers) width = std::max(width, what.size());
  std::string text = shown(page.title) + '\n';
  for (const auto &[what, value] : page.numbers) text += fmt::format("  {:<{}}  {}\n", what, width, value);
  return text;
}

void addAnalyze(CLI::App &image, int &exitCode) {
  struct Options {
    std::string in, maps;
    Target target;
    bool json = false, timings = false;
  };
  auto options = std::make_shared<Options>();
  CLI::App *command = image.add_subcommand("analyze", "Everything the toolkit says about a print, on one page");
  command->add_option("print", options->in, kPictureHelp)->required();
  options->target.addTo(*command, "the page: .png, .svg or .pdf for a sheet, .html for a page with overlays");
  command->add_option("--maps", options->maps, "all maps as .npy and .png, with a list of what they mean")
      ->type_name("FOLDER");
  CLI::Option *json = command->add_flag("--json", options->json, "the numbers as JSON on standard output");
  command->add_flag("--timings", options->timings, "and how long each step took")->needs(json);
  command->footer(
      "Without options it prints a summary. Exit code 1: there is no finger in the picture.\n\n"
      "Examples:\n  kelmtrova image analyze print.tif\n  kelmtrova image analyze print.tif -o report.html --maps maps");
  command->callback([options, &exitCode] {
    const bool wantsPage = !options->target.path.empty();
    const std::string format = wantsPage ? options->target.chosen({"png", "svg", "pdf", "html", "htm"}) : "";
    if (options->json && options->target.path == "-") {
      throw Failure(kExitUsage, "both the page and the numbers would go to standard output");
    }
    const Analysis analysis = analyse(readPicture(options->in), options->in);
    const Page page = describe(analysis, options->in);
    if (wantsPage) options->target.write(pageAs(format, page));
    if (!options->maps.empty()) writeMaps(analysis, options->in, options->maps);
    if (options->json) put(numbersAsJson(analysis, options->in, options->timings) + '\n');
    if (!options->json && !wantsPage && options->maps.empty()) put(summaryText(page));
    exitCode = analysis.numbers.finger ? kExitDone : kExitNoMatch;
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
  command->add_flag("-0,--null", settings->nullBytes, "the list on standard input ends its paths with null bytes");
  command
      ->add_option("-o,--output", settings->out,
                   "the file for the lines, which is called FILE.part until it is whole; - for standard output")
      ->type_name("FILE");
  command->add_flag("--resume", settings->resume, "keeps what an earlier run left in FILE or FILE.part, but its errors")
      ->needs("--output");
  command->footer(
      "A picture that cannot be read is a line with its error. Exit code 2: nothing could be read.\n\n"
      "Examples:\n  find prints -name '*.tif' -print0 | kelmtrova image quality -0 - -j 4 -o quality.jsonl --resume");
  command->callback([settings, &exitCode] {
    if (settings->out == "-" && settings->resume) {
      throw Failure(kExitUsage, "--resume: standard output keeps nothing of an earlier run");
    }
    if (settings->out == "-") settings->out.clear();
    exitCode = measureQuality(*settings);
  });
}

void addStep(CLI::App &image, const Step &step, int &exitCode) {
  struct Options {
    std::string in;
    Target target;
    RunStep run;
  };
  auto options = std::make_shared<Options>();
  CLI::App *command = image.add_subcommand(step.name, step.help);
  if (step.alias) command->alias(step.alias);
  command->add_option("picture", options->in, kPictureHelp)->required();
  options->target.addTo(*command, "a picture (.png; .pgm where it is grey) or raw numbers (.npy)");
  command->get_option("--output")->required();
  options->run = step.prepare(*command);
  command->footer(fmt::format("Examples:\n  kelmtrova image {} {}", step.name, step.example));
  command->callback([options, &exitCode] {
    const std::string format = options->target.chosen({"png", "npy", "pgm"});
    options->run(readPicture(options->in), options->in, [&](const Map &map) {
      if (format == "pgm" && !map.pgm) options->target.chosen({"png", "npy"});
      options->target.write(format == "npy" ? map.npy() : format == "pgm" ? map.pgm() : map.png());
    });
    exitCode = kExitDone;
  });
}

}  // namespace

void addImageCommands(CLI::App &app, int &exitCode) {
  CLI::App *image = app.add_subcommand("image", "Fingerprint pictures: what the image toolkit makes of them");
  image->require_subcommand(1);
  image->footer("`kelmtrova image COMMAND --help` tells more of a command.");
  addAnalyze(*image, exitCode);
  addQuality(*image, exitCode);
  addSynth(*image, exitCode);
  for (const Step &step : steps()) addStep(*image, step, exitCode);
}

void demoImage(const std::string &directory) {
  std::filesystem::create_directories(directory);
  const auto inside = [&](const char *name) { return (std::filesystem::path(directory) / name).string(); };
  const SynthPrint print = synthesise({});
  writeFile(inside("whorl.png"), encodePng(print.picture));
  const Analysis analysis = analyse(print.picture, "whorl.png");
  const Page page = describe(analysis, "whorl.png");
  writeFile(inside("whorl-report.png"), pageAsSheet(page, Format::Png));
  writeFile(inside("whorl-report.html"), pageAsHtml(page));
  const Numbers &numbers = analysis.numbers;
  put(fmt::format("\nA synthetic whorl ({} x {} pixels), analysed:\n", print.picture.width, print.picture.height));
  put(fmt::format("  ridge clarity {:.0f} of 100\n", numbers.clarity));
  put(fmt::format("  mean quality  {:.0f} of 255, spread {:.0f}\n", numbers.quality, numbers.qualitySpread));
  put(fmt::format("  foreground    {:.0f} % of the picture\n", 100 * numbers.foreground));
  put(fmt::format("  ridge period  {:.1f} pixels\n", numbers.period));
  put(fmt::format("  the report    {}\n                {}\n", shown(inside("whorl-report.html")),
                  shown(inside("whorl-report.png"))));
}

}  // namespace kelm::tools
