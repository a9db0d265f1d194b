// SPDX-License-Identifier: Apache-2.0
#include "tools/completion.h"

#include <cstddef>
#include <map>
#include <string_view>
#include <vector>

namespace kelm::tools {

namespace {

struct Commands {
  std::string cases;                             // one branch of the shell's `case` per command
  std::map<std::string, std::string> withValue;  // options whose next word is their value, and what it can be
};

// The names that a shell's user types: "-v" and "--verbose".
std::vector<std::string> typedNames(const CLI::Option &option) {
  std::vector<std::string> names;
  for (const std::string &name : option.get_snames()) names.push_back("-" + name);
  for (const std::string &name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

// The words that a positional argument is limited to stand in the description of its check as "{state,clear}".
std::string listedWords(const CLI::Option &option) {
  const std::string type = option.get_type_name();
  const std::size_t open = type.find('{'), close = type.find('}');
  if (open == std::string::npos || close == std::string::npos || close < open) return "";
  std::string words = type.substr(open + 1, close - open - 1);
  for (char &character : words) {
    if (character == ',') character = ' ';
  }
  return words;
}

void collect(const CLI::App &app, const std::string &path, Commands &commands) {
  std::string words, options;
  for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
    words += command->get_name() + " ";
    collect(*command, path + " " + command->get_name(), commands);
  }
  for (const CLI::Option *option : app.get_options()) {
    if (option->get_positional()) words += listedWords(*option);
    for (const std::string &name : typedNames(*option)) {
      options += name + " ";
      if (option->get_expected_max() > 0 && option->get_items_expected_max() > 0)
        commands.withValue[name] = listedWords(*option);
    }
  }
  commands.cases += "    \"" + path + "\") words=\"" + words + "\" options=\"" + options + "\" ;;\n";
}

constexpr std::string_view kScript = R"(# Completion of @ in bash: source <(@ completion bash)
_@() {
  local current=${COMP_WORDS[COMP_CWORD]} path=@ word words='' options='' i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    case $word in
      VALUES) ((++i)) ;;
      -*) ;;
      *) _@_words "$path $word" && path="$path $word" ;;
    esac
  done
  COMPREPLY=()
  case ${COMP_WORDS[COMP_CWORD - 1]} in
CHOICES    VALUES) return ;;  # the shell offers files
  esac
  _@_words "$path"
  case $current in
    -*) COMPREPLY=($(compgen -W "$options" -- "$current")) ;;
    *) COMPREPLY=($(compgen -W "$words" -- "$current")) ;;
  esac
}

# Sets words and options to what may follow a command.
_@_words() {
  case $1 in
CASES    *) return 1 ;;
  esac
}

complete -o default -F _@ @
)";

std::string replaced(std::string text, std::string_view what, std::string_view with) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
  return text;
}

}  // namespace

std::string bashCompletion(const CLI::App &app) {
  Commands commands;
  collect(app, app.get_name(), commands);
  std::string values;
  std::string choices;
  for (const auto &[name, words] : commands.withValue) {
    if (!values.empty()) values += " | ";
    values += name;
    if (words.empty()) continue;
    choices.append("    ").append(name).append(") COMPREPLY=($(compgen -W \"").append(words);
    choices.append("\" -- \"$current\")); return ;;\n");
  }
  std::string script = replaced(std::string(kScript), "@", app.get_name());
  script = replaced(script, "CASES", commands.cases);
  script = replaced(script, "CHOICES", choices);
  return replaced(script, "VALUES", values);
}

}  // namespace kelm::tools
