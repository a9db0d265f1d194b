// SPDX-License-Identifier: Apache-2.0
// Every exported function with its first, second, third ... allocation failing until it succeeds: the stated result,
// the outputs as stated, nothing leaked, nothing written outside; and no allocation where none is stated.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include "kelmtrova/image.h"
#include "tests/robustness/toolkit_calls.h"
#include "tests/support/allocation.h"
#include "tests/support/simulated.h"

namespace {

using namespace kelm::test;

TEST(ExhaustedMemory, Toolkit) {
  for (const ToolkitCall &job : toolkitCalls()) {
    job.call();  // whatever a call keeps for good is taken here
    bool failed = true;
    for (std::uint64_t failing = 1; failed; ++failing) {
      SCOPED_TRACE(testing::Message() << job.name << ", allocation " << failing);
      restorePictures();
      bool answered = false;
      std::int64_t outstanding = 0;
      {
        const AllocationWatch watch(failing);
        answered = job.call();
        outstanding = watch.outstanding();
        failed = watch.failed();
      }
      ASSERT_LT(failing, 100U);
      EXPECT_TRUE(failed || failing > static_cast<std::uint64_t>(job.allocations));
      EXPECT_TRUE(!failed || job.allocations > 0);
      EXPECT_EQ(answered, failed);
      EXPECT_EQ(outstanding, 0) << "leaked";
      EXPECT_TRUE(!failed || !job.untouched || picturesUntouched());
    }
  }
}

// Whole also where only the stream did without its buffer.
TEST(ExhaustedMemory, ThePictureOfTheBarsIsWholeOrNotThere) {
  const std::string path = testing::TempDir() + "bars-" + std::to_string(getpid()) + ".raw";
  const std::uint32_t counters[3] = {1, 2, 3};
  bool failed = true;
  for (std::uint64_t failing = 1; failed; ++failing) {
    {
      const AllocationWatch watch(failing);
      EXPECT_EQ(HistogramPrint(counters, 3, path.c_str()), 0);
      failed = watch.failed();
      EXPECT_EQ(watch.outstanding(), 0);
    }
    struct stat file = {};
    EXPECT_TRUE(stat(path.c_str(), &file) == 0 ? file.st_size == 3 * 256 : failed) << failing;
    unlink(path.c_str());
  }
}

// What the token itself allocates does not fail: the k-th allocation is always one of the library's.
TEST(ExhaustedMemory, TokenCommands) {
  const SimulatedToken token({10, 0, 0, nullptr});
  const SCardConnection &connection = token.connection;
  token.present("finger");
  const TemplateIndexEntry record{};
  std::uint8_t index[200];
  const struct {
    const char *name;
    std::function<std::uint64_t()> call;
    std::vector<std::uint64_t> results;  // when the first, second, ... allocation fails; then 0
  } jobs[] = {
      {"index", [&] { return KelmTrovaReadIndexFile(&connection, index); }, {0x80009902}},
      {"enrollment", [&] { return token.enroll(3, record); }, {0x8000B003, 0x80009902, 0x80006A0F}},
      {"deletion", [&] { return KelmTrovaDeleteFingerPrint(&connection, 3); }, {0x8000B003, 0x80009902}},
      {"read", [&] { return std::uint64_t{SCardReadBin(&connection, 0x0520, 0, index, 20) == 0}; }, {1}},
  };
  for (const auto &job : jobs) {
    for (std::size_t failing = 1; failing <= job.results.size() + 1; ++failing) {
      std::fill(std::begin(index), std::end(index), std::uint8_t{0xEE});
      std::uint64_t result = 0;
      std::int64_t outstanding = 0;
      {
        const AllocationWatch watch(failing);
        result = job.call();
        outstanding = watch.outstanding();
      }
      const bool failed = failing <= job.results.size();
      EXPECT_EQ(result, failed ? job.results[failing - 1] : 0) << job.name << ", allocation " << failing;
      EXPECT_EQ(outstanding, 0) << job.name << ", allocation " << failing;
      EXPECT_TRUE(!failed || std::count(std::begin(index), std::end(index), 0xEE) == 200) << "the buffer is left alone";
    }
  }
}

}  // namespace
