// SPDX-License-Identifier: Apache-2.0
#include "tools/program.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/completion.h"
#include "tools/demo.h"
#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/image/commands.h"
#include "tools/output.h"
#include "tools/token/commands.h"
#include "tools/token/words.h"

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
  completion->callback([&app] { put(bashCompletion(app)); });
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

// The word for programs where the failure has none of its own.
const char *codeOf(int exitCode) {
  constexpr const char *kCodes[] = {"", "no-match", "usage", "refused", "no-token"};
  return kCodes[exitCode];
}

// One line on standard error; with --json, one object on standard output too.
int complain(const Failure &failure, bool json) {
  if (json) {
    nlohmann::ordered_json answer = {{"ok", false}, {"error", failure.error}};
    answer["code"] = failure.code.empty() ? codeOf(failure.exitCode) : failure.code;
    if (failure.result != 0) answer["result"] = resultNumber(failure.result);
    answer["advice"] = failure.advice;
    put(jsonText(answer) + '\n');
  }
  putError(std::string("kelmtrova: ") + failure.what());
  return failure.exitCode;
}

// What a wrong command line is told, in one line.
Failure misuse(const CLI::App &app, const CLI::ParseError &error) {
  std::string line = error.what();
  line = line.substr(0, line.find('\n'));
  if (const std::string word = strayWord(app); !word.empty()) line = fmt::format("\"{}\" means nothing here", word);
  return {kExitUsage, line, "`" + commandOf(app) + " --help` shows how"};
}

int parseAndRun(CLI::App &app, std::vector<std::string> words, const int &exitCode) {
  std::reverse(words.begin(), words.end());
  try {
    app.parse(words);
    return exitCode;
  } catch (const CLI::Success &request) {  // help or version
    std::ostringstream text;
    app.exit(request, text, text);
    put(text.str());
    return kExitDone;
  } catch (const CLI::ParseError &error) {
    throw misuse(app, error);
  } catch (const std::bad_alloc &) {
    throw Failure(kExitUsage, "memory is exhausted", "", "memory");
  }
}

}  // namespace

int runProgram(const std::vector<std::string> &words) {
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
  const bool json = std::find(words.begin(), words.end(), "--json") != words.end();
  try {
    if (words.empty()) {
      std::fputs(app.help().c_str(), stderr);
      return kExitUsage;
    }
    try {
      exitCode = parseAndRun(app, words, exitCode);
    } catch (const Failure &failure) {
      exitCode = complain(failure, json && failure.code != "output");
    } catch (const std::exception &error) {
      exitCode = complain({kExitUsage, error.what()}, json);
    }
    flushOutput();
    return exitCode;
  } catch (const Failure &failure) {  // that of the last lines of output
    return complain(failure, false);
  }
}

}  // namespace kelm::tools
