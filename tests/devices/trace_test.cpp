// SPDX-License-Identifier: Apache-2.0
// Traces as text: what is in them, what is not, and that no failure of theirs reaches the program.
#include "kelmtrova/trace.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "kelmtrova/device_manager.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Loaded, so that its entry does not come before the device manager's here.
struct Library {
  void *handle = dlopen(KELM_BUILD_DIR "/lib/libkelmtrova-trace.so", RTLD_NOW | RTLD_LOCAL);
  decltype(&kelmTraceOpen) open = find<decltype(&kelmTraceOpen)>("kelmTraceOpen");
  decltype(&kelmTraceCommand) command = find<decltype(&kelmTraceCommand)>("kelmTraceCommand");
  decltype(&kelmTraceAnswer) answer = find<decltype(&kelmTraceAnswer)>("kelmTraceAnswer");
  decltype(&kelmTraceError) error = find<decltype(&kelmTraceError)>("kelmTraceError");
  decltype(&kelmTraceClose) close = find<decltype(&kelmTraceClose)>("kelmTraceClose");

  template <typename Function>
  Function find(const char *name) const {
    return handle ? reinterpret_cast<Function>(dlsym(handle, name)) : nullptr;
  }
};

const Library &library() {
  static const Library only;
  return only;
}

Bytes bytesOf(const std::string &text) {
  std::istringstream words(text);
  Bytes bytes;
  for (std::string word; words >> word;) bytes.push_back(static_cast<std::uint8_t>(std::stoi(word, nullptr, 16)));
  return bytes;
}

struct Exchange {
  const char *command, *answer;
  std::uint16_t status;
};

void exchange(KelmTrace *trace, const Exchange &made, std::uint64_t device = 1) {
  const Bytes command = bytesOf(made.command), answer = bytesOf(made.answer);
  const std::uint64_t number = library().command(trace, device, command.data(), command.size());
  library().answer(trace, number, answer.data(), answer.size(), made.status);
}

class Trace : public testing::Test {
 protected:
  Trace() {
    std::string name = (std::filesystem::temp_directory_path() / "kelm-XXXXXX").string();
    folder = mkdtemp(name.data());
  }
  ~Trace() override { std::filesystem::remove_all(folder); }

  std::string place(const char *name) const { return (folder / name).string(); }

  // Without the times.
  std::string textOf(const std::vector<Exchange> &exchanges, std::uint32_t flags) const {
    KelmTrace *trace = library().open(place("trace.txt").c_str(), flags);
    for (const Exchange &each : exchanges) exchange(trace, each);
    EXPECT_EQ(library().error(trace), nullptr);
    library().close(trace);
    std::ostringstream text;
    text << std::ifstream(place("trace.txt")).rdbuf();
    return std::regex_replace(text.str(), std::regex(R"((\d\d:\d\d:\d\d\.\d{6}|\d{4}-\d\d-\d\d)(  )?)"), "");
  }

  std::filesystem::path folder;
};

TEST_F(Trace, NamesEveryCommandAndStatus) {
  EXPECT_EQ(textOf({{"80 FA 02 00 02", "6B 65", 0x9000},
                    {"00 A4 00 00 02 05 20", "", 0x6A82},
                    {"80 FD 06 03 01", "", 0x63C2},
                    {"80 FD 26 00 01", "", 0x6A21},
                    {"80 FC 05 40 02", "", DEVICE_MANAGER_CARD_REMOVED},
                    {"80 F7", "", 0x6C07},
                    {"00 A4 00 00 02 00 20", "", 0x9000},
                    {"00 B0 00 00 21",
                     "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19 "
                     "1A 1B 1C 1D 1E 1F 20",
                     0x9000}},
                   0),
            "# , times in UTC, device 1\n"
            "> 80 FA 02 00 02  (device information)\n< 6B 65 9000  (done)\n"
            "> 00 A4 00 00 02 05 20  (select file 0520, the template index)\n< 6A82  (file not found)\n"
            "> 80 FD 06 03 01  (match, slot 3)\n< 63C2  (no match, 2 tries left)\n"
            "> 80 FD 26 00 01  (match without counting tries, all slots)\n< 6A21  (no match)\n"
            "> 80 FC 05 40 02  (enroll into file 0540)\n< ED0C  (the token was pulled out)\n"
            "> 80 F7  (too short for a command)\n< 6C07  (wrong Le, 7 is right)\n"
            "> 00 A4 00 00 02 00 20  (select file 0020, the FID counter)\n< 9000  (done)\n"
            "> 00 B0 00 00 21  (read binary)\n"
            "< 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D 1E 1F\n"
            "                   20 9000  (done)\n");
  struct stat about;
  ASSERT_EQ(stat(place("trace.txt").c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777, 0600U);
}

// Each case after the selection of a file; "" selects none. The last line that begins with > or <, bytes only.
TEST_F(Trace, HidesWhatIsPrivate) {
  const struct {
    const char *selected;
    Exchange made;
    char line;
    const char *hidden, *shown;
  } cases[] = {
      // PINs, whatever the class, the length byte or the odd instruction says.
      {"", {"00 20 00 00 04 31 32 33 34", "", 0x9000}, '>', "00 20 00 00 04 2A 2A 2A 2A", nullptr},
      {"", {"8C 24 00 01 02 31 32", "", 0x9000}, '>', "8C 24 00 01 02 2A 2A", nullptr},
      {"", {"10 2C 00 01 01 31 32 33", "", 0x6700}, '>', "10 2C 00 01 01 2A 2A 2A", nullptr},
      {"", {"00 21 00 00 03 80 01 31", "", 0x6D00}, '>', "00 21 00 00 03 2A 2A 2A", nullptr},
      {"", {"00 20 00 00", "", 0x63C3}, '>', "00 20 00 00", "00 20 00 00"},
      // An entry, and a part of one in the middle of the file.
      {"05 20",
       {"00 D0 00 28 14 01 07 05 40 4C 75 63 79 00 00 00 00 00 00 00 00 00 00 00 00", "", 0x9000},
       '>',
       "00 D0 00 28 14 01 07 05 40 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A 2A",
       "00 D0 00 28 14 01 07 05 40 4C 75 63 79 00 00 00 00 00 00 00 00 00 00 00 00"},
      {"05 20",
       {"00 D6 00 26 04 41 42 01 07", "", 0x9000},
       '>',
       "00 D6 00 26 04 2A 2A 01 07",
       "00 D6 00 26 04 41 42 01 07"},
      {"05 20", {"00 B0 00 12 05", "41 42 01 07 05", 0x9000}, '<', "2A 2A 01 07 05 9000", "41 42 01 07 05 9000"},
      // Another file, a file that nobody knows, and one named by a short identifier.
      {"00 20", {"00 B0 00 00 03", "00 2A 01", 0x9000}, '<', "00 2A 01 9000", "00 2A 01 9000"},
      {"", {"00 B0 00 00 02", "41 42", 0x9000}, '<', "2A 2A 9000", "41 42 9000"},
      {"00 20", {"00 B0 85 00 02", "41 42", 0x9000}, '<', "2A 2A 9000", "41 42 9000"},
      {"00 20", {"00 D7 00 00 03 41 42 43", "", 0x9000}, '>', "00 D7 00 00 03 2A 2A 2A", "00 D7 00 00 03 41 42 43"},
      // Pixels after the head of a block.
      {"",
       {"80 F7 01 00 0A 00 00 00 00 01 00 00 00 80 81", "", 0x9000},
       '>',
       "80 F7 01 00 0A 00 00 00 00 01 00 00 00 2A 2A",
       "80 F7 01 00 0A 00 00 00 00 01 00 00 00 80 81"},
  };
  for (const auto &each : cases) {
    for (const std::uint32_t flags : {0U, std::uint32_t{TRACE_USER_DATA}}) {
      std::vector<Exchange> all;
      const std::string select = std::string("00 A4 00 00 02 ") + each.selected;
      if (*each.selected) all.push_back({select.c_str(), "", 0x9000});
      all.push_back(each.made);
      const std::string text = textOf(all, flags);
      const std::size_t begin = text.rfind(std::string("\n") + each.line) + 3;
      const std::string line = text.substr(begin, text.find_first_of("(\n", begin) - begin);
      const char *wanted = flags && each.shown ? each.shown : each.hidden;
      EXPECT_EQ(line.substr(0, line.find_last_not_of(' ') + 1), wanted);
    }
  }
}

// What waits for GET RESPONSE is as private as what was asked for; a selection that may have failed is none.
TEST_F(Trace, HidesWhatComesLater) {
  const Exchange index = {"00 A4 00 00 02 05 20", "", 0x9000}, counter = {"00 A4 00 00 02 00 20", "", 0x9000};
  const std::string later =
      textOf({index, {"00 B0 00 00 06", "01 07", 0x6104}, {"00 C0 00 00 04", "05 40 41 42", 0x9000}}, 0);
  EXPECT_NE(later.find("05 40 2A 2A 9000"), std::string::npos) << later;
  const std::string lost =
      textOf({counter, {"00 A4 00 00 02 05 20", "", DEVICE_MANAGER_NO_ANSWER}, {"00 B0 00 00 02", "41 42", 0x9000}}, 0);
  EXPECT_NE(lost.find("2A 2A 9000"), std::string::npos) << lost;

  KelmTrace *trace = library().open(place("two.txt").c_str(), 0);
  exchange(trace, counter, 1);
  exchange(trace, index, 2);
  exchange(trace, {"00 B0 00 00 02", "41 42", 0x9000}, 1);
  exchange(trace, {"00 B0 00 04 02", "43 44", 0x9000}, 2);
  library().close(trace);
  std::ostringstream text;
  text << std::ifstream(place("two.txt")).rdbuf();
  EXPECT_NE(text.str().find("41 42 9000"), std::string::npos);
  EXPECT_EQ(text.str().find("43 44 9000"), std::string::npos);
}

// The program notices none of it: no signal, no wait, and half a record is in no file.
TEST_F(Trace, ThatCannotBeWrittenStopsNothing) {
  std::filesystem::create_directory(folder / "sub");
  ASSERT_EQ(mkfifo(place("pipe").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(place("read").c_str(), 0600), 0);
  int reader = open(place("read").c_str(), O_RDONLY | O_NONBLOCK);
  const Exchange some = {"80 FA 02 00 02", "6B 65", 0x9000};
  for (const std::string &file :
       {place("missing/trace.txt"), place("sub"), place("pipe"), place("read"), std::string("/dev/full")}) {
    KelmTrace *trace = library().open(file.c_str(), 0);
    ASSERT_NE(trace, nullptr);
    if (file == place("read")) close(reader);
    exchange(trace, some);
    ASSERT_NE(library().error(trace), nullptr) << file;
    EXPECT_EQ(std::string(library().error(trace)).substr(0, file.size()), file);
    library().close(trace);
  }
  EXPECT_EQ(library().open(nullptr, 0), nullptr);
  library().close(nullptr);

  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  KelmTrace *trace = library().open(place("cut.txt").c_str(), 0);
  exchange(trace, some);
  const auto whole = std::filesystem::file_size(place("cut.txt"));
  const rlimit small = {whole + 10, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  exchange(trace, some);
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_NE(library().error(trace), nullptr);
  library().close(trace);
  EXPECT_EQ(std::filesystem::file_size(place("cut.txt")), whole);
}

}  // namespace
