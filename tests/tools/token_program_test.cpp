// The program from outside: its output, its exit codes and what it leaves behind.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "platform/simulator.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

struct Outcome {
  int exitCode;
  std::string out, err;
};

class Program : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kelmtrova-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { fs::remove_all(folder_); }

  // Runs "kelmtrova WORDS", the words as a shell takes them, in a folder of its own.
  Outcome run(const std::string &words, const std::string &input = "") { return shell("kelmtrova " + words, input); }
  Outcome shell(const std::string &line, const std::string &input = "") {
    write("in", input);
    const std::string command = "cd '" + folder_.string() +
                                "' && export XDG_DATA_HOME=\"$PWD\" PATH='" KELM_BUILD_DIR "/bin':\"$PATH\" && { " +
                                line + "; } <in >out 2>err";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read("out"), read("err")};
  }
  json runJson(const std::string &words, int exitCode = 0) {
    const Outcome outcome = run("token " + words + " --json");
    EXPECT_EQ(outcome.exitCode, exitCode) << words << '\n' << outcome.err;
    json parsed = json::parse(outcome.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << words << '\n' << outcome.out;
    return parsed;
  }
  void create(const std::string &options = "") { ASSERT_EQ(run("token create " + options).exitCode, 0); }
  void write(const std::string &name, const std::string &bytes) {
    std::ofstream(folder_ / name, std::ios::binary) << bytes;
  }
  std::string read(const std::string &name) {
    std::ifstream file(folder_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  fs::path folder_;
};

bool holds(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

TEST_F(Program, KeepsATokenFromOneRunToTheNext) {
  create("--slots 4 --tries 3");
  EXPECT_EQ(run("token enroll --finger thumb --label 'right thumb' --tag 0x2A").out,
            "enrolled into slot 1 (right thumb)\n");
  write("index.raw", std::string("\0\1finger", 8));
  EXPECT_EQ(run("token enroll --finger index.raw --slot 3").exitCode, 0);
  EXPECT_EQ(run("token slots").out,
            "   slot  state     FID   tag  label\n"
            "      1  enrolled  0540   2A  right thumb\n"
            "      2  free\n"
            "      3  enrolled  0560   00\n"
            "      4  free\n");
  EXPECT_EQ(run("token identify --finger index.raw").out, "match: slot 3\n");
  EXPECT_EQ(run("token verify --slot 1 --finger thumb").out, "match: slot 1 (right thumb)\n");
  EXPECT_EQ(run("token enroll --finger ring --slot 3 --label ring").out,
            "enrolled into slot 3 (ring), in place of what was there\n");
  EXPECT_EQ(run("token delete --slot 3").out, "deleted slot 3 (ring)\n");
  EXPECT_EQ(run("token delete --slot 3").out, "slot 3 is free already\n");

  const Outcome other = run("token verify --slot 1 --finger ring");
  EXPECT_EQ(other.exitCode, 1);
  EXPECT_EQ(other.out, "no match with slot 1, 2 tries left\n");
  EXPECT_EQ(run("token verify --slot 1 --finger ring --test").out, "no match with slot 1\n");
  EXPECT_EQ(run("token identify --finger ring").out, "no match in any slot, 1 try left\n");
  for (const char *words : {"verify --slot 1 --finger ring", "verify --slot 1 --finger thumb"}) {
    const Outcome blocked = run(std::string("token ") + words);
    EXPECT_EQ(blocked.exitCode, 3) << words;
    EXPECT_TRUE(holds(blocked.err, "blocked") && holds(blocked.err, "kelmtrova token unblock")) << blocked.err;
  }
  EXPECT_EQ(run("token unblock").exitCode, 0);
  EXPECT_EQ(run("token verify --slot 1 --finger thumb").exitCode, 0);
}

TEST_F(Program, AnswersProgramsInJson) {
  create("--slots 3");
  EXPECT_EQ(runJson("enroll --finger a --label \"$(printf '\\303\\251\\tx')\" --tag 9")["slot"], 1);
  // A label that the token holds need not be text.
  EXPECT_EQ(runJson("enroll --finger b --label \"$(printf '\\351\\377')\"")["label"], "??");
  const json slots = runJson("slots")["slots"];
  ASSERT_EQ(slots.size(), 3U);
  EXPECT_EQ(slots[0], (json{{"slot", 1},
                            {"state", "enrolled"},
                            {"fid", "0540"},
                            {"tag", 9},
                            {"label", "\u00e9?x"},
                            {"userData", "C3A90978000000000000000000000000"}}));
  EXPECT_EQ(slots[2], (json{{"slot", 3}, {"state", "free"}}));

  const json info = runJson("info");
  EXPECT_EQ(info["slots"], 3);
  EXPECT_EQ(info["enrolled"], 2);
  EXPECT_EQ(info["deviceInformation"].get<std::string>().size(), 2 * 47U);
  EXPECT_EQ(runJson("identify --finger b")["slot"], 2);
  const json other = runJson("verify --slot 1 --finger b", 1);
  EXPECT_EQ(other["match"], false);
  EXPECT_EQ(other["triesLeft"], 4);
  EXPECT_EQ(runJson("verify --slot 1 --finger a")["match"], true);
  EXPECT_EQ(runJson("delete --slot 2")["wasFree"], false);
  EXPECT_EQ(runJson("params --time-out 33 --gain 200 --security-level 2 --verify-mode 1")["timeOut"], 33);
  const json parameters = runJson("params");
  EXPECT_EQ(parameters["gain"], 200);
  EXPECT_EQ(parameters["securityLevel"], 2);
  EXPECT_EQ(parameters["verifyMode"], 1);
  const json on = runJson("cache on");
  EXPECT_NE(runJson("cache off")["state"], on["state"]);

  const json refused = runJson("verify --slot 2 --finger a", 3);
  EXPECT_EQ(refused["ok"], false);
  EXPECT_EQ(refused["result"], "0x80006A12");
}

TEST_F(Program, SaysInOneLineWhatWentWrong) {
  create("--slots 2");
  write("wide.pgm", "P5 241 1 255\n" + std::string(241, 'x'));
  write("cut.pgm", "P5 4 4 255\nabc");
  write("garbage.db", "this is no database");
  const struct {
    const char *words;
    int exitCode;
    const char *part;
  } cases[] = {
      {"token", 2, "kelmtrova token --help"},
      {"token bogus", 2, "\"bogus\" means nothing here"},
      {"token enroll --finger a --frob", 2, "--frob"},
      {"token enroll", 2, "--finger is required"},
      {"token enroll --finger a --label 12345678901234567", 2, "at most 16 bytes"},
      {"token enroll --finger a --slot 256", 2, "1 to 255"},
      {"token enroll --finger a --slot 3", 2, "slot 3 does not exist: the token has 2 slots"},
      {"token verify --finger a --slot 3", 2, "slot 3 does not exist"},
      {"token delete --slot 3", 2, "slot 3 does not exist"},
      {"token enroll --finger a --tag 256", 2, "0 to 255"},
      {"token params --verify-mode 3", 2, "0 to 2"},
      {"token cache sideways", 2, "sideways"},
      {"token create", 2, "exists already"},
      {"token create --token new.db --pin 123", 2, "4 to 16"},
      {"token slots --device 7", 2, "use --token"},
      {"token send-image wide.pgm", 2, "241 pixels wide"},
      {"token send-image cut.pgm", 2, "cut.pgm"},
      {"token send-image missing.pgm", 2, "missing.pgm"},
      {"token verify --finger a --slot 1", 3, "nothing is enrolled"},
      {"token slots --token missing.db", 4, "kelmtrova token create"},
      {"token slots --token garbage.db", 4, "garbage.db"},
      {"completion fish", 2, "fish"},
  };
  for (const auto &expected : cases) {
    SCOPED_TRACE(expected.words);
    const Outcome outcome = run(expected.words);
    EXPECT_EQ(outcome.exitCode, expected.exitCode);
    EXPECT_EQ(outcome.err.rfind("kelmtrova: ", 0), 0U) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_TRUE(holds(outcome.err, expected.part)) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_FALSE(fs::exists(folder_ / "new.db"));
}

TEST_F(Program, PutsTheTokensRefusalsIntoWords) {
  create("--slots 1 --pin 2580");
  EXPECT_EQ(run("token pin require on").exitCode, 0);
  const Outcome locked = run("token enroll --finger a");
  EXPECT_EQ(locked.exitCode, 3);
  EXPECT_TRUE(holds(locked.err, "0x80006982") && holds(locked.err, "--pin")) << locked.err;
  const Outcome wrong = run("token enroll --finger a --pin 2581");
  EXPECT_EQ(wrong.exitCode, 3);
  EXPECT_TRUE(holds(wrong.err, "the PIN is wrong") && holds(wrong.err, "tries left: 4")) << wrong.err;
  EXPECT_EQ(run("token pin verify", "2580\n").out, "the PIN is right\n");
  EXPECT_EQ(run("token enroll --finger a --pin -", "2580\n").exitCode, 0);
  const Outcome full = run("token enroll --finger b --pin 2580");
  EXPECT_EQ(full.exitCode, 3);
  EXPECT_TRUE(holds(full.err, "no slot is free")) << full.err;

  // A FID counter that stands at the token's own index file, as another tool could have left it.
  const std::uint64_t device = simulatorOpen((folder_ / "kelmtrova" / "token.db").c_str());
  ASSERT_NE(device, 0U);
  const std::uint8_t counter[] = {0, 0x29, 0};
  ASSERT_EQ(simulatorWriteFile(device, 0x0020, counter, sizeof counter), 0);
  simulatorClose(device);
  ASSERT_EQ(run("token delete --slot 1 --pin 2580").exitCode, 0);
  const Outcome taken = run("token enroll --finger a --pin 2580");
  EXPECT_EQ(taken.exitCode, 3);
  for (const char *part : {"0x80000101", "0x0020", "0x0040", "0x0520", "beyond 0x29"}) {
    EXPECT_TRUE(holds(taken.err, part)) << part << '\n' << taken.err;
  }
}

TEST_F(Program, ShowsEveryExchangeButNoPin) {
  create("--pin 2580");
  ASSERT_EQ(run("token enroll --finger a").exitCode, 0);
  const Outcome outcome = run("token verify --finger b --slot 1 --pin 2580 -v");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.out, "no match with slot 1, 4 tries left\n");
  EXPECT_TRUE(holds(outcome.err, "  > 80 FB 00 01 02  (extract features into buffer 1)\n")) << outcome.err;
  EXPECT_TRUE(holds(outcome.err, "  > 80 FD 06 01 01  (match, slot 1)\n  < 63C4  (no match, 4 tries left)\n"))
      << outcome.err;
  EXPECT_FALSE(holds(outcome.err, "32 35 38 30") || holds(outcome.err, "2580")) << outcome.err;
  EXPECT_FALSE(holds(outcome.err, "  # "));
  EXPECT_TRUE(holds(run("token selftest -vv").err, "  # Enter KelmTrovaSelfTest\n"));
}

TEST_F(Program, SendsPicturesWithProgressOnATerminal) {
  create();
  std::string picture(200 * 100, '\0');
  for (std::size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<char>(i * 7);
  write("print.pgm", "P5\n200 100\n255\n" + picture);
  const Outcome quiet = run("token send-image print.pgm");
  EXPECT_EQ(quiet.out, "sent print.pgm: 200 x 100 pixels in 100 blocks\n");
  EXPECT_EQ(quiet.err, "");
  const Outcome terminal = shell("script -qec 'kelmtrova token send-image print.pgm' /dev/null");
  EXPECT_TRUE(holds(terminal.out, " 50 %  50 of 100 lines")) << terminal.out;

  const std::uint64_t device = simulatorOpen((folder_ / "kelmtrova" / "token.db").c_str());
  ASSERT_NE(device, 0U);
  std::uint32_t lineLength = 0, lines = 0;
  std::string received(picture.size(), ' ');
  EXPECT_EQ(simulatorGetImage(device, &lineLength, &lines, reinterpret_cast<std::uint8_t *>(received.data()),
                              received.size()),
            static_cast<int>(picture.size()));
  simulatorClose(device);
  EXPECT_EQ(lineLength, 200U);
  EXPECT_EQ(lines, 100U);
  EXPECT_EQ(received, picture);
}

TEST_F(Program, WorksWithARealDeviceManager) {
  const std::string real =
      "LD_PRELOAD='" KELM_BUILD_DIR "/lib/other/libkelmkmgr.so' ASAN_OPTIONS=verify_asan_link_order=0 kelmtrova ";
  const struct {
    const char *words;
    int exitCode;
    const char *part;
  } cases[] = {
      {"token selftest", 4, "--device must give its handle"},
      {"token selftest --token x.db", 2, "use --device"},
      {"token create", 2, "only a simulated token can be created"},
      {"token pin require on --device 7", 2, "only a simulated token"},
      {"token verify --slot 1 --finger a --device 7", 2, "lay your finger"},
      {"token selftest --device 7 --pin 1234", 2, "tool of its maker"},
      {"token selftest --device 8", 4, "no fingerprint token answers at device 8"},
      {"token slots --device 0x7", 3, "its last answer was 6D00 (instruction not supported)"},
      {"demo", 4, "simulated"},
  };
  for (const auto &expected : cases) {
    SCOPED_TRACE(expected.words);
    const Outcome outcome = shell(real + expected.words);
    EXPECT_EQ(outcome.exitCode, expected.exitCode) << outcome.err;
    EXPECT_TRUE(holds(outcome.err, expected.part)) << outcome.err;
  }
  const Outcome outcome = shell(real + "token selftest --device 7 -v");
  EXPECT_EQ(outcome.out, "the token passed its self-test\n");
  EXPECT_TRUE(holds(outcome.err, "  > 80 FA 01 00 02  (self-test)\n  < 6B 6B 9000  (done)\n")) << outcome.err;
}

TEST_F(Program, HelpsAndCompletes) {
  EXPECT_EQ(run("--version").out.rfind("kelmtrova ", 0), 0U);
  const Outcome bare = run("");
  EXPECT_EQ(bare.exitCode, 2);
  EXPECT_TRUE(holds(bare.err, "Examples:"));
  const auto complete = [&](const std::string &words, int place) {
    const Outcome outcome = shell("bash -c 'source <(kelmtrova completion bash) && COMP_WORDS=(" + words +
                                  ") COMP_CWORD=" + std::to_string(place) + " && _kelmtrova && echo ${COMPREPLY[*]}'");
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  };
  EXPECT_EQ(complete("kelmtrova to", 1), "token\n");
  EXPECT_EQ(complete("kelmtrova token se", 2), "selftest send-image\n");
  EXPECT_EQ(complete("kelmtrova token enroll --token slots --f", 5), "--finger\n");
  EXPECT_EQ(complete("kelmtrova token pin require \"\"", 4), "on off\n");
  // A file name is the shell's to complete.
  EXPECT_EQ(complete("kelmtrova token enroll --finger de", 4), "\n");

  const std::string commands = complete("kelmtrova token \"\"", 2);
  EXPECT_EQ(std::count(commands.begin(), commands.end(), ' '), 13) << commands;
  std::istringstream names(commands);
  for (std::string name; names >> name;) {
    const Outcome help = run("token " + name + " --help");
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(holds(help.out, "Example:\n  kelmtrova token " + name)) << help.out;
  }
}

TEST_F(Program, ShowsTheLifeOfATokenAndLeavesTheUsersOwnAlone) {
  const Outcome outcome = shell("TMPDIR=\"$PWD\" kelmtrova demo");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  for (const char *part : {"6 slots, 0 enrolled", "match: slot 1 (Anna, thumb)", "[exit code 1: no match]",
                           "[exit code 3: the token refused]", "  > 80 FD 06 01 01  (match, slot 1)"}) {
    EXPECT_TRUE(holds(outcome.out, part)) << part;
  }
  EXPECT_FALSE(fs::exists(folder_ / "kelmtrova"));
  for (const auto &entry : fs::directory_iterator(folder_)) {
    EXPECT_FALSE(holds(entry.path().string(), "kelmtrova-demo")) << entry.path();
  }
}

TEST(Readme, ShowsTheExampleThatIsBuilt) {
  const auto read = [](const char *path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string example = read(KELM_SOURCE_DIR "/examples/enroll_verify.c");
  EXPECT_GT(example.size(), 500U);
  EXPECT_TRUE(holds(read(KELM_SOURCE_DIR "/README.md"), "```c\n" + example + "```"));
}

}  // namespace
