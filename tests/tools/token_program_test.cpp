// SPDX-License-Identifier: Apache-2.0
// The program from outside: its output, its exit codes and what it leaves behind.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "kelmtrova/simulator.h"
#include "tests/tools/program.h"

namespace {

using nlohmann::json;

using Parts = std::vector<const char *>;

testing::AssertionResult holds(const std::string &text, const Parts &parts) {
  for (const char *part : parts) {
    if (text.find(part) == std::string::npos) {
      return testing::AssertionFailure() << '"' << part << "\" is not in:\n" << text;
    }
  }
  return testing::AssertionSuccess();
}

class TokenProgram : public Program {
 protected:
  json runJson(const std::string &words, int exitCode = 0) {
    const Outcome outcome = run("token " + words + " --json");
    EXPECT_EQ(outcome.exitCode, exitCode) << words << '\n' << outcome.err;
    json parsed = json::parse(outcome.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << words << '\n' << outcome.out;
    return parsed;
  }
  // Runs WORDS, which fail so and say these parts of what is wrong.
  void fails(const std::string &words, int exitCode, const Parts &parts) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.exitCode, exitCode) << words;
    EXPECT_TRUE(holds(outcome.err, parts)) << words;
  }
  std::uint64_t openToken() { return simulatorOpen((folder / "kelmtrova" / "token.db").c_str()); }
};

TEST_F(TokenProgram, KeepsATokenFromOneRunToTheNext) {
  succeed("token create --slots 4 --tries 3");
  write("index.raw", std::string("\0\1finger", 8));
  const struct {
    const char *words;
    int exitCode;
    const char *out;
  } steps[] = {
      {"enroll --finger thumb --label 'right thumb' --tag 0x2A", 0, "enrolled into slot 1 (right thumb)\n"},
      {"enroll --finger index.raw --slot 3", 0, "enrolled into slot 3\n"},
      {"slots", 0,
       "   slot  state     FID   tag  label\n"
       "      1  enrolled  0540   2A  right thumb\n"
       "      2  free\n"
       "      3  enrolled  0560   00\n"
       "      4  free\n"},
      {"identify --finger index.raw", 0, "match: slot 3\n"},
      {"verify --slot 1 --finger thumb", 0, "match: slot 1 (right thumb)\n"},
      {"enroll --finger ring --slot 3 --label ring", 0, "enrolled into slot 3 (ring), in place of what was there\n"},
      {"delete --slot 3", 0, "deleted slot 3 (ring)\n"},
      {"delete --slot 3", 0, "slot 3 is free already\n"},
      {"verify --slot 1 --finger ring", 1, "no match with slot 1, 2 tries left\n"},
      {"verify --slot 1 --finger ring --test", 1, "no match with slot 1\n"},
      {"identify --finger ring", 1, "no match in any slot, 1 try left\n"},
  };
  for (const auto &step : steps) {
    const Outcome outcome = run(std::string("token ") + step.words);
    EXPECT_EQ(outcome.exitCode, step.exitCode) << step.words;
    EXPECT_EQ(outcome.out, step.out) << step.words;
  }
  for (const char *words : {"token verify --slot 1 --finger ring", "token verify --slot 1 --finger thumb"}) {
    fails(words, 3, {"blocked", "kelmtrova token unblock"});
  }
  succeed("token unblock");
  succeed("token verify --slot 1 --finger thumb");
}

TEST_F(TokenProgram, AnswersProgramsInJson) {
  succeed("token create --slots 3");
  const json thumb = {{"slot", 1}, {"state", "enrolled"}, {"fid", "0540"},
                      {"tag", 9},  {"label", "\u00e9?x"}, {"userData", "C3A90978000000000000000000000000"}};
  const struct {
    const char *words;
    int exitCode;
    json members;  // of the answer, among others
  } steps[] = {
      {"enroll --finger a --label \"$(printf '\\303\\251\\tx')\" --tag 9", 0, {{"slot", 1}}},
      {"slots", 0, {{"slots", {thumb, {{"slot", 2}, {"state", "free"}}, {{"slot", 3}, {"state", "free"}}}}}},
      {"enroll --finger b --label \"$(printf '\\351\\377')\"", 0, {{"label", "??"}}},  // it need not be text
      {"info", 0, {{"slots", 3}, {"enrolled", 2}}},
      {"identify --finger b", 0, {{"slot", 2}}},
      {"verify --slot 1 --finger b", 1, {{"match", false}, {"triesLeft", 4}}},
      {"verify --slot 1 --finger a", 0, {{"match", true}}},
      {"delete --slot 2", 0, {{"wasFree", false}}},
      {"params --time-out 33 --gain 200 --security-level 2 --verify-mode 1", 0, {{"timeOut", 33}}},
      {"params", 0, {{"gain", 200}, {"securityLevel", 2}, {"verifyMode", 1}}},
      {"cache on", 0, {{"state", 1}}},
      {"cache off", 0, {{"state", 0}}},
      {"verify --slot 2 --finger a", 3, {{"ok", false}, {"result", "0x80006A12"}}},
  };
  for (const auto &step : steps) {
    const json answer = runJson(step.words, step.exitCode);
    json updated = answer;
    updated.update(step.members);
    EXPECT_EQ(answer, updated) << step.words;
  }
  EXPECT_EQ(runJson("info")["deviceInformation"].get<std::string>().size(), 2 * 47U);
}

TEST_F(TokenProgram, SaysInOneLineWhatWentWrong) {
  succeed("token create --slots 2");
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
      {"token enroll --finger a --slot 256", 2, "256 not in range"},
      {"token enroll --finger a --slot 3", 2, "slot 3 does not exist: the token has 2 slots"},
      {"token verify --finger a --slot 3", 2, "slot 3 does not exist"},
      {"token delete --slot 3", 2, "slot 3 does not exist"},
      {"token enroll --finger a --tag 256", 2, "256 not in range"},
      {"token params --verify-mode 3", 2, "3 not in range"},
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
    EXPECT_TRUE(holds(outcome.err, {expected.part}));
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "new.db"));
}

TEST_F(TokenProgram, PutsTheTokensRefusalsIntoWords) {
  succeed("token create --slots 1 --pin 2580");
  succeed("token pin require on");
  fails("token enroll --finger a", 3, {"0x80006982", "--pin"});
  fails("token enroll --finger a --pin 2581", 3, {"the PIN is wrong", "tries left: 4"});
  EXPECT_EQ(run("token pin verify", "2580\n").out, "the PIN is right\n");
  EXPECT_EQ(run("token enroll --finger a --pin -", "2580\n").exitCode, 0);
  fails("token enroll --finger b --pin 2580", 3, {"no slot is free"});

  // A FID counter that stands at the token's own index file, as another tool could have left it.
  const std::uint64_t device = openToken();
  ASSERT_NE(device, 0U);
  const std::uint8_t counter[] = {0, 0x29, 0};
  ASSERT_EQ(simulatorWriteFile(device, 0x0020, counter, sizeof counter), 0);
  simulatorClose(device);
  succeed("token delete --slot 1 --pin 2580");
  fails("token enroll --finger a --pin 2580", 3, {"0x80000101", "0x0020", "0x0040", "0x0520", "beyond 0x29"});
}

TEST_F(TokenProgram, ShowsEveryExchangeButNoPin) {
  succeed("token create --pin 2580");
  succeed("token enroll --finger a");
  const Outcome outcome = run("token verify --finger b --slot 1 --pin 2580 -v");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.out, "no match with slot 1, 4 tries left\n");
  EXPECT_TRUE(holds(outcome.err, {"  > 80 FB 00 01 02  (extract features into buffer 1)\n",
                                  "  > 80 FD 06 01 01  (match, slot 1)\n  < 63C4  (no match, 4 tries left)\n"}));
  for (const char *hidden : {"32 35 38 30", "2580", "  # "}) {
    EXPECT_FALSE(holds(outcome.err, {hidden})) << outcome.err;
  }
  EXPECT_TRUE(holds(run("token selftest -vv").err, {"  # Enter KelmTrovaSelfTest\n"}));
}

TEST_F(TokenProgram, SendsPicturesWithProgressOnATerminal) {
  succeed("token create");
  std::string picture(200 * 100, '\0');
  for (std::size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<char>(i * 7);
  write("print.pgm", "P5\n200 100\n255\n" + picture);
  const Outcome quiet = run("token send-image print.pgm");
  EXPECT_EQ(quiet.out, "sent print.pgm: 200 x 100 pixels in 100 blocks\n");
  EXPECT_EQ(quiet.err, "");
  const Outcome terminal = shell("script -qec 'kelmtrova token send-image print.pgm' /dev/null");
  EXPECT_TRUE(holds(terminal.out, {" 50 %  50 of 100 lines"}));

  const std::uint64_t device = openToken();
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

TEST_F(TokenProgram, WorksWithARealDeviceManager) {
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
    EXPECT_TRUE(holds(outcome.err, {expected.part}));
  }
  const Outcome outcome = shell(real + "token selftest --device 7 -v");
  EXPECT_EQ(outcome.out, "the token passed its self-test\n");
  EXPECT_TRUE(holds(outcome.err, {"  > 80 FA 01 00 02  (self-test)\n  < 6B 6B 9000  (done)\n"}));
}

TEST_F(TokenProgram, HelpsAndCompletes) {
  EXPECT_EQ(run("--version").out.rfind("kelmtrova ", 0), 0U);
  fails("", 2, {"Examples:"});
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
    EXPECT_TRUE(holds(run("token " + name + " --help").out, {("Example:\n  kelmtrova token " + name).c_str()}));
  }
}

TEST_F(TokenProgram, ShowsTheLifeOfATokenAndLeavesTheUsersOwnAlone) {
  const Outcome outcome = shell("TMPDIR=\"$PWD\" kelmtrova demo");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, {"6 slots, 0 enrolled", "match: slot 1 (Anna, thumb)", "[exit code 1: no match]",
                                  "[exit code 3: the token refused]", "  > 80 FD 06 01 01  (match, slot 1)"}));
  EXPECT_FALSE(std::filesystem::exists(folder / "kelmtrova"));
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    EXPECT_FALSE(holds(entry.path().string(), {"kelmtrova-demo"})) << entry.path();
  }
}

TEST_F(TokenProgram, ReadmeShowsTheExampleThatIsBuilt) {
  const std::string example = read(KELM_SOURCE_DIR "/examples/enroll_verify.c");
  EXPECT_GT(example.size(), 500U);
  EXPECT_TRUE(holds(read(KELM_SOURCE_DIR "/README.md"), {("```c\n" + example + "```").c_str()}));
}

}  // namespace
