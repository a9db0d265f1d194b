// SPDX-License-Identifier: Apache-2.0
#include "tools/demo.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/image/commands.h"
#include "tools/output.h"
#include "tools/program.h"
#include "tools/signals.h"
#include "tools/terminal.h"
#include "tools/token/platform.h"

namespace kelm::tools {

namespace {

struct Step {
  const char *story;  // null goes on with the step before
  std::vector<std::string> words;
  int expected = kExitDone;
};

const std::vector<Step> &steps() {
  static const std::vector<Step> all = {
      {"A new token, simulated: six slots, and three failed matches block it.",
       {"token", "create", "--slots", "6", "--tries", "3"}},
      {"Is a fingerprint token there, is it sound, and what is it?", {"token", "selftest"}},
      {nullptr, {"token", "info"}},
      {"Three fingers are enrolled. On the simulated sensor a name is a finger; the same name is the same finger.",
       {"token", "enroll", "--finger", "anna-thumb", "--label", "Anna, thumb"}},
      {nullptr, {"token", "enroll", "--finger", "ben-index", "--label", "Ben, index", "--tag", "7"}},
      {nullptr, {"token", "enroll", "--finger", "ben-thumb", "--label", "Ben, thumb", "--tag", "7", "--slot", "5"}},
      {nullptr, {"token", "slots"}},
      {"Is it Anna? Verification compares with one slot; -v shows what goes over the wire.",
       {"token", "verify", "--slot", "1", "--finger", "anna-thumb"}},
      {nullptr, {"token", "verify", "--slot", "1", "--finger", "ben-thumb", "-v"}, kExitNoMatch},
      {"Who is it? Identification compares with all slots; a match gives all tries back.",
       {"token", "identify", "--finger", "ben-thumb"}},
      {nullptr, {"token", "identify", "--finger", "ben-index", "--json"}},
      {"Ben's index finger goes. Its slot is free again, and a new template gets a file of its own.",
       {"token", "delete", "--slot", "2"}},
      {nullptr, {"token", "identify", "--finger", "ben-index"}, kExitNoMatch},
      {nullptr, {"token", "enroll", "--finger", "cleo-ring", "--label", "Cleo, ring"}},
      {nullptr, {"token", "slots"}},
      {"A stranger tries until the token blocks itself; then even Anna is refused.",
       {"token", "verify", "--slot", "1", "--finger", "stranger"},
       kExitNoMatch},
      {nullptr, {"token", "verify", "--slot", "1", "--finger", "stranger"}, kExitNoMatch},
      {nullptr, {"token", "verify", "--slot", "1", "--finger", "anna-thumb"}, kExitRefused},
      {nullptr, {"token", "unblock"}},
      {nullptr, {"token", "verify", "--slot", "1", "--finger", "anna-thumb"}},
      {"A token can ask for its PIN before templates are written.", {"token", "pin", "require", "on"}},
      {nullptr, {"token", "enroll", "--finger", "dora-thumb", "--label", "Dora, thumb"}, kExitRefused},
      {nullptr, {"token", "enroll", "--finger", "dora-thumb", "--label", "Dora, thumb", "--pin-file", "pin.txt"}},
      {nullptr, {"token", "params", "--time-out", "20", "--pin-file", "pin.txt"}},
      {"Is all well with the token?", {"token", "doctor"}},
  };
  return all;
}

std::string makeFolder(const char *name) {
  std::string path = (std::filesystem::temp_directory_path() / name).string() + "-XXXXXX";
  if (mkdtemp(path.data()) == nullptr) throw Failure(kExitUsage, "no temporary folder can be made: " + path);
  return path;
}

// The place of the default token for as long as it lives: a folder of its own, which is also the current one. It goes
// when a signal ends the program, too.
class TemporaryHome {
 public:
  TemporaryHome()
      : path_(makeFolder("kelmtrova-demo")), before_(std::filesystem::current_path()), onSignal_([this](int signal) {
          if (signal != SIGTSTP) remove();
          return false;
        }) {
    setenv("XDG_DATA_HOME", path_.c_str(), 1);
    setenv("KELMTROVA_TOKEN", "sim:", 1);  // also where a real one is plugged in
    unsetenv("KELMTROVA_PIN");
    std::filesystem::current_path(path_);
    writeFile("pin.txt", "1234\n");
  }
  ~TemporaryHome() { remove(); }
  TemporaryHome(const TemporaryHome &) = delete;
  TemporaryHome &operator=(const TemporaryHome &) = delete;

 private:
  // More than once: a command that runs meanwhile may put a file into a folder that is just being removed.
  void remove() const {
    constexpr int kMostTimes = 20;
    std::error_code error;
    std::filesystem::current_path(before_, error);
    for (int i = 0; i < kMostTimes && std::filesystem::exists(path_, error); ++i) {
      std::filesystem::remove_all(path_, error);
    }
  }

  std::string path_;
  std::filesystem::path before_;
  OnSignal onSignal_;
};

std::string quoted(const std::string &word) {
  return word.find_first_of(" ,") == std::string::npos ? word : '"' + word + '"';
}

void show(const Step &step) {
  if (step.story != nullptr) put(fmt::format("\n# {}\n", step.story));
  put("$ kelmtrova");
  for (const std::string &word : step.words) put(' ' + quoted(word));
  put("\n");
  flushOutput();
}

// True when every command did what it should.
bool showLife() {
  constexpr const char *kMeanings[] = {"done", "no match", "wrong usage", "the token refused", "no token"};
  const TemporaryHome home;
  for (const Step &step : steps()) {
    show(step);
    const int exitCode = runProgram(step.words);
    if (exitCode != kExitDone) put(fmt::format("[exit code {}: {}]\n", exitCode, kMeanings[exitCode]));
    if (exitCode != step.expected) return false;
  }
  return true;
}

}  // namespace

int runDemo(const std::string &reports) {
  if (simulator() == nullptr) {
    throw Failure(kExitNoToken, "the demo needs a simulated token; the device manager libkelmkmgr.so is a real one");
  }
  put("The life of a fingerprint token, in this program's own commands. The token is simulated: its protocol\n"
      "and its bookkeeping, not biometrics.\n");
  const bool whole = [] {
    // What goes to standard error belongs to the transcript, in its place.
    const Redirected redirected(STDERR_FILENO, STDOUT_FILENO);
    // Nobody is asked for anything.
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const Redirected unasked(STDIN_FILENO, nothing);
    close(nothing);
    return showLife();
  }();
  if (!whole) throw Failure(kExitRefused, "the demo stopped: the last command did not do what it should");
  demoImage(reports.empty() ? makeFolder("kelmtrova-report") : reports);
  return kExitDone;
}

}  // namespace kelm::tools
