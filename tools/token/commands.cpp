// SPDX-License-Identifier: Apache-2.0
#include "tools/token/commands.h"

#include <functional>
#include <memory>

#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/output.h"
#include "tools/token/actions.h"

namespace kelm::tools {

namespace {

constexpr int kMostByte = 255;
constexpr const char *kCommon = "Options of all token commands";
constexpr std::size_t kLongestLabel = sizeof TemplateIndexEntry::userData;

// The range itself stands in the option's description.
CLI::Validator byRange(int least, int most) { return CLI::Range(least, most).description(""); }

std::string checkLabel(const std::string &label) {
  if (label.size() <= kLongestLabel) return "";
  return "a label has at most " + std::to_string(kLongestLabel) + " bytes, \"" + label + "\" has " +
         std::to_string(label.size());
}

// Everything that the words of a command line can set.
struct Options {
  TokenOptions token;
  CreateOptions create;
  FingerOptions finger;
  ParameterOptions parameters;
  int slot = 0;
  std::string word;  // the positional argument of cache, pin require, send-image and pin verify
};

int run(const TokenOptions &token, const std::function<Report()> &action) {
  const Report report = action();
  if (token.json) {
    nlohmann::ordered_json json = {{"ok", true}};
    json.update(report.json);
    put(jsonText(json) + '\n');
  } else {
    put(report.text);
  }
  return report.exitCode;
}

// Makes the commands. Each lives in a CLI::App; the options live as long as the callbacks that use them.
class Builder {
 public:
  Builder(CLI::App &token, int &exitCode) : token_(token), exitCode_(exitCode) {}

  // A command that runs `action` on an opened token.
  CLI::App *add(const char *name, const char *description, const char *example,
                Report (*action)(Session &, const Options &)) {
    return add(token_, name, description, example, action);
  }
  CLI::App *add(CLI::App &parent, const char *name, const char *description, const char *example,
                Report (*action)(Session &, const Options &)) {
    CLI::App *command = addBare(parent, name, description, example);
    command->add_option("--device", options_->token.device, "the token, as a real device manager's handle")
        ->type_name("HANDLE")
        ->group(kCommon);
    command->add_option("--pin", options_->token.pin, "verify the user's PIN first; - asks for it")
        ->type_name("PIN")
        ->group(kCommon);
    command
        ->add_flag("-v,--verbose", options_->token.verbosity,
                   "show every command and answer (-vv: the library's traces too)")
        ->group(kCommon);
    command->callback([options = options_, &exitCode = exitCode_, action] {
      exitCode = run(options->token, [&] {
        Session session(options->token);
        return action(session, *options);
      });
    });
    return command;
  }

  CLI::App *addBare(CLI::App &parent, const char *name, const char *description, const char *example) {
    CLI::App *command = parent.add_subcommand(name, description);
    command->footer(std::string("Example:\n  ") + example);
    command->add_option("--token", options_->token.store, "the simulated token's file; default: " + defaultStore())
        ->type_name("STORE")
        ->group(kCommon);
    command->add_flag("--json", options_->token.json, "print one JSON object for programs")->group(kCommon);
    return command;
  }

  void addFinger(CLI::App *command) {
    command
        ->add_option("--finger", options_->finger.finger,
                     "what lies on the simulated sensor: the bytes of a file, or a name")
        ->type_name("NAME-OR-FILE")
        ->required(simulatorLink() != nullptr);
  }

  CLI::Option *addSlot(CLI::App *command, const char *description) {
    return command->add_option("--slot", options_->finger.slot, description)
        ->type_name("N")
        ->check(byRange(1, kMostByte));
  }

  CLI::Option *addByte(CLI::App *command, const char *name, std::optional<int> &value, const char *description) {
    return command->add_option(name, value, description)->type_name("BYTE")->check(byRange(0, kMostByte));
  }

  Options &options() { return *options_; }
  const std::shared_ptr<Options> &shared() { return options_; }
  CLI::App &token() { return token_; }
  int &exitCode() { return exitCode_; }

 private:
  static std::string defaultStore() {
    const SimulatorLink *link = simulatorLink();
    return link == nullptr ? "none" : storePath(*link, {});
  }

  CLI::App &token_;
  int &exitCode_;
  std::shared_ptr<Options> options_ = std::make_shared<Options>();
};

void addCreate(Builder &builder) {
  CreateOptions &create = builder.options().create;
  CLI::App *command = builder.addBare(builder.token(), "create", "Makes and personalises a simulated token",
                                      "kelmtrova token create --slots 20 --pin 2580");
  command->add_option("--slots", create.slots, "how many fingers it can keep, 1 to 255")
      ->type_name("N")
      ->check(byRange(1, kMostByte))
      ->capture_default_str();
  command->add_option("--pin", create.pin, "its PIN, 4 to 16 characters; - asks for it")
      ->type_name("PIN")
      ->capture_default_str();
  command->add_option("--tries", create.tries, "failed matches before it blocks itself, 1 to 15")
      ->type_name("N")
      ->check(byRange(1, 15))
      ->capture_default_str();
  command->add_option("--fid-counter", create.fidCounter, "where its FID counter starts; 0 for the first safe value")
      ->type_name("N")
      ->check(byRange(0, 0xFFFF));
  command->callback([options = builder.shared(), &exitCode = builder.exitCode()] {
    exitCode = run(options->token, [&] { return createToken(options->token, options->create); });
  });
}

void addDeviceCommands(Builder &builder) {
  builder.add("info", "Tells what the token is and how full", "kelmtrova token info --json",
              [](Session &session, const Options &) { return showInfo(session); });
  builder.add("selftest", "Lets the token test itself", "kelmtrova token selftest",
              [](Session &session, const Options &) { return selfTest(session); });
  builder.add("slots", "Lists the slots", "kelmtrova token slots",
              [](Session &session, const Options &) { return showSlots(session); });
}

void addFingerCommands(Builder &builder) {
  FingerOptions &finger = builder.options().finger;
  CLI::App *enrollCommand =
      builder.add("enroll", "Enrolls a finger; an occupied slot's template is replaced",
                  "kelmtrova token enroll --finger right-thumb --label \"right thumb\" --slot 3",
                  [](Session &session, const Options &options) { return enroll(session, options.finger); });
  builder.addFinger(enrollCommand);
  builder.addSlot(enrollCommand, "the slot, 1 to 255; default: the first free one");
  enrollCommand->add_option("--label", finger.label, "kept with the slot, at most 16 bytes")
      ->type_name("TEXT")
      ->check(checkLabel);
  enrollCommand->add_option("--tag", finger.tag, "a byte kept with the slot, 0 to 255")
      ->type_name("BYTE")
      ->check(byRange(0, kMostByte));

  CLI::App *verifyCommand =
      builder.add("verify", "Compares a finger with one slot", "kelmtrova token verify --finger right-thumb --slot 3",
                  [](Session &session, const Options &options) { return verify(session, options.finger); });
  builder.addSlot(verifyCommand, "the slot")->required();
  CLI::App *identifyCommand =
      builder.add("identify", "Finds the slot of a finger", "kelmtrova token identify --finger right-thumb",
                  [](Session &session, const Options &options) { return identify(session, options.finger); });
  for (CLI::App *command : {verifyCommand, identifyCommand}) {
    builder.addFinger(command);
    command->add_option("--mode", finger.mode, "the token's matching mode, 0 or 1")
        ->type_name("N")
        ->check(byRange(0, 1));
    command->add_flag("--test", finger.test, "match without counting tries");
  }

  CLI::App *deleteCommand =
      builder.add("delete", "Deletes the finger in a slot", "kelmtrova token delete --slot 3",
                  [](Session &session, const Options &options) { return deleteSlot(session, *options.finger.slot); });
  builder.addSlot(deleteCommand, "the slot")->required();
  builder.add("repair", "Clears what an interrupted enrollment left in the way of the next", "kelmtrova token repair",
              [](Session &session, const Options &) { return repair(session); });
}

void addSettingCommands(Builder &builder) {
  ParameterOptions &values = builder.options().parameters;
  CLI::App *params =
      builder.add("params", "Shows the token's parameters, after setting those that are given",
                  "kelmtrova token params --time-out 20 --security-level 3",
                  [](Session &session, const Options &options) { return parameters(session, options.parameters); });
  params->add_option("--verify-mode", values.verifyMode, "what verification asks for, 0 to 2")
      ->type_name("MODE")
      ->check(byRange(0, 2));
  builder.addByte(params, "--time-out", values.timeOut, "how long a capture waits, 0 to 255");
  builder.addByte(params, "--security-level", values.securityLevel, "how strictly fingers are matched, 0 to 255");
  builder.addByte(params, "--gain", values.gain, "the sensor's gain, 0 to 255");

  CLI::App *cacheCommand = builder.add("cache", "Shows, clears or switches the finger cache",
                                       "kelmtrova token cache on", [](Session &session, const Options &options) {
                                         return cache(session, options.word.empty() ? "state" : options.word);
                                       });
  cacheCommand->add_option("action", builder.options().word, "what to do; default: state")
      ->check(CLI::IsMember({"state", "clear", "on", "off"}))
      ->type_name("");

  CLI::App *send =
      builder.add("send-image", "Sends a grey picture to the token", "kelmtrova token send-image print.pgm",
                  [](Session &session, const Options &options) { return sendImage(session, options.word); });
  send->add_option("picture", builder.options().word, "a PGM or PNG, at most 240 pixels wide")
      ->required()
      ->type_name("FILE");
}

void addPinCommands(Builder &builder) {
  CLI::App *pin = builder.token().add_subcommand("pin", "Verifies the PIN, or makes the token ask for it");
  pin->require_subcommand(1);
  pin->footer("Example:\n  kelmtrova token pin require on");
  CLI::App *verifyCommand = builder.add(
      *pin, "verify", "Verifies the user's PIN through the token's middleware", "kelmtrova token pin verify",
      [](Session &session, const Options &options) { return verifyPin(session, options.word); });
  verifyCommand->add_option("PIN", builder.options().word, "asked for when it is not given")->type_name("");
  CLI::App *require =
      builder.add(*pin, "require", "Makes a simulated token ask for its PIN, or not", "kelmtrova token pin require on",
                  [](Session &session, const Options &options) { return requirePin(session, options.word == "on"); });
  require->add_option("state", builder.options().word, "whether it asks")
      ->required()
      ->check(CLI::IsMember({"on", "off"}))
      ->type_name("");
  builder.add("unblock", "Unblocks a simulated token: all tries are there again", "kelmtrova token unblock",
              [](Session &session, const Options &) { return unblock(session); });
}

}  // namespace

void addTokenCommands(CLI::App &app, int &exitCode) {
  CLI::App *token = app.add_subcommand("token", "Fingerprint tokens, simulated or real");
  token->require_subcommand(1);
  token->footer("`kelmtrova token COMMAND --help` tells more of a command.");
  Builder builder(*token, exitCode);
  addCreate(builder);
  addDeviceCommands(builder);
  addFingerCommands(builder);
  addSettingCommands(builder);
  addPinCommands(builder);
}

}  // namespace kelm::tools
