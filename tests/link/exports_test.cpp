// SPDX-License-Identifier: Apache-2.0
// The file of the built library: what it exports and needs, against what the public headers say, and its hardening.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/header.h"

namespace {

using Names = std::set<std::string>;

const std::string kLibrary = KELM_BUILD_DIR "/lib/libkelmtrova.so ";

// Unversioned, so that a preloaded library with versions of its own can take their place.
const Names kReplaceable = {
    "SCardTransmit",     "SCardAPDU",      "MYTRACE",         "MyLock",       "MyUnlock",
    "SCardReadBin",      "SCardUpdateBin", "SCardCreateFile", "SCardEraseEF", "token_get_current_fid",
    "token_set_next_fid"};

std::string textFrom(const std::string &command) {
  std::string text;
  FILE *const pipe = popen(command.c_str(), "r");
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
    text += static_cast<char>(c);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return text;
}

// The words that a command prints.
Names outputOf(const std::string &command) {
  std::istringstream text(textFrom(command));
  return {std::istream_iterator<std::string>(text), {}};
}

}  // namespace

TEST(Exports, AreTheNamesInTheHeaders) {
  Names declared;
  for (const char *header : {"token.h", "image.h"}) {
    for (const auto &[name, comment] : kelm::test::declarationsOf(header)) {
      declared.insert(kReplaceable.count(name) != 0 ? name : name + "@@KELMTROVA_1");
    }
  }
  EXPECT_GT(declared.size(), 90U);
  EXPECT_EQ(outputOf("nm -D --defined-only " + kLibrary + "| sed '/ A /d' | cut -d' ' -f3"), declared);
}

TEST(Exports, NeedsOnlyTheSystemsLibraries) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizers' libraries are needed too";
#endif
  const Names needed = outputOf("readelf -dW " + kLibrary + "| sed -n 's/.*NEEDED.*\\[\\(.*\\)\\]/\\1/p'");
  for (const std::string &name : needed) {
    const bool loader = name.starts_with("ld-linux-");  // where the stack protector keeps its value on ARM
    EXPECT_TRUE(name == "libc.so.6" || name == "libm.so.6" || name == "libkelmkmgr.so" || loader) << name;
  }
  EXPECT_EQ(needed.count("libkelmkmgr.so"), 1U);
}

TEST(Exports, AreHardenedAsAskedFor) {
  EXPECT_EQ(outputOf("readelf -lW " + kLibrary).count("GNU_RELRO"), 1U);
  EXPECT_EQ(outputOf("readelf -lW " + kLibrary + "| grep GNU_STACK").count("RW"), 1U) << "the stack can be executed";
  const Names dynamic = outputOf("readelf -dW " + kLibrary);
  EXPECT_EQ(dynamic.count("NOW"), 1U) << "addresses are bound at load and then read-only";
  EXPECT_EQ(dynamic.count("(TEXTREL)") + dynamic.count("(RUNPATH)") + dynamic.count("(RPATH)"), 0U);
  const Names imported = outputOf("nm -D --undefined-only --without-symbol-versions " + kLibrary);
  EXPECT_EQ(imported.count("__stack_chk_fail"), 1U);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && defined(__OPTIMIZE__)
  EXPECT_TRUE(std::any_of(imported.begin(), imported.end(), [](const std::string &name) {
    return name.ends_with("_chk");
  })) << "no call was fortified";
#endif
}

#if defined(__x86_64__) || defined(__aarch64__)
// The file carries no note of this, since the system's start files lack the mark: it shows in the code alone.
TEST(Exports, CodeMarksItsEntriesAndProbesItsStack) {
  const Names landings = {"endbr64", "bti", "paciasp"};
  const Names exported =
      outputOf("nm -D --defined-only --without-symbol-versions " + kLibrary + "| sed '/ T /!d; s/.* //'");
  std::istringstream code(textFrom(KELM_OBJDUMP " -d -j .text --no-show-raw-insn " + kLibrary));
  std::size_t entries = 0, probes = 0;
  bool entry = false, probeIsDue = false;
  for (std::string line; std::getline(code, line);) {
    if (line.ends_with(">:")) {
      const std::size_t name = line.find('<') + 1;
      probeIsDue = false;
      entry = exported.count(line.substr(name, line.find_first_of(">@", name) - name)) != 0;
      continue;
    }
    std::istringstream words(line.substr(std::min(line.size(), line.find('\t'))));
    std::string instruction, operands;
    words >> instruction >> operands;
    if (instruction.empty()) {
      continue;
    }
    EXPECT_TRUE(!entry || landings.count(instruction) != 0) << "an exported function begins with" << line;
    entries += entry ? 1 : 0;
    entry = false;
    if (operands == "$0x0,(%rsp)") {
      probes += probeIsDue ? 1 : 0;
      probeIsDue = false;
    }
    const bool frame = instruction == "sub" && operands.starts_with("$0x") && operands.ends_with(",%rsp");
    const auto bytes = frame ? static_cast<std::int64_t>(std::stoull(operands.substr(3), nullptr, 16)) : 0;
    // What follows the last page of a frame may touch it in place of a probe.
    EXPECT_LE(bytes, probeIsDue ? 4095 : 4096) << "more than a page without a probe:" << line;
    probeIsDue = probeIsDue || bytes == 4096;
  }
  EXPECT_EQ(entries, exported.size());
#ifdef __x86_64__
  EXPECT_GT(probes, 0U);
#endif
}
#endif
