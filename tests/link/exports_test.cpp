// SPDX-License-Identifier: Apache-2.0
// The file of the built library: what it gives and needs, against what the public headers say, and its armour.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/header.h"

namespace {

using Names = std::set<std::string>;

const std::string kLibrary = KELM_BUILD_DIR "/lib/libkelmtrova.so ";

// The words that a command prints.
Names outputOf(const std::string &command) {
  std::stringstream text;
  FILE *const pipe = popen(command.c_str(), "r");
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
    text << static_cast<char>(c);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return {std::istream_iterator<std::string>(text), {}};
}

}  // namespace

TEST(Exports, AreTheNamesInTheHeaders) {
  Names declared;
  for (const char *header : {"token.h", "image.h"}) {
    for (const auto &[name, comment] : kelm::test::declarationsOf(header)) {
      declared.insert(name);
    }
  }
  EXPECT_GT(declared.size(), 90U);
  const Names exported = outputOf("nm -D --defined-only --without-symbol-versions " + kLibrary + "| cut -d' ' -f3");
  EXPECT_EQ(exported, declared);
}

TEST(Exports, NeedsOnlyTheSystemsLibraries) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizers' libraries are needed too";
#endif
  const Names needed = outputOf("readelf -dW " + kLibrary + "| sed -n 's/.*NEEDED.*\\[\\(.*\\)\\]/\\1/p'");
  for (const std::string &name : needed) {
    EXPECT_TRUE(name == "libc.so.6" || name == "libm.so.6" || name == "libkelmkmgr.so") << name;
  }
  EXPECT_EQ(needed.count("libkelmkmgr.so"), 1U);
}

TEST(Exports, WearTheArmourThatWasAskedFor) {
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
