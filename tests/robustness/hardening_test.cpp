// The armour of the built library: what the linker and the compiler were asked for is in the file.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

std::string outputOf(const std::string &command) {
  const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
  std::string output;
  char part[4096];
  while (pipe != nullptr && std::fgets(part, sizeof(part), pipe.get()) != nullptr) {
    output += part;
  }
  return output;
}

TEST(Hardening, BuiltLibrary) {
  const std::string file = KELM_BUILD_DIR "/lib/libkelmtrova.so";
  const std::string segments = outputOf("readelf -lW " + file);
  EXPECT_NE(segments.find("GNU_RELRO"), std::string::npos);
  const auto stack = segments.find("GNU_STACK");
  ASSERT_NE(stack, std::string::npos);
  const std::string line = segments.substr(stack, segments.find('\n', stack) - stack);
  EXPECT_EQ(line.find("RWE"), std::string::npos) << line;
  const std::string dynamic = outputOf("readelf -dW " + file);
  EXPECT_NE(dynamic.find("NOW"), std::string::npos) << "addresses are bound at load and then read-only";
  EXPECT_EQ(dynamic.find("TEXTREL"), std::string::npos);
  EXPECT_EQ(dynamic.find("RUNPATH"), std::string::npos);
  EXPECT_EQ(dynamic.find("RPATH"), std::string::npos);
  const std::string symbols = outputOf("nm -D --undefined-only " + file);
  EXPECT_NE(symbols.find("__stack_chk_fail"), std::string::npos);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && defined(__OPTIMIZE__)
  EXPECT_NE(outputOf("nm -D --undefined-only " + file + " | grep -v stack_chk | grep _chk").size(), 0U)
      << "no call was fortified";
#endif
}

}  // namespace
