// SPDX-License-Identifier: Apache-2.0
#include "tools/completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/output.h"

namespace kelm::tools {

namespace {

struct Option {
  std::vector<std::string> names;  // as they are typed: "-v", "--verbose"
  std::string description;
  bool takesValue = false;
  std::string choices;  // what the value is limited to, apart by blanks
};

struct Command {
  std::string path;                                         // "kelmtrova token enroll"
  std::vector<std::pair<std::string, std::string>> inside;  // commands, or what a positional argument is limited to
  std::vector<Option> options;
};

// The words that an argument is limited to stand in the description of its check as "{state,clear}".
std::string listedWords(const CLI::Option &option) {
  const std::string type = option.get_type_name();
  const std::size_t open = type.find('{'), close = type.find('}');
  if (open == std::string::npos || close == std::string::npos || close < open) return "";
  std::string words = type.substr(open + 1, close - open - 1);
  std::replace(words.begin(), words.end(), ',', ' ');
  return words;
}

std::vector<std::string> split(const std::string &words) {
  std::vector<std::string> out;
  for (std::size_t start = 0; start < words.size();) {
    const std::size_t end = std::min(words.find(' ', start), words.size());
    if (end > start) out.push_back(words.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

void collect(const CLI::App &app, const std::string &path, std::vector<Command> &commands) {
  Command command{path, {}, {}};
  for (const CLI::App *inner : app.get_subcommands([](const CLI::App *) { return true; })) {
    if (inner->get_group().empty()) continue;
    command.inside.emplace_back(inner->get_name(), inner->get_description());
    collect(*inner, path + " " + inner->get_name(), commands);
  }
  for (const CLI::Option *option : app.get_options()) {
    if (option->get_positional()) {
      for (const std::string &word : split(listedWords(*option))) command.inside.emplace_back(word, "");
      continue;
    }
    Option typed;
    for (const std::string &name : option->get_snames()) typed.names.push_back("-" + name);
    for (const std::string &name : option->get_lnames()) typed.names.push_back("--" + name);
    typed.description = option->get_description();
    typed.takesValue = option->get_expected_max() > 0 && option->get_items_expected_max() > 0;
    typed.choices = listedWords(*option);
    command.options.push_back(typed);
  }
  commands.push_back(command);
}

// The names of all options with a value, and what the value can be.
std::map<std::string, std::string> valued(const std::vector<Command> &commands) {
  std::map<std::string, std::string> all;
  for (const Command &command : commands) {
    for (const Option &option : command.options) {
      if (!option.takesValue) continue;
      for (const std::string &name : option.names) all[name] = option.choices;
    }
  }
  return all;
}

std::string joined(const std::map<std::string, std::string> &all, std::string_view between) {
  std::string text;
  for (const auto &[name, choices] : all) text.append(text.empty() ? "" : between).append(name);
  return text;
}

std::string replaced(std::string text, std::string_view what, std::string_view with) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
  return text;
}

// In single quotes, for any of the shells.
std::string quoted(const std::string &text) { return "'" + replaced(text, "'", "'\\''") + "'"; }

// ---- bash ----------------------------------------------------------------------------------------------------------

// The words are read from the line, since readline breaks them at colons and the like and leaves quotes in them.
constexpr std::string_view kBash = R"(# Completion of kelmtrova in bash: source <(kelmtrova completion bash)
_kelmtrova() {
  local -a line=()
  local quote='' word path=kelmtrova words='' options='' token='' i
  _kelmtrova_split "${COMP_LINE:0:COMP_POINT}"
  local last=$((${#line[@]} - 1))
  local current=${line[last]} before=${line[last - 1]}
  for ((i = 1; i < last; ++i)); do
    word=${line[i]}
    case $word in
      --token) token=${line[++i]} ;;
      VALUES) ((++i)) ;;
      -*) ;;
      *) _kelmtrova_words "$path $word" && path="$path $word" ;;
    esac
  done
  COMPREPLY=()
  case $before in
    --label) _kelmtrova_offer "$2" labels ${token:+--token "$token"} && return ;;
    --token) _kelmtrova_offer "$2" addresses && return ;;
  esac
  case $before in
CHOICES    VALUES) return 0 ;; # the shell offers files
  esac
  _kelmtrova_words "$path"
  case $current in
    -*) COMPREPLY=($(compgen -W "$options" -- "$current")) ;;
    *) COMPREPLY=($(compgen -W "$words" -- "$current")) ;;
  esac
}

# Splits a part of the line as the shell will, without quotes and backslashes; leaves the quote that is open.
_kelmtrova_split() {
  local rest=$1 char word='' begun=''
  line=() quote=''
  while [[ -n $rest ]]; do
    char=${rest:0:1} rest=${rest:1}
    case $quote$char in
      \'\' | '""') quote='' ;;
      \'?) word+=$char ;;
      '\' | '"\')
        [[ -n $quote && ${rest:0:1} != [\$\`\"\\] ]] || char=${rest:0:1} rest=${rest:1}
        word+=$char begun=yes
        ;;
      \' | '"') quote=$char begun=yes ;;
      ' ' | $'\t')
        [[ -z $begun ]] || line+=("$word")
        word='' begun=''
        ;;
      *) word+=$char begun=yes ;;
    esac
  done
  line+=("$word")
}

# Offers what the token or this machine has, quoted; true when there is something that begins so. What readline takes
# for the word, $1, may be its end only.
_kelmtrova_offer() {
  local word whole=$current open=$quote
  _kelmtrova_split "$open$1"
  local dropped=${whole%"${line[-1]}"}
  shift
  while IFS= read -r word; do
    [[ $word == "$whole"* ]] || continue
    word=${word#"$dropped"}
    case $open in
      \') word=${word//\'/\'\\\'\'} ;;
      '"')
        word=${word//\\/\\\\} word=${word//\"/\\\"} word=${word//\$/\\\$} word=${word//\`/\\\`}
        word=${word//!/\"\'!\'\"} # a history's mark has no other way
        ;;
      *) printf -v word %q "$word" ;;
    esac
    COMPREPLY+=("$word")
  done < <(kelmtrova complete "$@" 2>/dev/null)
  ((${#COMPREPLY[@]} > 0))
}

# Sets words and options to what may follow a command.
_kelmtrova_words() {
  case $1 in
CASES    *) return 1 ;;
  esac
}

complete -o default -F _kelmtrova kelmtrova
)";

std::string bashScript(const std::vector<Command> &commands) {
  const auto values = valued(commands);
  std::string cases, choices;
  for (const Command &command : commands) {
    std::string words, options;
    for (const auto &[name, description] : command.inside) words += name + " ";
    for (const Option &option : command.options) {
      for (const std::string &name : option.names) options += name + " ";
    }
    cases += fmt::format("    \"{}\") words=\"{}\" options=\"{}\" ;;\n", command.path, words, options);
  }
  for (const auto &[name, words] : values) {
    if (words.empty()) continue;
    choices += fmt::format("    {}) COMPREPLY=($(compgen -W \"{}\" -- \"$current\")); return ;;\n", name, words);
  }
  const std::string script = replaced(replaced(std::string(kBash), "CASES", cases), "CHOICES", choices);
  return replaced(script, "VALUES", joined(values, " | "));
}

// ---- zsh -----------------------------------------------------------------------------------------------------------

constexpr std::string_view kZsh = R"(#compdef kelmtrova
# Completion of kelmtrova in zsh: a file _kelmtrova in a folder of $fpath, or source <(kelmtrova completion zsh)
_kelmtrova() {
  local at=kelmtrova word i
  local -a inside options token offered
  for ((i = 2; i < CURRENT; ++i)); do
    word=${words[i]}
    case $word in
      (--token) token=(--token "${(Q)words[++i]}") ;;
      (VALUES) ((++i)) ;;
      (-*) ;;
      (*) _kelmtrova_at "$at $word" && at="$at $word" ;;
    esac
  done
  case ${words[CURRENT - 1]} in
    (--label) offered=("${(@f)$(kelmtrova complete labels $token 2>/dev/null)}"); compadd -a offered; return ;;
    (--token) offered=("${(@f)$(kelmtrova complete addresses 2>/dev/null)}"); compadd -a offered; _files; return ;;
CHOICES    (VALUES) _files; return ;;
  esac
  _kelmtrova_at "$at"
  if [[ $PREFIX == -* ]]; then
    _describe option options
  elif (($#inside)); then
    _describe command inside
  else
    _files
  fi
}

# Sets inside and options to what may follow a command.
_kelmtrova_at() {
  case $1 in
CASES    (*) return 1 ;;
  esac
}

if [[ $funcstack[1] == _kelmtrova ]]; then
  _kelmtrova "$@"
else
  compdef _kelmtrova kelmtrova
fi
)";

std::string zshScript(const std::vector<Command> &commands) {
  const auto values = valued(commands);
  std::string cases, choices;
  for (const Command &command : commands) {
    std::string inside, options;
    for (const auto &[name, description] : command.inside) inside += quoted(name + ":" + description) + " ";
    for (const Option &option : command.options) {
      for (const std::string &name : option.names) options += quoted(name + ":" + option.description) + " ";
    }
    cases += fmt::format("    ({}) inside=({}) options=({}) ;;\n", quoted(command.path), inside, options);
  }
  for (const auto &[name, words] : values) {
    if (!words.empty()) choices += fmt::format("    ({}) compadd {}; return ;;\n", name, words);
  }
  const std::string script = replaced(replaced(std::string(kZsh), "CASES", cases), "CHOICES", choices);
  return replaced(script, "VALUES", joined(values, "|"));
}

// ---- fish ----------------------------------------------------------------------------------------------------------

constexpr std::string_view kFish = R"(# Completion of kelmtrova in fish: kelmtrova completion fish | source
# The command that the line got as far as.
function __kelmtrova_at
    set -l at kelmtrova
    set -l skip 0
    for word in (commandline -opc)[2..-1]
        if test $skip -eq 1
            set skip 0
            continue
        end
        switch $word
            case VALUES
                set skip 1
            case '-*'
            case '*'
                contains -- "$at $word" PATHS
                and set at "$at $word"
        end
    end
    test "$at" = "$argv"
end
# Labels of the token that --token names.
function __kelmtrova_labels
    set -l words (commandline -opc)
    set -l place (contains -i -- --token $words)
    if test -n "$place"
        kelmtrova complete labels --token (string unescape -- $words[(math $place + 1)]) 2>/dev/null
    else
        kelmtrova complete labels 2>/dev/null
    end
end
)";

std::string fishScript(const std::vector<Command> &commands) {
  std::string paths, lines;
  for (const Command &command : commands) {
    paths += (paths.empty() ? "" : " ") + quoted(command.path);
    const std::string at = fmt::format("complete -c kelmtrova -n '__kelmtrova_at {}'", command.path);
    for (const auto &[name, description] : command.inside) {
      lines += fmt::format("{} -f -a {} -d {}\n", at, quoted(name), quoted(description));
    }
    for (const Option &option : command.options) {
      std::string line = at;
      for (const std::string &name : option.names) {
        line += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      }
      const std::string &last = option.names.back();
      if (last == "--label") {
        line += " -x -a '(__kelmtrova_labels)'";
      } else if (last == "--token") {
        line += " -r -a '(kelmtrova complete addresses 2>/dev/null)'";
      } else if (!option.choices.empty()) {
        line += " -x -a " + quoted(option.choices);
      } else if (option.takesValue) {
        line += " -r";
      }
      lines += fmt::format("{} -d {}\n", line, quoted(option.description));
    }
  }
  const std::string functions = replaced(std::string(kFish), "VALUES", joined(valued(commands), " "));
  return replaced(functions, "PATHS", paths) + lines;
}

}  // namespace

void addCompletionCommand(CLI::App &app) {
  struct Shell {
    const char *name;
    std::string (*script)(const std::vector<Command> &);
  };
  static constexpr Shell kShells[] = {{"bash", bashScript}, {"zsh", zshScript}, {"fish", fishScript}};
  CLI::App *completion = app.add_subcommand("completion", "Prints a script that completes the command line in a shell");
  const auto shell = std::make_shared<std::string>();
  completion->add_option("shell", *shell, "the shell")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}))
      ->type_name("");
  completion->footer(
      "Examples:\n  source <(kelmtrova completion bash)\n  source <(kelmtrova completion zsh)\n"
      "  kelmtrova completion fish | source");
  completion->callback([&app, shell] {
    std::vector<Command> commands;
    collect(app, app.get_name(), commands);
    for (const Shell &one : kShells) {
      if (*shell == one.name) put(one.script(commands));
    }
  });
}

}  // namespace kelm::tools
