// SPDX-License-Identifier: Apache-2.0
// What the program makes of text from outside, and how it writes.
#include "tools/output.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"
#include "tools/failure.h"
#include "tools/text.h"

namespace {

using namespace kelm::tools;

class ToolsOutput : public Program {
 protected:
  std::string place(const char *name) { return (folder / name).string(); }
};

TEST_F(ToolsOutput, ShowsNoCharacterThatSteersATerminal) {
  const struct {
    std::string text, shown, json;
  } cases[] = {
      {"plain \u00fc\u20ac\U0001F600", "plain \u00fc\u20ac\U0001F600", "\"plain \u00fc\u20ac\U0001F600\""},
      {"a\x1b[31mb\nc\x7f", "a?[31mb?c?", "\"a\\u001b[31mb\\nc\\u007f\""},
      {"x\u009by\u0085", "x?y?", "\"x\\u009by\\u0085\""},
      {"\u202egnp.exe\u2066\u200f\u061c", "?gnp.exe???", "\"\\u202egnp.exe\\u2066\\u200f\\u061c\""},
      {"\U000E0041|", "?|", "\"\\udb40\\udc41|\""},
      // Overlong, cut off, a surrogate, beyond the last character, a stray byte.
      {"\xC0\xAF|\xE2\x82|\xED\xA0\x80|\xF4\x90\x80\x80|\xFF", "??|??|???|????|?", ""},
  };
  for (const auto &expected : cases) {
    EXPECT_EQ(shown(expected.text), expected.shown);
    if (!expected.json.empty()) {
      EXPECT_EQ(jsonText(expected.text, -1), expected.json);
    }
  }
  EXPECT_EQ(jsonText({{"a\u202e", {1, nullptr}}}, 1), "{\n \"a\\u202e\": [\n  1,\n  null\n ]\n}");
}

TEST_F(ToolsOutput, QuotesFieldsForSpreadsheets) {
  const struct {
    const char *text, *field;
  } cases[] = {
      {"", ""},
      {"plain.png", "plain.png"},
      {"a,b", "\"a,b\""},
      {"say \"hi\"", "\"say \"\"hi\"\"\""},
      {"l\nm", "\"l\nm\""},
      {"=1+1", "'=1+1"},
      {"-x", "'-x"},
      {"@a,b", "\"'@a,b\""},
      {"\rx", "\"'\rx\""},
      {"\tx", "'\tx"},
      {"+1", "'+1"},
      {"a=b", "a=b"},
  };
  for (const auto &expected : cases) EXPECT_EQ(csvField(expected.text), expected.field);
}

TEST_F(ToolsOutput, ReplacesFilesWholeOrNotAtAll) {
  writeFile(place("new"), "1");
  EXPECT_EQ(read("new"), "1");
  ASSERT_EQ(chmod(place("new").c_str(), 0640), 0);
  // Links stay, also to what is not there yet.
  std::filesystem::create_directory(folder / "sub");
  std::filesystem::create_symlink("../new", folder / "sub" / "link");
  std::filesystem::create_symlink("sub/later", folder / "dangling");
  writeFile(place("sub/link"), "2");
  writeFile(place("dangling"), "3");
  EXPECT_EQ(read("new") + read("sub/later"), "23");
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "sub" / "link"));
  struct stat status {};
  ASSERT_EQ(stat(place("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);

  // A full disk, as a limit on the size of files.
  const rlimit small{1000, RLIM_INFINITY};
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THROW(writeFile(place("new"), std::string(2000, 'x')), Failure);
  EXPECT_THROW(writeFile(place("other"), std::string(2000, 'x')), Failure);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(read("new"), "2");
  for (const char *bad : {"sub", "missing/file", "new/below"}) EXPECT_THROW(writeFile(place(bad), "x"), Failure) << bad;
  const auto entries = std::distance(std::filesystem::directory_iterator(folder), {});
  EXPECT_EQ(entries, 3) << "something was left beside new, sub and dangling";

  // Devices and pipes are written in place; so is an open file behind /dev/stdout.
  ASSERT_EQ(mkfifo(place("pipe.png").c_str(), 0600), 0);
  const Outcome piped =
      shell("ln -s /dev/stdout out.png; kelmtrova image synth --class arch --size 64x64 -o out.png >>new; cat new");
  EXPECT_EQ(piped.out.rfind("2\x89PNG", 0), 0U);
  EXPECT_EQ(shell("(timeout 20 head -c4 pipe.png | tail -c3) & kelmtrova image synth --class arch --size 64x64 -o "
                  "pipe.png; wait")
                .out,
            "PNG");
  EXPECT_TRUE(std::filesystem::is_fifo(folder / "pipe.png"));
  shell("kelmtrova image quality missing -o sub/link");
  EXPECT_TRUE(read("new").starts_with("{\"path\"") && std::filesystem::is_symlink(folder / "sub" / "link"));
}

TEST_F(ToolsOutput, SaysWhenTheOutputIsCutOff) {
  for (const char *words : {"--help", "--version", "token --help", "completion bash", "token create --json"}) {
    const Outcome outcome = shell(std::string("kelmtrova ") + words + " >/dev/full");
    EXPECT_EQ(outcome.exitCode, 2) << words;
    EXPECT_EQ(outcome.err, "kelmtrova: the output could not be written: No space left on device\n") << words;
  }
}

}  // namespace
