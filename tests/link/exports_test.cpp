// What the built library needs and gives, against what the public headers say.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

using Names = std::set<std::string>;

Names wordsOf(std::istream &text) {
  Names words;
  for (std::string word; text >> word;) {
    words.insert(word);
  }
  return words;
}

Names outputOf(const std::string &command) {
  std::stringstream text;
  FILE *const pipe = popen(command.c_str(), "r");
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
    text << static_cast<char>(c);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return wordsOf(text);
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
  const Names exported =
      outputOf("nm -D --defined-only --without-symbol-versions " KELM_BUILD_DIR "/lib/libkelmtrova.so | cut -d' ' -f3");
  EXPECT_EQ(exported, declared);
}

TEST(Exports, NeedsOnlyTheSystemsLibraries) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizers' libraries are needed too";
#endif
  const Names needed =
      outputOf("readelf -dW " KELM_BUILD_DIR "/lib/libkelmtrova.so | sed -n 's/.*NEEDED.*\\[\\(.*\\)\\]/\\1/p'");
  for (const std::string &name : needed) {
    EXPECT_TRUE(name == "libc.so.6" || name == "libm.so.6" || name == "libkelmkmgr.so") << name;
  }
  EXPECT_EQ(needed.count("libkelmkmgr.so"), 1U);
}
