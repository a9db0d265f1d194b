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
#include "tools/suggestion.h"
#include "tools/token/commands.h"
#include "tools/token/messages.h"

namespace kelm::tools {

namespace {

using Words = std::vector<std::string>;

constexpr const char *kFooter =
    "Examples:\n"
    "  kelmtrova demo                        the life of a token, shown on a simulated one\n"
    "  kelmtrova token list                  the tokens that are there\n"
    "  kelmtrova token enroll --label thumb  enroll a finger\n"
    "  kelmtrova token identify              whose finger is it?\n"
    "  kelmtrova help token enroll           explain a command\n"
    "\n"
    "Exit codes: 0 done or match, 1 no match, 2 wrong usage or a bad file, 3 the token refused, 4 no token.";

void addHelpCommand(CLI::App &app) {
  // The words are taken as "COMMAND --help" before they are parsed; this is for the list of commands.
  CLI::App *help = app.add_subcommand("help", "Explains a command");
  help->footer("Examples:\n  kelmtrova help token enroll");
  help->allow_extras();
}

void addDemoCommand(CLI::App &app, int &exitCode) {
  CLI::App *demo = app.add_subcommand("demo", "Shows the life of a token on a simulated one");
  demo->footer("The token lives in a temporary folder; nothing else is touched.\n\nExamples:\n  kelmtrova demo");
  const auto reports = std::make_shared<std::string>();
  demo->add_option("--report", *reports, "where the analysed print goes; default: a new temporary folder")
      ->type_name("FOLDER");
  demo->callback([reports, &exitCode] { exitCode = runDemo(*reports); });
}

// The command that the words got as far as.
const CLI::App &deepest(const CLI::App &app) {
  const CLI::App *last = &app;
  while (!last->get_subcommands().empty()) last = last->get_subcommands().front();
  return *last;
}

// "kelmtrova token enroll".
std::string nameOf(const CLI::App &app) {
  return app.get_parent() == nullptr ? app.get_name() : nameOf(*app.get_parent()) + " " + app.get_name();
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
  putError(std::string("kelmtrova: ") + failure.what(), Tone::kBad);
  return failure.exitCode;
}

Failure unknownWord(const CLI::App &app, const std::string &word) {
  const std::string meant = suggestion(app, word);
  const std::string error = fmt::format("\"{}\" means nothing here", word);
  const std::string help = fmt::format("`{} --help` shows how", nameOf(app));
  return {kExitUsage, meant.empty() ? error : fmt::format("{}: did you mean \"{}\"?", error, meant), help};
}

// What a wrong command line is told, in one line.
Failure misuse(const CLI::App &app, const CLI::ParseError &error) {
  const CLI::App &last = deepest(app);
  const Words strays = app.remaining(true);
  if (!strays.empty()) return unknownWord(last, strays.front());
  const std::string line = error.what();
  return {kExitUsage, line.substr(0, line.find('\n')), fmt::format("`{} --help` shows how", nameOf(last))};
}

// An empty word is a variable of a script that is not set rather than what somebody meant.
void refuseEmptyWords(const Words &words) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    const bool emptyValue = words[i].starts_with("--") && words[i].ends_with('=');
    if (!words[i].empty() && !emptyValue) continue;
    const std::string where = emptyValue ? words[i].substr(0, words[i].size() - 1) : i == 0 ? "" : words[i - 1];
    throw Failure(kExitUsage,
                  where.empty() ? "an argument is empty" : fmt::format("the argument after {} is empty", where));
  }
}

// "help token enroll" is "token enroll --help".
Words withoutHelp(const CLI::App &app, const Words &words) {
  if (words.front() != "help") return words;
  const CLI::App *command = &app;
  Words out;
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i] == "--help" || words[i] == "-h") continue;
    const auto all = command->get_subcommands([&](const CLI::App *one) { return one->get_name() == words[i]; });
    if (all.empty()) throw unknownWord(*command, words[i]);
    command = all.front();
    out.push_back(words[i]);
  }
  out.emplace_back("--help");
  return out;
}

void parseAndRun(CLI::App &app, const Words &words) {
  refuseEmptyWords(words);
  Words reversed = withoutHelp(app, words);
  std::reverse(reversed.begin(), reversed.end());
  try {
    app.parse(reversed);
  } catch (const CLI::Success &request) {  // help or version
    std::ostringstream text;
    app.exit(request, text, text);
    put(text.str());
  } catch (const CLI::ParseError &error) {
    throw misuse(app, error);
  } catch (const std::bad_alloc &) {
    throw Failure(kExitUsage, "memory is exhausted", "", "memory");
  } catch (const Failure &) {
    throw;
  } catch (const std::exception &error) {
    throw Failure(kExitUsage, error.what());
  }
}

bool among(const Words &words, std::string_view one) {
  return std::find(words.begin(), words.end(), one) != words.end();
}

}  // namespace

int runProgram(const Words &words) {
  CLI::App app{"Fingerprint tokens and fingerprint pictures from the command line.", "kelmtrova"};
  int exitCode = kExitDone;
  app.require_subcommand(1);
  app.set_help_flag("-h,--help", "print this help");
  app.set_version_flag("--version", "kelmtrova " KELM_VERSION, "print the version");
  addTokenCommands(app, exitCode);
  addImageCommands(app, exitCode);
  addDemoCommand(app, exitCode);
  addHelpCommand(app);
  addCompletionCommand(app);
  app.footer(kFooter);  // last: commands take over what is there when they are made
  if (words.empty()) {
    std::fputs(app.help().c_str(), stderr);
    return kExitUsage;
  }
  // Known before anything else, so that a wrong command line is answered in the same way.
  const bool token = words.front() == "token";
  const bool json = among(words, "--json");
  setQuiet(token && (among(words, "-q") || among(words, "--quiet")));
  try {
    try {
      parseAndRun(app, words);
    } catch (const Failure &failure) {
      exitCode = complain(failure, json && failure.code != "output");
    }
    flushOutput();
    return exitCode;
  } catch (const Failure &failure) {  // that of the last lines of output
    return complain(failure, false);
  }
}

}  // namespace kelm::tools
