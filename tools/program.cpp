// SPDX-License-Identifier: Apache-2.0
#include "tools/program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>

#include "tools/completion.h"
#include "tools/demo.h"
#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/image/commands.h"
#include "tools/token/commands.h"

namespace kelm::tools {

namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  kelmtrova demo                        the life of a token, shown on a simulated one\n"
    "  kelmtrova token create                make a simulated token\n"
    "  kelmtrova token enroll --finger thumb enroll a finger\n"
    "  kelmtrova token identify --finger thumb\n"
    "  source <(kelmtrova completion bash)   complete commands and options in this shell\n"
    "\n"
    "Exit codes: 0 done or match, 1 no match, 2 wrong usage or a bad file, 3 the token refused, 4 no token.";

void addCompletionCommand(CLI::App &app) {
  CLI::App *completion = app.add_subcommand("completion", "Prints a script that completes the command line in a shell");
  completion->add_option("shell", "the shell")->required()->check(CLI::IsMember({"bash"}))->type_name("");
  completion->footer("Example:\n  source <(kelmtrova completion bash)");
  completion->callback([&app] { std::cout << bashCompletion(app); });
}

void addDemoCommand(CLI::App &app, int &exitCode) {
  CLI::App *demo = app.add_subcommand("demo", "Shows the life of a token on a simulated one");
  demo->footer("The token lives in a temporary folder; nothing else is touched.");
  const auto reports = std::make_shared<std::string>();
  demo->add_option("--report", *reports, "where the analysed print goes; default: a new temporary folder")
      ->type_name("FOLDER");
  demo->callback([reports, &exitCode] { exitCode = runDemo(*reports); });
}

// The command that the words got as far as: "kelmtrova token enroll".
std::string commandOf(const CLI::App &app) {
  std::string name = app.get_name();
  for (const CLI::App *next = &app; !next->get_subcommands().empty();) {
    next = next->get_subcommands().front();
    name += " " + next->get_name();
  }
  return name;
}

// The first word that no command takes, "" when there is none.
std::string strayWord(const CLI::App &app) {
  const std::vector<std::string> words = app.remaining(true);
  return words.empty() ? "" : words.front();
}

int complain(const std::string &line, int exitCode) {
  std::cout << std::flush;
  std::cerr << "kelmtrova: " << line << '\n';
  return exitCode;
}

}  // namespace

int runProgram(std::vector<std::string> words) {
  CLI::App app{"Fingerprint tokens and fingerprint pictures from the command line.", "kelmtrova"};
  int exitCode = kExitDone;
  app.require_subcommand(1);
  app.footer(kFooter);
  app.set_help_flag("-h,--help", "print this help");
  app.set_version_flag("--version", "kelmtrova " KELM_VERSION, "print the version");
  addTokenCommands(app, exitCode);
  addImageCommands(app, exitCode);
  addDemoCommand(app, exitCode);
  addCompletionCommand(app);
  if (words.empty()) {
    std::cerr << app.help();
    return kExitUsage;
  }
  try {
    std::reverse(words.begin(), words.end());
    app.parse(words);
  } catch (const CLI::Success &request) {  // help or version
    app.exit(request);
    return kExitDone;
  } catch (const CLI::ParseError &error) {
    std::string line = error.what();
    line = line.substr(0, line.find('\n'));
    if (const std::string word = strayWord(app); !word.empty())
      line.assign("\"").append(word).append("\" means nothing here");
    return complain(line + " (`" + commandOf(app) + " --help` shows how)", kExitUsage);
  } catch (const Failure &failure) {
    return complain(failure.what(), failure.exitCode);
  } catch (const std::exception &error) {
    return complain(error.what(), kExitUsage);
  }
  std::cout << std::flush;
  if (!std::cout) return complain("the output could not be written", kExitUsage);
  return exitCode;
}

}  // namespace kelm::tools
