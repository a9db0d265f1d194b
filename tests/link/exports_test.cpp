// SPDX-License-Identifier: Apache-2.0
// The file of the built library: what it gives and needs, against what the public headers say, and its armour.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

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

// The word before the first parenthesis, semicolon or bracket of each declaration; TEST is itself in parentheses.
void addDeclared(const char *header, Names &names) {
  std::stringstream text;
  text << std::ifstream(header).rdbuf();
  const std::string mark = "\nKELMTROVA_API ";
  for (std::size_t at = text.str().find(mark); at != std::string::npos; at = text.str().find(mark, at + 1)) {
    std::string declaration = text.str().substr(at + mark.size(), 200);
    const std::size_t wrapped = declaration.find("(TEST)");
    declaration.resize(wrapped < 20 ? wrapped + 5 : declaration.find_first_of("(;["));
    names.insert(declaration.substr(declaration.find_last_of(" *(\n") + 1));
  }
}

}  // namespace

TEST(Exports, AreTheNamesInTheHeaders) {
  Names declared;
  addDeclared(KELM_SOURCE_DIR "/include/kelmtrova/token.h", declared);
  EXPECT_EQ(declared.size(), 45U);
  addDeclared(KELM_SOURCE_DIR "/include/kelmtrova/image.h", declared);
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
