// SPDX-License-Identifier: Apache-2.0
// Nothing that a token sends or is sent stays behind on the stack or in released memory: data come with every answer,
// also where none are expected, and memory is searched after every exported function.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/robustness/painted_stack.h"
#include "tests/robustness/token_calls.h"
#include "tests/robustness/transport.h"
#include "tests/support/allocation.h"
#include "tests/support/device.h"
#include "tests/support/header.h"

namespace {

using namespace kelm::test;

constexpr std::size_t kDataLength = 200;

// What becomes of one exchange of a call. After the first two, the answer that counts has no data to hide them.
enum class Oddity { kMoreData, kRetry, kTransportFails, kRefused, kBlocked };

class Secrets : public testing::Test {
 protected:
  void SetUp() override {
    script = [this](const std::uint8_t *command, std::uint8_t *recv, std::uint64_t *recvLength) {
      return answer(command, recv, recvLength);
    };
  }
  void TearDown() override { script = nullptr; }

  // Secrets, but 10 slots, 5 as the FID counter and, in an index of free slots, no files.
  void fill(const std::uint8_t *command, std::uint8_t *recv) const {
    std::fill_n(recv, kDataLength, kSecret);
    if (command[1] == KELM_INS_PARAMETER) {
      recv[0] = 10;
    } else if (command[1] == KELM_INS_READ_BINARY && command[4] == sizeof(std::uint16_t)) {
      recv[0] = 5;
      recv[1] = 0;
    } else if (command[1] == KELM_INS_READ_BINARY && slotsAreFree) {
      for (std::size_t i = 0; i < kDataLength; ++i) {
        const std::size_t field = (command[2] * 256U + command[3] + i) % sizeof(TemplateIndexEntry);
        recv[i] = field == 2 || field == 3 ? std::uint8_t{0} : recv[i];
      }
    }
  }

  std::int64_t answer(const std::uint8_t *command, std::uint8_t *recv, std::uint64_t *recvLength) {
    const bool odd = ++exchanges == oddAt;
    const bool bare = exchanges == oddAt + 1 && (oddity == Oddity::kMoreData || oddity == Oddity::kRetry);
    const std::size_t length = bare ? 0 : kDataLength;
    fill(command, recv);
    const int status = !odd                          ? 0x9000
                       : oddity == Oddity::kMoreData ? 0x61C8
                       : oddity == Oddity::kBlocked  ? 0x63C0
                                                     : 0x6F00;
    recv[length] = static_cast<std::uint8_t>(status >> 8);
    recv[length + 1] = static_cast<std::uint8_t>(status);
    *recvLength = length + 2;
    return odd && oddity == Oddity::kRetry ? 1117 : odd && oddity == Oddity::kTransportFails ? -1 : 0;
  }

  bool stay(const std::function<void(const SCardConnection *)> &call, std::uint8_t paint = 0) {
    bool released = false;
    const StackUse use = callOnPaintedStack(
        [&] {
          exchanges = 0;
          const AllocationWatch watch;
          call(&connection);
          released |= watch.secretReleased();
        },
        paint);
    return released || use.holdsSecret;
  }

  SCardConnection connection = readyConnection();
  std::size_t exchanges = 0;
  std::size_t oddAt = 0;  // the exchange, from 1
  Oddity oddity = Oddity::kMoreData;
  bool slotsAreFree = false;
};

TEST_F(Secrets, DoNotStayBehind) {
  const auto declared = declarationsOf("token.h");
  EXPECT_EQ(tokenCalls().size() + 4, declared.size()) << "all but the bridge and two records";
  for (const TokenCall &job : tokenCalls()) {
    EXPECT_EQ(declared.count(job.name), 1U) << job.name;
    for (const bool free : {false, true}) {
      slotsAreFree = free;
      for (const Oddity odd :
           {Oddity::kMoreData, Oddity::kRetry, Oddity::kTransportFails, Oddity::kRefused, Oddity::kBlocked}) {
        oddity = odd;
        exchanges = 1;
        for (oddAt = 1; oddAt <= exchanges; ++oddAt) {
          EXPECT_FALSE(stay(job.call)) << job.name << ", oddity " << static_cast<int>(odd) << " at " << oddAt;
        }
      }
    }
  }
  const auto careless = [](const SCardConnection *handle) {
    std::uint8_t command[5] = {}, response[256];
    std::uint64_t length = 0;
    SCardAPDU(handle, command, sizeof command, response, &length);
  };
  EXPECT_TRUE(stay(careless)) << "the test would not see it";
}

TEST_F(Secrets, OnTheStackAreNoAnswer) {
  std::uint8_t slot = 1, tries = 1;
  script = [](const std::uint8_t *, std::uint8_t *recv, std::uint64_t *recvLength) {
    recv[0] = 0x90;
    recv[1] = 0x00;
    *recvLength = 2;
    return std::int64_t{0};
  };
  stay([&](const SCardConnection *handle) { KelmTrovaFeatureIdentify(handle, 0, &slot, &tries); }, kSecret);
  EXPECT_EQ(slot, 0);
}

}  // namespace
