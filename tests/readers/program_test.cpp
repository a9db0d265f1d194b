// SPDX-License-Identifier: Apache-2.0
// The program on a token behind a reader: its life, two programs at once, a trace that other tools read, and the token
// pulled out at each step that writes.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "kelmtrova/simulator.h"
#include "tests/readers/virtual_card.h"

namespace {

constexpr SimulatorPersonalisation kSixSlots = {6, 0, 0, nullptr};

struct Outcome {
  int exitCode;
  std::string out;
};

Outcome shell(const std::string &command) {
  FILE *pipe = popen(("exec 2>&1; PATH=" KELM_BUILD_DIR "/bin:$PATH; " + command).c_str(), "r");
  std::string out;
  for (int letter = fgetc(pipe); letter != EOF; letter = fgetc(pipe)) out += static_cast<char>(letter);
  const int state = pclose(pipe);
  return {WIFEXITED(state) ? WEXITSTATUS(state) : -1, out};
}

void expect(const std::string &command, int exitCode, const char *words = "") {
  const Outcome outcome = shell(command);
  EXPECT_EQ(outcome.exitCode, exitCode) << command << '\n' << outcome.out;
  EXPECT_NE(outcome.out.find(words), std::string::npos) << command << '\n' << outcome.out;
}

class Program : public testing::Test {
 protected:
  Program() {
    setenv("XDG_DATA_HOME", "/run/test/program", 1);
    EXPECT_EQ(simulatorCreate(kStore, &kSixSlots), 0) << simulatorError();
    device = simulatorOpen(kStore);
    EXPECT_EQ(simulatorPlaceFinger(device, "thumb", 5), 0);
  }
  ~Program() override {
    simulatorClose(device);
    std::filesystem::remove_all("/run/test/program");
    unsetenv("XDG_DATA_HOME");
  }

  // The simulated token's answer, as the reader wants it.
  Bytes answer(const Bytes &command) const {
    Bytes bytes(256);
    std::uint64_t length = bytes.size();
    const std::int32_t status = Icc_tsi_apiKelmDev(device, command.size(), command.data(), &length, bytes.data());
    bytes.resize(length);
    bytes.insert(bytes.end(), {static_cast<std::uint8_t>(status >> 8), static_cast<std::uint8_t>(status)});
    return bytes;
  }
  std::set<std::uint16_t> templateFiles() const {
    std::vector<std::uint16_t> fids(64);
    fids.resize(static_cast<std::size_t>(simulatorListFiles(device, fids.data(), fids.size())));
    std::set<std::uint16_t> files(fids.begin(), fids.end());
    for (const int own : {0x20, 0x40, 0x520}) files.erase(static_cast<std::uint16_t>(own));
    return files;
  }
  // The files that the entries of the index name.
  std::set<std::uint16_t> namedFiles() const {
    Bytes index(6 * 20);
    EXPECT_EQ(simulatorReadFile(device, 0x0520, index.data(), index.size()), static_cast<int>(index.size()));
    std::set<std::uint16_t> files;
    for (std::size_t at = 0; at < index.size(); at += 20) {
      if (index[at] != 0) files.insert(static_cast<std::uint16_t>(index[at + 2] << 8 | index[at + 3]));
    }
    return files;
  }

  static constexpr const char *kStore = "/run/test/program/kelmtrova/token.db";
  const Service service;
  std::uint64_t device = 0;
};

TEST_F(Program, LivesWithATokenInAReader) {
  ASSERT_TRUE(service.started);
  expect("kelmtrova token list", 0, "pcsc:Virtual PCD 00 00\n    reader, no card");
  expect("kelmtrova token info --token pcsc:0", 4, "[0xED08]");
  const pid_t served = fork();
  if (served == 0) {
    execl(KELM_BUILD_DIR "/bin/kelmtrova", "kelmtrova", "token", "serve", "--trace", "/run/test/served.txt", nullptr);
    _exit(1);
  }
  ASSERT_TRUE(eventually([] { return places()[0].present; }));
  expect("kelmtrova token list", 0, "pcsc:Virtual PCD 00 00\n    kelmtrova simulated token, 6 slots, 0 taken");
  // The only reader with a fingerprint token needs no address.
  expect("kelmtrova token enroll --label thumb", 0, "enrolled into slot 1 (thumb)");
  expect("kelmtrova token touch index", 0);
  expect("KELMTROVA_TOKEN=pcsc:0 kelmtrova token enroll --label index --trace /run/test/life.pcapng", 0,
         "slot 2 (index)");
  expect("kelmtrova token identify --token 'pcsc:pcd 00 00'", 0, "match: slot 2 (index)");
  expect("kelmtrova token verify --slot 1 --token pcsc:0", 1, "4 tries left");
  expect("kelmtrova token delete --slot 1 --token pcsc:0", 0);
  EXPECT_EQ(shell("kelmtrova token slots --token pcsc:0").out, shell("kelmtrova token slots --token sim:").out);
  expect("kelmtrova token slots --token pcsc:0", 0, "2  enrolled");

  // Each packet is one of ISO 7816 and whole; the comments say what class 80 means.
  const std::string packets =
      shell("tshark -r /run/test/life.pcapng -T fields -e frame.protocols -e _ws.col.Info -e frame.comment 2>/dev/null")
          .out;
  std::istringstream lines(packets);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count)
    EXPECT_EQ(line.substr(0, line.find('\t')), "exported_pdu:iso7816") << line;
  EXPECT_GT(count, 40U);
  for (const char *words : {"Select file\tselect file 0520, the template index", "Read binary, offset 0\tread binary",
                            "Response APDU (to Read binary)\tdone", "\tcapture"})
    EXPECT_NE(packets.find(words), std::string::npos) << words;
  expect("tshark -r /run/test/life.pcapng -Y '_ws.malformed or _ws.expert.severity >= 6291456' 2>/dev/null | wc -l", 0,
         "0\n");
  // The preloaded library sees the same packets, and the label in none of them.
  expect("LD_PRELOAD=" KELM_BUILD_DIR
         "/lib/libkelmtrova-trace.so KELMTROVA_TRACE=/run/test/life.pcap "
         "ASAN_OPTIONS=verify_asan_link_order=0 kelmtrova token slots --token pcsc:0",
         0, "index");
  expect("tshark -r /run/test/life.pcap 2>/dev/null", 0, "Response APDU (to Read binary)");
  expect("grep -c index /run/test/life.pcap", 1, "0\n");

  kill(served, SIGTERM);
  int state = -1;
  waitpid(served, &state, 0);
  EXPECT_EQ(state, 0);
  expect("cat /run/test/served.txt", 0, "(enroll into file 0560)");
  ASSERT_TRUE(eventually([] { return !places()[0].present; }));
  expect("kelmtrova token identify --token pcsc:0", 4, "[0xED08]");
}

TEST_F(Program, SharesAReader) {
  ASSERT_TRUE(service.started);
  const VirtualCard card([this](const Bytes &command) { return answer(command); });
  ASSERT_TRUE(card.inserted);
  expect("kelmtrova token enroll --slot 1 --token pcsc:0", 0);
  const auto loop = [](const char *slot) {
    for (int round = 0; round < 3; ++round) {
      expect(std::string("kelmtrova token enroll --again --token pcsc:0 --slot ") + slot, 0, "enrolled");
      expect("kelmtrova token identify --token pcsc:0", 0, "match: slot 1");
      if (round < 2) expect(std::string("kelmtrova token delete --token pcsc:0 --slot ") + slot, 0);
    }
  };
  std::thread one(loop, "2"), two(loop, "3");
  one.join();
  two.join();
  EXPECT_EQ(namedFiles().size(), 3U);
  EXPECT_EQ(templateFiles(), namedFiles());
}

// Pulled out before or after the work of each command from the creation of the file on, and put back: what was enrolled
// stays, and `repair` leaves nothing of the half enrollment.
TEST_F(Program, SurvivesATokenPulledOutOfAnEnrollment) {
  ASSERT_TRUE(service.started);
  constexpr std::uint8_t kCreateFile = 0xE0;
  expect("kelmtrova token enroll --slot 1 --label kept --token sim:", 0);
  const std::set<std::uint16_t> kept = namedFiles();
  EXPECT_EQ(simulatorPlaceFinger(device, "index", 5), 0);
  bool more = true;
  int cases = 0;
  for (int step = 0; more; ++step) {
    int since = -1;
    VirtualCard *inside = nullptr;
    {
      VirtualCard card([&](const Bytes &command) {
        if (command[1] == kCreateFile || since >= 0) ++since;
        const bool now = since == step / 2;
        const Bytes done = now && step % 2 == 0 ? Bytes{} : answer(command);
        if (now) inside->pull();
        return done;
      });
      inside = &card;
      ASSERT_TRUE(card.inserted);
      const Outcome outcome = shell("kelmtrova token enroll --slot 2 --token pcsc:0");
      more = since >= step / 2;
      EXPECT_EQ(outcome.exitCode == 0, !more) << step << ": " << outcome.out;
    }
    const VirtualCard again([this](const Bytes &command) { return answer(command); });
    ASSERT_TRUE(again.inserted);
    if (more) ++cases;
    // Behind a reader nothing is erased that was not named.
    const Outcome found = shell("kelmtrova token repair --token pcsc:0");
    for (const std::uint16_t file : templateFiles()) {
      char fid[8];
      std::snprintf(fid, sizeof fid, "%04X", file);
      if (namedFiles().count(file) != 0) continue;
      EXPECT_NE(found.out.find(fid), std::string::npos) << step << ": " << found.out;
      expect(std::string("kelmtrova token repair --token pcsc:0 --erase ") + fid, 0);
    }
    EXPECT_EQ(templateFiles(), namedFiles()) << step;
    expect("kelmtrova token delete --slot 2 --token pcsc:0", 0);
    EXPECT_EQ(templateFiles(), kept) << step;
    expect("kelmtrova token slots --token sim:", 0, "kept");
  }
  EXPECT_GE(cases, 12);
}

}  // namespace
