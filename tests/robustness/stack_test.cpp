// SPDX-License-Identifier: Apache-2.0
// The stack that every exported function takes, against the figure that its header states: in the comment above it, or
// for all in the header's first comment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>

#include "kelmtrova/image.h"
#include "tests/robustness/painted_stack.h"
#include "tests/robustness/token_calls.h"
#include "tests/robustness/toolkit_calls.h"
#include "tests/support/device.h"
#include "tests/support/header.h"

namespace {

using namespace kelm::test;

constexpr std::uint8_t kPaint = 0x5C;

// The bridge's is that of the dynamic loader and of the middleware; the others are no functions.
const std::set<std::string> kNotMeasured = {"KelmSCardAuthBio", "KelmSCardVerifyUserPinBio", "g_rgSCardT0Pci",
                                            "g_rgSCardT1Pci", "needRefineSegment"};

std::map<std::string, std::size_t> usedByToken() {
  std::map<std::string, std::size_t> used;
  const SCardConnection connection = readyConnection();
  // A slot's entry that names a file; with the second answer a match blocks.
  const Answer answers[] = {{.data = Bytes(256, 1)}, {.status = 0x63C0}, {.status = 0x6110}};
  for (const Answer &answer : answers) {
    device.fixed = answer;
    for (const TokenCall &job : tokenCalls()) {
      const StackUse use = callOnPaintedStack([&] { job.call(&connection); }, kPaint);
      used[job.name] = std::max(used[job.name], use.bytes);
    }
  }
  device = {};
  return used;
}

std::map<std::string, std::size_t> usedByToolkit() {
  std::map<std::string, std::size_t> used;
  for (const ToolkitCall &job : toolkitCalls()) {
    used[job.name] = callOnPaintedStack([&] { job.call(); }, kPaint).bytes;
  }
  restorePictures();
  const std::uint32_t counters[3] = {1, 2, 3};
  const std::string path = testing::TempDir() + "stack-" + std::to_string(getpid()) + ".raw";
  used["HistogramPrint"] = callOnPaintedStack([&] { HistogramPrint(counters, 3, path.c_str()); }, kPaint).bytes;
  unlink(path.c_str());
  return used;
}

void compareWith(const char *header, const std::map<std::string, std::size_t> &used) {
  const std::string text = textOf(std::string(KELM_SOURCE_DIR "/include/kelmtrova/") + header);
  const std::size_t stated = statedStack(text.substr(0, text.find("#ifndef")));
  EXPECT_NE(stated, 0U) << header << " states no figure for all functions";
  std::size_t most = 0;
  for (const auto &[name, comment] : declarationsOf(header)) {
    if (kNotMeasured.count(name) == 0) {
      ASSERT_EQ(used.count(name), 1U) << name << " is not called";
      const std::size_t own = statedStack(comment);
      EXPECT_LE(used.at(name), own != 0 ? own : stated) << name;
      most = std::max(most, used.at(name));
      std::printf("%-32s %6zu\n", name.c_str(), used.at(name));
    }
  }
  std::printf("%s: at most %zu bytes\n", header, most);
}

TEST(Stack, IsWhatTheHeadersState) {
#if defined(__SANITIZE_ADDRESS__) || !defined(__OPTIMIZE__)
  GTEST_SKIP() << "the frames of a sanitized or unoptimised library say nothing of the shipped one";
#endif
  compareWith("token.h", usedByToken());
  compareWith("image.h", usedByToolkit());
}

}  // namespace
