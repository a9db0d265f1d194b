// SPDX-License-Identifier: Apache-2.0
// The program from outside: its output, its exit codes and what it leaves behind.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "kelmtrova/simulator.h"
#include "kelmtrova/token.h"
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
      {"enroll --finger @index.raw --slot 3", 0, "enrolled into slot 3\n"},
      {"slots", 0,
       "   slot  state     FID   tag  label\n"
       "      1  enrolled  0540   2A  right thumb\n"
       "      2  free\n"
       "      3  enrolled  0560   00\n"
       "      4  free\n"},
      {"identify --finger @index.raw", 0, "match: slot 3\n"},
      {"identify --finger index.raw", 1, "no match in any slot, 2 tries left\n"},  // a name, not a file
      {"verify --slot 1 --finger thumb", 0, "match: slot 1 (right thumb)\n"},
      {"verify --label 'right thumb' --finger thumb", 0, "match: slot 1 (right thumb)\n"},
      {"enroll --finger ring --replace --slot 3 --label ring", 0,
       "enrolled into slot 3 (ring), in place of what was there\n"},
      // Its own slot may match; label and tag stay.
      {"enroll --finger thumb --replace --label 'right thumb'", 0,
       "enrolled into slot 1 (right thumb), in place of what was there\n"},
      {"enroll --finger thumb --again --label ring", 0, "enrolled into slot 2 (ring)\n"},
      {"delete --slot 2", 0, "deleted slot 2 (ring)\n"},
      {"slots", 0,
       "   slot  state     FID   tag  label\n"
       "      1  enrolled  0540   2A  right thumb\n"
       "      2  free\n"
       "      3  enrolled  0560   00  ring\n"
       "      4  free\n"},
      {"delete --label ring", 0, "deleted slot 3 (ring)\n"},
      {"delete --slot 3", 0, "slot 3 is free already\n"},
      {"verify --slot 1 --finger ring", 1, "no match with slot 1, 2 tries left\n"},
      {"verify --slot 1 --finger ring --test", 1, "no match with slot 1\n"},
      {"identify --finger ring", 1, "no match in any slot, 1 try left\n"},
      {"identify", 3, ""},
      {"touch ring", 0, "ring lies on the sensor until `kelmtrova token lift`\n"},
      {"identify", 1, "no match in any slot, no tries left: matching is blocked from now on\n"},
      {"lift", 0, "nothing lies on the sensor\n"},
  };
  for (const auto &step : steps) {
    const Outcome outcome = run(std::string("token ") + step.words);
    EXPECT_EQ(outcome.exitCode, step.exitCode) << step.words;
    EXPECT_EQ(outcome.out, step.out) << step.words;
  }
  for (const char *words : {"token verify --slot 1 --finger ring", "token verify --slot 1 --finger thumb"}) {
    fails(words, 3, {"blocked", "kelmtrova token unblock"});
  }
  EXPECT_TRUE(holds(run("token info").out, {"matching: blocked, 0 of 3 tries left", "PIN: not asked for, 5 of 5"}));
  succeed("token unblock");
  succeed("token verify --slot 1 --finger thumb");
  succeed("token export backup");
  succeed("token delete --all --yes");
  fails("token verify --slot 1 --finger thumb", 3, {"nothing is enrolled"});
  succeed("token import backup --token sim:restored.db");
  const Outcome quiet = run("token verify --slot 1 --finger thumb --token restored.db --quiet");
  EXPECT_EQ(quiet.exitCode, 0);
  EXPECT_EQ(run("token verify --slot 1 --finger ring --token restored.db --quiet").exitCode, 1);
  EXPECT_EQ(quiet.out + quiet.err, "");
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
      {"enroll --finger a", 3, {{"ok", false}, {"code", "enrolled-already"}}},
      {"info", 0, {{"slotCount", 3}, {"enrolled", 2}}},
      {"identify --finger b", 0, {{"slot", 2}}},
      {"verify --slot 1 --finger b", 1, {{"match", false}, {"triesLeft", 4}}},
      {"verify --slot 1 --finger a", 0, {{"match", true}}},
      {"delete --slot 3", 0, {{"deleted", json::array()}}},
      {"delete --slot 2",
       0,
       {{"deleted", json::array({{{"slot", 2},
                                  {"state", "enrolled"},
                                  {"fid", "0560"},
                                  {"tag", 0},
                                  {"label", "??"},
                                  {"userData", "E9FF0000000000000000000000000000"}}})}}},
      {"params --time-out 33 --gain 200 --security-level 2 --verify-mode 1", 0, {{"timeOut", 33}}},
      {"params", 0, {{"gain", 200}, {"securityLevel", 2}, {"verifyMode", 1}}},
      {"cache on", 0, {{"cacheState", 1}, {"on", true}, {"holdsFinger", false}}},
      {"cache off", 0, {{"cacheState", 0}}},
      {"verify --slot 2 --finger a", 3, {{"ok", false}, {"code", "not-enrolled"}, {"result", "0x80006A12"}}},
      {"verify --slot 300 --finger a", 2, {{"ok", false}, {"code", "usage"}}},
      {"enrol", 2, {{"ok", false}, {"advice", "`kelmtrova token --help` shows how"}}},
      {"pin change --pin-file none",
       2,
       {{"ok", false}, {"code", "file"}, {"error", "none: No such file or directory"}}},
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
      {"token idnetify", 2, "did you mean \"identify\"?"},
      {"image analize x", 2, "did you mean \"analyze\"?"},
      {"token slots --tokne x", 2, "did you mean \"--token\"?"},
      {"help token enrol", 2, "did you mean \"enroll\"?"},
      {"token enroll --label ''", 2, "the argument after --label is empty"},
      {"token enroll --label=", 2, "the argument after --label is empty"},
      {"'' list", 2, "an argument is empty"},
      {"token enroll --finger a --frob", 2, "--frob"},
      {"token enroll", 3, "no finger came onto the sensor"},
      {"token enroll --finger @thmub.raw", 2, "thmub.raw: No such file"},
      {"token enroll --replace", 2, "name it with --slot or --label"},
      {"token verify --finger a", 2, "name"},
      {"token verify --label nobody --finger a", 2, "no slot has the label \"nobody\""},
      {"token verify --label \"$(printf 'a\\033[2J\\342\\200\\256b')\"", 2, "\"a?[2J?b\""},
      {"token identify --watch --finger a", 2, "kelmtrova token touch"},
      {"token delete", 2, "--slot or --label"},
      {"token delete --all --slot 1", 2, "--all"},
      {"token repair --erase 520", 2, "four hexadecimal digits"},
      {"token repair --erase 0520", 2, "the token's own"},
      {"token repair --erase 3F00", 2, "the token's own"},
      {"token repair --erase 0560", 2, "there is no file 0560"},
      {"token enroll --finger a --label 12345678901234567", 2, "at most 16 bytes"},
      {"token enroll --finger a --slot 256", 2, "256 is no number from"},
      {"token enroll --finger a --slot 3", 2, "slot 3 does not exist: the token has 2 slots"},
      {"token verify --finger a --slot 3", 2, "slot 3 does not exist"},
      {"token delete --slot 3", 2, "slot 3 does not exist"},
      {"token enroll --finger a --tag 256", 2, "256 is no number from"},
      {"token params --verify-mode 3", 2, "3 is no number from 0 to 2"},
      {"token cache sideways", 2, "sideways"},
      {"token create", 2, "exists already"},
      {"token create --token new.db --pin-stdin", 2, "holds no PIN"},
      {"token create --token pcsc:x", 2, "only a simulated token can be created"},
      {"token create --fid-counter 70000", 2, "0 to 2048"},
      {"token slots --device 7", 2, "kelmtrova token list"},
      {"token slots --device 18446744073709551616", 2, "64-bit number"},
      {"token slots --token handle:7x", 2, "64-bit number"},
      {"token enroll --finger a --pin-file missing", 2, "missing: No such file"},
      {"token send-image wide.pgm", 2, "241 pixels wide"},
      {"token send-image cut.pgm", 2, "cut.pgm"},
      {"token send-image missing.pgm", 2, "missing.pgm"},
      {"token verify --finger a --slot 1", 3, "nothing is enrolled"},
      {"token slots --token missing.db", 4, "kelmtrova token create"},
      {"token slots --token garbage.db", 2, "garbage.db: not the store of a token"},
      {"token import garbage.db --token new.db", 2, "garbage.db"},
      {"token serve --vpcd 127.0.0.1:1", 2, "127.0.0.1:1"},
      {"completion csh", 2, "csh"},
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

// A store that fails is no missing token, and is named once.
TEST_F(TokenProgram, SaysWhatIsWrongWithAStore) {
  succeed("token create --slots 3 --token sound.db");
  const std::string sound = read("sound.db");
  for (const char *place : {"closed", "fixed"}) std::filesystem::create_directory(folder / place);
  for (const char *place : {"busy.db", "closed/x.db", "fixed/x.db"}) write(place, sound);
  write("later.db", std::string(sound).replace(60, 4, std::string("\0\0\0\7", 4)));
  write("damaged.db", std::string(sound).replace(2000, 3000, 3000, '\0'));
  for (const char *place : {"fixed/x.db", "fixed", "closed"})
    std::filesystem::permissions(folder / place, std::filesystem::perms(*place == 'c' ? 0 : 0555));
  const int busy = open((folder / "busy.db").c_str(), O_RDWR | O_CLOEXEC);
  struct flock whole = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0x40000000, .l_len = 512, .l_pid = 0};
  ASSERT_EQ(fcntl(busy, F_SETLK, &whole), 0);
  const std::string mortal = geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search " : "";
  const struct {
    const char *before, *words, *store;
    int exitCode;
    const char *part;
  } cases[] = {
      {"", "slots", "busy.db", 2, "another program has held the token for more than 5 seconds"},
      {"", "slots", "later.db", 2, "a later version, 7 (known here: up to 2)"},
      {"", "slots", "damaged.db", 2, "is damaged"},
      {"KELMTROVA_TOKEN=damaged.db ", "list", "damaged.db", 2, ""},
      {"", "slots", "closed/x.db", 2, "no permission"},
      {"", "create", "closed/y.db", 2, "no permission"},
      {"", "slots", "fixed/x.db", 0, ""},
      {"", "doctor", "fixed/x.db", 3, ""},
      {"", "identify --finger a", "fixed/x.db", 2, "may only be read"},
      {"", "params --gain 3", "fixed/x.db", 2, "may only be read"},
      {"", "slots", "sound.db/x", 2, "no folder"},
      {"", "create", "sound.db/x", 2, "no folder"},
      {"ulimit -f 1; ", "enroll --finger a", "sound.db", 2, "larger than a file may become"},
      {"", "slots", "sound.db", 0, ""},
      {"", "export missing/x", "sound.db", 2, "missing/x: its folder does not exist"},
      {"", "export later.db", "sound.db", 2, "choose another name"},
  };
  for (const auto &expected : cases) {
    const Outcome outcome = shell(
        fmt::format("{}{}kelmtrova token {} --token {}", expected.before, mortal, expected.words, expected.store));
    EXPECT_EQ(outcome.exitCode, expected.exitCode) << expected.words << ' ' << expected.store << '\n' << outcome.err;
    EXPECT_TRUE(holds(outcome.err, {expected.part}));
    const std::size_t named = outcome.err.find(expected.store);
    EXPECT_EQ(outcome.err.find(expected.store, named + 1), std::string::npos) << outcome.err;
  }
  close(busy);
  std::filesystem::permissions(folder / "closed", std::filesystem::perms(0700));
  std::filesystem::permissions(folder / "fixed", std::filesystem::perms(0700));
}

TEST_F(TokenProgram, PutsTheTokensRefusalsIntoWords) {
  EXPECT_EQ(run("token create --slots 2 --pin-stdin", "2580\n").exitCode, 0);
  write("pin", "2580\n");
  write("wrong", "2581");
  write("short", "258");
  write("new", "13579\r\n");
  succeed("token pin require on");
  fails("token enroll --finger a", 3, {"0x80006982", "--pin-file"});
  fails("token enroll --finger a --pin-file wrong", 3, {"the PIN is wrong", "tries left: 4"});
  fails("token enroll --finger a --pin-file short", 2, {"4 to 16"});  // costs no try
  fails("token pin change --pin-file wrong --new-pin-file new", 3, {"the PIN is wrong", "tries left: 3"});
  EXPECT_EQ(run("token pin verify --pin-stdin", "2580\n").out, "the PIN is right\n");
  EXPECT_EQ(run("token enroll --finger a --label x --pin -", "2580\n").exitCode, 0);
  const Outcome visible = run("token enroll --finger b --label x --pin 2580");
  EXPECT_EQ(visible.exitCode, 0);
  EXPECT_TRUE(holds(visible.err, {"warning", "seen by others"}));
  EXPECT_FALSE(holds(visible.err, {"2580"}));
  EXPECT_EQ(shell("KELMTROVA_PIN=2580 kelmtrova token params --gain 7").exitCode, 0);
  EXPECT_EQ(shell("KELMTROVA_PIN=2580 kelmtrova token delete --slot 2").exitCode, 0);
  EXPECT_EQ(shell("KELMTROVA_PIN=2580 kelmtrova token enroll --finger b --label x").exitCode, 0);
  EXPECT_EQ(shell("KELMTROVA_PIN=nonsense-but-unasked-for kelmtrova token slots").exitCode, 0);
  fails("token enroll --finger c --pin-file pin", 3, {"no slot is free"});
  fails("token verify --label x --finger a", 2, {"slots 1 and 2 have the label \"x\""});
  fails("token enroll --slot 2 --finger c", 2, {"slot 2 (x) is occupied", "--replace"});
  fails("token delete --all", 2, {"nothing was deleted", "--yes"});
  EXPECT_EQ(run("token pin change --pin-stdin", "2580\n2581\n").exitCode, 0);
  succeed("token pin change --pin-file wrong --new-pin-file new");
  succeed("token delete --slot 1 --pin-file new");

  // A FID counter that stands at the token's own index file, as another tool could have left it.
  const std::uint64_t device = openToken();
  ASSERT_NE(device, 0U);
  const std::uint8_t counter[] = {0, 0x29, 0};
  ASSERT_EQ(simulatorWriteFile(device, 0x0020, counter, sizeof counter), 0);
  simulatorClose(device);
  fails("token enroll --finger a --pin-file new", 3, {"0x80000101", "0x0020", "0x0040", "0x0520", "beyond 0x29"});
  fails("token repair", 3, {"the FID counter yields file 0520"});
  EXPECT_TRUE(holds(run("token doctor").out, {"wrong the FID counter yields file 0520"}));
}

TEST_F(TokenProgram, ErasesWhatNoSlotNames) {
  succeed("token create --slots 3");
  succeed("token enroll --finger a");
  std::uint64_t device = openToken();
  ASSERT_NE(device, 0U);
  // Two enrollments cut off after they made their file, and a file of somebody else's.
  const SCardConnection connection = {.bState = 3, .abReserved = {}, .hDevice = device, .dwProtocol = 2};
  const std::uint8_t fcp[] = {0x28, 0x03, 0x88, 0xEF, 0xEF, 0xFF, 0xFF};
  for (const std::uint16_t fid : {std::uint16_t{0x0560}, std::uint16_t{0x0420}})
    ASSERT_EQ(SCardCreateFile(&connection, fid, fcp, sizeof fcp), 1);
  ASSERT_EQ(simulatorWriteFile(device, 0x0460, fcp, sizeof fcp), 0);
  simulatorClose(device);
  const Outcome doctor = run("token doctor");
  EXPECT_EQ(doctor.exitCode, 3);
  EXPECT_TRUE(holds(doctor.out, {"wrong 2 template files that no slot names: 0420, 0560"}));
  fails("token enroll --finger b", 3, {"kelmtrova token repair"});
  fails("token repair --erase 0540", 2, {"file 0540 belongs to slot 1"});
  EXPECT_EQ(run("token repair").out, "erased 2 template files, which no slot named: 0420, 0560\n");
  EXPECT_EQ(runJson("repair"), (json{{"ok", true}, {"found", json::array()}, {"erased", json::array()}}));
  EXPECT_EQ(runJson("doctor")["healthy"], true);
  EXPECT_EQ(run("token repair --erase 0460").out, "erased 1 template file, which no slot named: 0460\n");
  succeed("token enroll --finger b");
}

TEST_F(TokenProgram, ListsTokensAndChoosesOne) {
  Outcome outcome = run("token list --json");
  EXPECT_EQ(outcome.exitCode, 4);
  json list = json::parse(outcome.out);
  EXPECT_EQ(list["code"], "no-token");
  EXPECT_TRUE(holds(list["advice"].get<std::string>(), {"kelmtrova token create"}));
  fails("token slots", 4, {"kelmtrova token create"});
  succeed("token create --slots 3");
  succeed("token enroll --finger a");
  succeed("token create --slots 7 --token sim:other.db");
  const std::string store = (folder / "kelmtrova" / "token.db").string();
  list = runJson("list");
  EXPECT_EQ(list["tokens"], json::array({{{"address", "sim:" + store},
                                          {"kind", "simulated"},
                                          {"what", "kelmtrova simulated token"},
                                          {"slotCount", 3},
                                          {"enrolled", 1}}}));
  for (const char *words : {"KELMTROVA_TOKEN=sim:other.db kelmtrova token info --json",
                            "KELMTROVA_TOKEN=sim: kelmtrova token info --json --token other.db"}) {
    EXPECT_EQ(json::parse(shell(words).out)["slotCount"], 7) << words;
  }
  EXPECT_TRUE(holds(shell("KELMTROVA_TOKEN=other.db kelmtrova token list").out, {"sim:other.db", "7 slots, 0 taken"}));
}

TEST_F(TokenProgram, ShowsEveryExchangeButNoPin) {
  EXPECT_EQ(run("token create --pin-stdin", "2580\n").exitCode, 0);
  succeed("token enroll --finger a --label secret-label");
  const Outcome outcome =
      run("token verify --finger b --slot 1 --pin-stdin -v --trace trace.txt --trace-data", "2580\n");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.out, "no match with slot 1, 4 tries left\n");
  EXPECT_TRUE(holds(outcome.err, {"  > 00 20 00 00 04 and the PIN  (verify PIN)\n",
                                  "  > 80 FB 00 01 02  (extract features into buffer 1)\n",
                                  "  > 80 FD 06 01 01  (match, slot 1)\n  < 63C4  (no match, 4 tries left)\n"}));
  const std::string trace = read("trace.txt");
  EXPECT_TRUE(holds(trace, {"80 FD 06 01 01", "63C4", "2A 2A 2A 2A"}));
  for (const std::string &text : {outcome.err, trace}) {
    for (const char *hidden : {"32 35 38 30", "2580", "  # "}) EXPECT_FALSE(holds(text, {hidden})) << text;
  }
  EXPECT_TRUE(holds(run("token selftest -vv").err, {"  # Enter KelmTrovaSelfTest\n"}));
  EXPECT_TRUE(holds(run("token list -v").err, {"  > 80 F9 04 06 01  (get slot count)\n"}));
  const Outcome lost = run("token selftest --trace missing/trace.txt");
  EXPECT_EQ(lost.exitCode, 0);
  EXPECT_EQ(lost.err, "kelmtrova: the trace is not written: missing/trace.txt: No such file or directory\n");
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
  const Outcome shown = shell("script -qec 'kelmtrova token enroll --finger a -v' /dev/null");
  EXPECT_TRUE(holds(shown.out, {"1 of 3 captures\033[K\r\033[K  > 80 FA 00 00 02  (capture)\r\n"}));
  const Outcome narrow = shell("script -qec 'stty cols 30; NO_COLOR=1 kelmtrova token enroll --finger b' /dev/null");
  EXPECT_TRUE(holds(narrow.out, {"\rcaptur   0 %  0 of 1 captures\033[K", "\033[Kenrolled into slot 2\r\n"}));

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
      {"token selftest", 4, "--token handle:N"},
      {"token list", 4, "cannot list"},
      {"token selftest --token x.db", 2, "--token handle:N"},
      {"token create", 2, "only a simulated token can be created"},
      {"token pin require on --token handle:7", 2, "only a simulated token"},
      {"token verify --slot 1 --finger a --device 7", 2, "lay your finger"},
      {"token selftest --device 7 --pin 1234", 2, "tool of its maker"},
      {"token selftest --device 8", 4, "no fingerprint token answers at handle:8"},
      {"token slots --token handle:0x7", 3, "its last answer was 6D00 (instruction not supported)"},
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
  EXPECT_EQ(run("help token enroll").out, run("token enroll --help").out);
  EXPECT_EQ(run("help --help").out, run("--help").out);
  // What a real shell makes of it is seen elsewhere.
  const auto complete = [&](const std::string &line) {
    const Outcome outcome = shell("bash -c 'source <(kelmtrova completion bash) && COMP_LINE=\"" + line +
                                  "\" && COMP_POINT=${#COMP_LINE} && _kelmtrova && echo ${COMPREPLY[*]}'");
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  };
  EXPECT_EQ(complete("kelmtrova token se"), "selftest send-image serve\n");
  EXPECT_EQ(complete("kelmtrova token enroll --finger de"), "\n");
  // Each command's own examples and nothing else.
  for (const auto &[family, count] : {std::pair("token ", 20), std::pair("image ", 12)}) {
    const std::string commands = complete(std::string("kelmtrova ") + family);
    EXPECT_EQ(std::count(commands.begin(), commands.end(), ' '), count) << commands;
    std::istringstream names(commands);
    for (std::string name; names >> name;) {
      const std::string help = run(family + name + " --help").out, own = std::string("  kelmtrova ") + family + name;
      EXPECT_TRUE(holds(help, {"\nExamples:\n"})) << name;
      std::istringstream examples(help.substr(help.find("\nExamples:\n") + 1));
      std::string line;
      for (std::getline(examples, line); std::getline(examples, line);)
        EXPECT_NE(line.find(own.substr(2)), std::string::npos) << line;
    }
  }
}

TEST_F(TokenProgram, ShowsTheLifeOfATokenAndLeavesTheUsersOwnAlone) {
  const Outcome outcome = shell("TMPDIR=\"$PWD\" kelmtrova demo");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, {"6 slots, 0 enrolled", "match: slot 1 (Anna, thumb)", "[exit code 1: no match]",
                                  "[exit code 3: the token refused]", "  > 80 FD 06 01 01  (match, slot 1)"}));
  EXPECT_FALSE(std::filesystem::exists(folder / "kelmtrova"));
  // A signal in the middle of it, too.
  shell("TMPDIR=\"$PWD\" timeout -s INT 0.3 kelmtrova demo");
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
