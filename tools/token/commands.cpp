// SPDX-License-Identifier: Apache-2.0
#include "tools/token/commands.h"

#include <fmt/format.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/output.h"
#include "tools/text.h"
#include "tools/token/actions.h"
#include "tools/token/pin.h"
#include "tools/token/watch.h"

namespace kelm::tools {

namespace {

constexpr int kMostByte = 255;
constexpr const char *kCommon = "Options of all token commands";
constexpr const char *kPin = "The PIN";
constexpr std::size_t kLongestLabel = sizeof TemplateIndexEntry::userData;

// The range itself stands in the option's description.
CLI::Validator byRange(int least, int most) {
  return {[least, most](const std::string &text) {
            int number = 0;
            const bool fits = CLI::detail::lexical_cast(text, number) && number >= least && number <= most;
            return fits ? std::string() : fmt::format("{} is no number from {} to {}", shown(text), least, most);
          },
          ""};
}

std::string checkLabel(const std::string &label) {
  if (label.size() <= kLongestLabel) return "";
  return fmt::format("a label has at most {} bytes, \"{}\" has {}", kLongestLabel, label, label.size());
}

// Everything that the words of a command line can set.
struct Options {
  TokenOptions token;
  CreateOptions create;
  FingerOptions finger;
  ParameterOptions parameters;
  std::vector<std::string> erase;
  std::string word;                    // the positional argument
  std::optional<std::string> pinWord;  // that of `pin verify`
};

void print(const Report &report, const TokenOptions &token) {
  if (token.json) {
    nlohmann::ordered_json json = {{"ok", true}};
    json.update(report.json);
    put(jsonText(json, report.indent) + '\n');
  } else if (report.tone != Tone::kPlain) {
    put(toned(std::string_view(report.text).substr(0, report.text.size() - 1), report.tone, 1) + '\n');
  } else {
    put(report.text);
  }
}

int run(const TokenOptions &token, const std::function<Report()> &action) {
  struct Trace {
    explicit Trace(const TokenOptions &options) {
      if (!options.trace.empty()) traceInto(options.trace, options.traceData);
    }
    ~Trace() { traceEnds(); }
  };
  if (token.quiet) setQuiet(true);
  watch() = {};
  watch().verbosity = token.quiet ? 0 : token.verbosity;
  const Trace trace(token);
  const Report report = action();
  print(report, token);
  return report.exitCode;
}

// Makes the commands. Each lives in a CLI::App; the options live as long as the callbacks that use them.
class Builder {
 public:
  Builder(CLI::App &token, int &exitCode) : token_(token), exitCode_(exitCode) {}

  // A command that runs `action` on an opened token; `examples` follow "kelmtrova token ".
  CLI::App *add(CLI::App &parent, const char *name, const char *description,
                std::initializer_list<const char *> examples, Report (*action)(Session &, const Options &)) {
    CLI::App *command = addBare(parent, name, description, examples, nullptr);
    addPinSources(command);
    addDevice(command);
    command->callback([options = options_, &exitCode = exitCode_, action] {
      exitCode = run(options->token, [&] {
        Session session(chooseAddress(options->token), options->token);
        return action(session, *options);
      });
    });
    return command;
  }
  CLI::App *add(const char *name, const char *description, std::initializer_list<const char *> examples,
                Report (*action)(Session &, const Options &)) {
    return add(token_, name, description, examples, action);
  }

  // A command that opens what it needs by itself.
  CLI::App *addBare(CLI::App &parent, const char *name, const char *description,
                    std::initializer_list<const char *> examples, Report (*action)(const Options &)) {
    CLI::App *command = parent.add_subcommand(name, description);
    std::string footer = "Examples:";
    for (const char *example : examples) footer += fmt::format("\n  kelmtrova token {}", example);
    command->footer(footer);
    command
        ->add_option("--token", options_->token.address,
                     "the token: pcsc:READER, sim:STORE or a bare path; default: KELMTROVA_TOKEN, the only reader "
                     "with a fingerprint token, or the default store")
        ->type_name("ADDRESS")
        ->group(kCommon);
    command->add_flag("--json", options_->token.json, "print one JSON object for programs")->group(kCommon);
    command->add_flag("-q,--quiet", options_->token.quiet, "print nothing: the exit code says it")->group(kCommon);
    addTrace(command);
    if (action == nullptr) return command;
    command->callback([options = options_, &exitCode = exitCode_, action] {
      exitCode = run(options->token, [&] { return action(*options); });
    });
    return command;
  }

  void addPinSources(CLI::App *command, const char *purpose = "verify the user's PIN first") {
    PinOptions &pin = options_->token.pin;
    CLI::Option *file =
        command->add_option("--pin-file", pin.file, fmt::format("{}: the first line of a file", purpose));
    CLI::Option *input = command->add_flag("--pin-stdin", pin.standardInput, "the same: a line of standard input");
    CLI::Option *given = command->add_option("--pin", pin.given, "the same, where others can see it; - asks for it");
    file->type_name("FILE")->group(kPin);
    input->excludes(file)->group(kPin);
    given->type_name("PIN")->excludes(file)->excludes(input)->group(kPin);
  }

  void addFinger(CLI::App *command) {
    command
        ->add_option("--finger", options_->finger.finger,
                     "what lies on the simulated sensor: a name, or with @ the bytes of a file")
        ->type_name("NAME|@FILE");
  }

  CLI::Option *addSlot(CLI::App *command, const char *description) {
    return command->add_option("--slot", options_->finger.slot, description)
        ->type_name("N")
        ->check(byRange(1, kMostByte));
  }
  CLI::Option *addLabel(CLI::App *command, const char *description) {
    return command->add_option("--label", options_->finger.label, description)->type_name("TEXT")->check(checkLabel);
  }

  CLI::Option *addByte(CLI::App *command, const char *name, std::optional<int> &value, const char *description) {
    return command->add_option(name, value, description)->type_name("BYTE")->check(byRange(0, kMostByte));
  }

  CLI::Option *addWord(CLI::App *command, const char *name, const char *description) {
    return command->add_option(name, options_->word, description)->required();
  }

  Options &options() { return *options_; }
  const std::shared_ptr<Options> &shared() { return options_; }
  CLI::App &token() { return token_; }

 private:
  void addDevice(CLI::App *command) {
    command
        ->add_option("--device", options_->token.device,
                     "another word for --token handle:N: a maker's device manager's handle")
        ->type_name("N")
        ->excludes("--token")
        ->group(kCommon);
  }

  void addTrace(CLI::App *command) {
    TokenOptions &token = options_->token;
    // By a function: later versions of CLI11 set a number back to 0 where the flag is not given.
    command
        ->add_flag_function(
            "-v,--verbose", [&token](std::int64_t count) { token.verbosity = static_cast<int>(count); },
            "show every command and answer (-vv: the library's traces too)")
        ->group(kCommon);
    CLI::Option *trace = command->add_option(
        "--trace", token.trace, "write every command and answer: .txt, or .pcapng and .pcap for Wireshark; no PINs");
    trace->type_name("FILE")->group(kCommon);
    command->add_flag("--trace-data", token.traceData, "user data and pictures in the trace too")
        ->needs(trace)
        ->group(kCommon);
  }

  CLI::App &token_;
  int &exitCode_;
  std::shared_ptr<Options> options_ = std::make_shared<Options>();
};

void addFindCommands(Builder &builder) {
  builder.addBare(builder.token(), "list", "Lists the tokens that are there, with their addresses",
                  {"list", "list --json"}, [](const Options &) { return listTokens(); });
  CreateOptions &create = builder.options().create;
  CLI::App *command =
      builder.addBare(builder.token(), "create", "Makes and personalises a simulated token",
                      {"create", "create --slots 20 --token sim:test.db --pin-file pin.txt"},
                      [](const Options &options) { return createToken(options.token, options.create); });
  builder.addPinSources(command, "its PIN, 4 to 16 characters; 1234 where nobody can be asked");
  command->add_option("--slots", create.slots, "how many fingers it can keep, 1 to 255")
      ->type_name("N")
      ->check(byRange(1, kMostByte))
      ->capture_default_str();
  command->add_option("--tries", create.tries, "failed matches before it blocks itself, 1 to 15")
      ->type_name("N")
      ->check(byRange(1, 15))
      ->capture_default_str();
  command
      ->add_option("--fid-counter", create.fidCounter,
                   "where its FID counter starts, to 2048; 0 for the first safe value")
      ->type_name("N")
      ->check(byRange(0, 0x800));
}

void addDeviceCommands(Builder &builder) {
  builder.add("info", "Tells what the token is, how full and how it stands; costs no try", {"info", "info --json"},
              [](Session &session, const Options &) { return showInfo(session); });
  builder.add("selftest", "Lets the token test itself", {"selftest"},
              [](Session &session, const Options &) { return selfTest(session); });
  builder.add("slots", "Lists the slots", {"slots", "slots --json | jq -r '.slots[] | select(.label) | .label'"},
              [](Session &session, const Options &) { return showSlots(session); });
  builder.add("doctor", "Holds self-test, index, files and counter against each other, and says what to do", {"doctor"},
              [](Session &session, const Options &) { return examine(session); });
}

void addMatching(Builder &builder, CLI::App *command) {
  FingerOptions &finger = builder.options().finger;
  builder.addFinger(command);
  command->add_option("--mode", finger.mode, "the token's matching mode, 0 or 1")->type_name("N")->check(byRange(0, 1));
  command->add_flag("--test", finger.test, "match without counting tries");
  command->add_flag("--watch", finger.watch, "go on, finger after finger, until a signal ends it");
}

void addFingerCommands(Builder &builder) {
  FingerOptions &finger = builder.options().finger;
  CLI::App *enrollCommand = builder.add(
      "enroll", "Enrolls a finger", {"enroll --label \"right thumb\"", "enroll --replace --label \"right thumb\""},
      [](Session &session, const Options &options) { return enroll(session, options.finger); });
  builder.addFinger(enrollCommand);
  builder.addSlot(enrollCommand, "the slot, 1 to 255; default: the first free one");
  builder.addLabel(enrollCommand, "kept with the slot, at most 16 bytes");
  enrollCommand->add_option("--tag", finger.tag, "a byte kept with the slot, 0 to 255")
      ->type_name("BYTE")
      ->check(byRange(0, kMostByte));
  enrollCommand->add_flag("--replace", finger.replace,
                          "in place of the finger in --slot, or with --label; its label and tag stay unless given");
  enrollCommand->add_flag("--again", finger.again, "also a finger that is enrolled already");

  CLI::App *verifyCommand = builder.add("verify", "Compares a finger with one slot",
                                        {"verify --label \"right thumb\"", "verify --slot 3 --watch"},
                                        [](Session &session, const Options &options) {
                                          if (options.finger.watch)
                                            watchFingers(session, options.finger, false, options.token.json);
                                          return verify(session, options.finger);
                                        });
  builder.addLabel(verifyCommand, "the finger's label")->excludes(builder.addSlot(verifyCommand, "the slot"));
  addMatching(builder, verifyCommand);
  CLI::App *identifyCommand =
      builder.add("identify", "Finds the slot of a finger", {"identify", "identify --watch --json"},
                  [](Session &session, const Options &options) {
                    if (options.finger.watch) watchFingers(session, options.finger, true, options.token.json);
                    return identify(session, options.finger);
                  });
  addMatching(builder, identifyCommand);

  CLI::App *deleteCommand =
      builder.add("delete", "Deletes a finger, or all", {"delete --label \"right thumb\"", "delete --all --yes"},
                  [](Session &session, const Options &options) { return deleteFingers(session, options.finger); });
  CLI::Option *label = builder.addLabel(deleteCommand, "the finger's label");
  CLI::Option *slot = builder.addSlot(deleteCommand, "the slot");
  label->excludes(slot);
  CLI::Option *all = deleteCommand->add_flag("--all", finger.all, "every slot; asks first");
  all->excludes(label)->excludes(slot);
  deleteCommand->add_flag("--yes", finger.yes, "do not ask")->needs(all);

  CLI::App *repairCommand =
      builder.add("repair", "Erases template files that no slot names, left by interrupted enrollments",
                  {"repair", "repair --erase 0560"},
                  [](Session &session, const Options &options) { return repair(session, options.erase); });
  repairCommand
      ->add_option("--erase", builder.options().erase,
                   "only this file; on a real token, where other files may be somebody else's, nothing goes without it")
      ->type_name("FID");
}

void addSettingCommands(Builder &builder) {
  ParameterOptions &values = builder.options().parameters;
  CLI::App *params =
      builder.add("params", "Shows the token's parameters, after setting those that are given",
                  {"params", "params --time-out 20 --security-level 3"},
                  [](Session &session, const Options &options) { return parameters(session, options.parameters); });
  params->add_option("--verify-mode", values.verifyMode, "what verification asks for, 0 to 2")
      ->type_name("MODE")
      ->check(byRange(0, 2));
  builder.addByte(params, "--time-out", values.timeOut, "how long a capture waits, 0 to 255");
  builder.addByte(params, "--security-level", values.securityLevel, "how strictly fingers are matched, 0 to 255");
  builder.addByte(params, "--gain", values.gain, "the sensor's gain, 0 to 255");

  CLI::App *cacheCommand = builder.add("cache", "Shows, clears or switches the finger cache", {"cache", "cache on"},
                                       [](Session &session, const Options &options) {
                                         return cache(session, options.word.empty() ? "state" : options.word);
                                       });
  cacheCommand->add_option("action", builder.options().word, "what to do; default: state")
      ->check(CLI::IsMember({"state", "clear", "on", "off"}))
      ->type_name("");

  CLI::App *send =
      builder.add("send-image", "Sends a grey picture to the token", {"send-image print.pgm"},
                  [](Session &session, const Options &options) { return sendImage(session, options.word); });
  builder.addWord(send, "picture", "a PGM or PNG, at most 240 pixels wide")->type_name("FILE");
}

void addPinCommands(Builder &builder) {
  CLI::App *pin = builder.token().add_subcommand("pin", "Verifies or changes the PIN, or makes the token ask for it");
  pin->require_subcommand(1);
  pin->footer(
      "Examples:\n  kelmtrova token pin verify\n  kelmtrova token pin change\n  kelmtrova token pin require on");
  CLI::App *verifyCommand =
      builder.add(*pin, "verify", "Verifies the user's PIN through the token's middleware",
                  {"pin verify", "pin verify --pin-file pin.txt"}, [](Session &session, const Options &options) {
                    // One that the options gave was verified when the session began.
                    const PinOptions &given = options.token.pin;
                    if (options.pinWord) warnOfVisiblePin();
                    if (options.pinWord || (!given.given && given.file.empty() && !given.standardInput)) {
                      session.verifyPin(options.pinWord ? *options.pinWord : requiredPin(given));
                    }
                    Report report;
                    report.tone = Tone::kGood;
                    report.text = "the PIN is right\n";
                    report.json["verified"] = true;
                    return report;
                  });
  verifyCommand->add_option("PIN", builder.options().pinWord, "where others can see it; asked for when it is not given")
      ->type_name("");
  CLI::App *change = builder.addBare(*pin, "change", "Changes the PIN of a simulated token",
                                     {"pin change", "pin change --pin-file old.txt --new-pin-file new.txt"},
                                     [](const Options &options) { return changePin(options.token); });
  builder.addPinSources(change, "the PIN that the token has");
  change
      ->add_option("--new-pin-file", builder.options().token.pin.newFile,
                   "the new one: the first line of a file; with --pin-stdin it is the second line there")
      ->type_name("FILE")
      ->group(kPin);
  CLI::App *require =
      builder.addBare(*pin, "require", "Makes a simulated token ask for its PIN, or not", {"pin require on"},
                      [](const Options &options) { return requirePin(options.token, options.word == "on"); });
  builder.addWord(require, "state", "whether it asks")->check(CLI::IsMember({"on", "off"}))->type_name("");
  builder.addBare(builder.token(), "unblock", "Unblocks a simulated token: all tries are there again", {"unblock"},
                  [](const Options &options) { return unblock(options.token); });
}

void addSimulatedCommands(Builder &builder) {
  CLI::App *touchCommand =
      builder.addBare(builder.token(), "touch", "Lays a finger on a simulated sensor, for other processes too",
                      {"touch right-thumb", "touch @scan.raw"},
                      [](const Options &options) { return touch(options.token, options.word); });
  builder.addWord(touchCommand, "finger", "a name, or with @ the bytes of a file")->type_name("NAME|@FILE");
  builder.addBare(builder.token(), "lift", "Takes the finger off a simulated sensor", {"lift"},
                  [](const Options &options) { return lift(options.token); });
  CLI::App *serveCommand =
      builder.addBare(builder.token(), "serve", "Puts a simulated token into a virtual reader of pcscd, until a signal",
                      {"serve", "serve --token sim:test.db --vpcd localhost:35963"},
                      [](const Options &options) { return serve(options.token, options.word); });
  serveCommand
      ->add_option("--vpcd", builder.options().word, "where the virtual reader listens; default: 127.0.0.1:35963")
      ->type_name("HOST:PORT");
  CLI::App *exportCommand = builder.addBare(
      builder.token(), "export", "Writes a simulated token to a file, to be kept or brought elsewhere",
      {"export backup.token"}, [](const Options &options) { return exportToken(options.token, options.word); });
  builder.addWord(exportCommand, "file", "where to; an older export is replaced")->type_name("FILE");
  CLI::App *importCommand =
      builder.addBare(builder.token(), "import", "Makes a simulated token from an exported one",
                      {"import backup.token --token sim:restored.db"},
                      [](const Options &options) { return importToken(options.token, options.word); });
  builder.addWord(importCommand, "file", "what `export` wrote")->type_name("FILE");
}

// What a shell's completion offers, one on each line; nothing where something is wrong.
void addCompleteCommand(CLI::App &app, const std::shared_ptr<Options> &options) {
  CLI::App *command = app.add_subcommand("complete", "What completion offers")->group("");
  command->add_option("what", options->word)->required()->check(CLI::IsMember({"labels", "addresses"}));
  command->add_option("--token", options->token.address);
  command->callback([options] {
    try {
      if (options->word == "addresses") {
        for (const Place &place : findPlaces().all) {
          if (place.isToken) put(shown(place.address.text) + '\n');
        }
        return;
      }
      Session session(chooseAddress(options->token), options->token);
      for (const TemplateIndexEntry &entry : session.readIndex()) {
        // One that cannot be shown as it is cannot be typed either.
        const std::string label = labelOf(entry);
        if (!label.empty() && label == labelBytes(entry)) put(label + '\n');
      }
    } catch (const Failure &) {
    }
  });
}

}  // namespace

void addTokenCommands(CLI::App &app, int &exitCode) {
  CLI::App *token = app.add_subcommand("token", "Fingerprint tokens, real or simulated");
  token->require_subcommand(1);
  token->footer("`kelmtrova token COMMAND --help` tells more of a command.");
  Builder builder(*token, exitCode);
  addFindCommands(builder);
  addDeviceCommands(builder);
  addFingerCommands(builder);
  addSettingCommands(builder);
  addPinCommands(builder);
  addSimulatedCommands(builder);
  addCompleteCommand(app, builder.shared());
}

}  // namespace kelm::tools
