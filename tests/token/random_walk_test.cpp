// SPDX-License-Identifier: Apache-2.0
// A random walk through the life of a token, against a model of it in plain variables.
#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <random>

#include "tests/support/simulated.h"

namespace {

constexpr unsigned kSlotCount = 7;
constexpr unsigned kMaxTries = 4;
constexpr const char *kFingers[] = {"left thumb", "left index", "right thumb", "right index"};

struct ModelSlot {
  TemplateIndexEntry entry = {};
  bool fileGone = false;
  std::optional<unsigned> finger;  // what the template file holds
};

class RandomWalk : public testing::TestWithParam<std::uint16_t> {
 protected:
  unsigned upTo(unsigned most) { return static_cast<unsigned>(random() % (most + 1)); }

  void reopen() {
    token.reopen(upTo(2));
    live.reset();
  }

  void takeFinger() {
    live = upTo(std::size(kFingers) - 1);
    token.present(kFingers[*live]);
  }

  void loseFile() {
    ModelSlot &slot = slots[1 + upTo(kSlotCount - 1)];
    if (slot.entry.fid != 0 && !slot.fileGone) {
      ASSERT_EQ(SCardEraseEF(&token.connection, __builtin_bswap16(slot.entry.fid)), 1);
      slot.fileGone = true;
      slot.finger.reset();
    }
  }

  void unblock() {
    ASSERT_EQ(simulatorUnblock(token.connection.hDevice), 0);
    tries = kMaxTries;
    blockRecorded = false;
  }

  std::uint64_t expectEnrolled(ModelSlot &slot, const TemplateIndexEntry &record) {
    if (slot.entry.fid == 0) {
      counter = counter == 0x1F8 ? 0x1F9 : counter;
      if (counter < 1 || counter > 0x7FF) {
        return 0x80006A0F;
      }
      slot.entry.fid = __builtin_bswap16(static_cast<std::uint16_t>(counter++ << 5));
    } else if (slot.fileGone) {
      slot.fileGone = false;
      return 0x80006A82;
    }
    if (!live) {
      return 0x80006A10;
    }
    slot.finger = live;
    slot.entry = {1, record.tag, slot.entry.fid, {}};
    std::memcpy(slot.entry.userData, record.userData, sizeof record.userData);
    return 0;
  }

  void enroll() {
    const unsigned number = upTo(kSlotCount + 1);
    TemplateIndexEntry record = {9, static_cast<std::uint8_t>(random()), 0x9999, {}};
    for (std::uint8_t &byte : record.userData) {
      byte = static_cast<std::uint8_t>(random());
    }
    const bool exists = number >= 1 && number <= kSlotCount;
    const std::uint64_t expected = exists ? expectEnrolled(slots[number], record) : 0x8000B002;
    EXPECT_EQ(token.enroll(static_cast<std::uint8_t>(number), record), expected);
  }

  void erase() {
    const unsigned number = upTo(kSlotCount + 1);
    const bool exists = number >= 1 && number <= kSlotCount;
    const bool refused = exists && slots[number].fileGone;
    EXPECT_EQ(KelmTrovaDeleteFingerPrint(&token.connection, static_cast<std::uint8_t>(number)), !exists   ? 0x8000B002
                                                                                                : refused ? 0x80009901
                                                                                                          : 0);
    if (exists && !refused) {
      slots[number] = {};
    }
  }

  // The status of the comparison with one slot.
  unsigned compare(const ModelSlot &slot) const {
    const unsigned inFile = !slot.finger ? 0x6A14 : slot.finger == live ? 0x9000 : 0x6A21;
    return slot.entry.enrolled == 0 ? 0x6A12 : slot.fileGone ? 0x6A13 : inFile;
  }

  // The status of the comparison with a slot, or with all (0); `matched` becomes the slot.
  unsigned compareAny(unsigned &matched) const {
    if (matched != 0) {
      return compare(slots[matched]);
    }
    unsigned verdict = 0x6A12;
    for (matched = 1; matched <= kSlotCount; ++matched) {
      const unsigned status = compare(slots[matched]);
      if (status == 0x9000) {
        return status;
      }
      verdict = status == 0x6A21 ? status : verdict;
    }
    return verdict;
  }

  // The result of a counted match; `left` is what must come out, if anything.
  std::uint64_t expectMatch(unsigned &matched, std::uint64_t mismatch, unsigned &left) {
    if (matched > kSlotCount) {
      return 0x8000B002;
    }
    if (tries > 0) {
      const unsigned status = live ? compareAny(matched) : 0x6A11;
      if (status != 0x6A21) {
        tries = status == 0x9000 ? kMaxTries : tries;
        return status == 0x9000 ? 0 : 0x80000000 | status;
      }
      --tries;
    }
    left = tries;
    blockRecorded = blockRecorded || tries == 0;
    return tries == 0 ? 0x80006983 : mismatch;
  }

  // Verification of a slot, or identification (0).
  void match() {
    const auto number = static_cast<std::uint8_t>(upTo(1) ? 0 : 1 + upTo(kSlotCount));
    const auto mode = static_cast<std::uint8_t>(upTo(1));
    unsigned matched = number;
    unsigned expectedLeft = 99;
    const std::uint64_t expected = expectMatch(matched, number ? 0x80006A21 : 0x80006A2F, expectedLeft);
    std::uint8_t left = 99;
    std::uint8_t slot = number;
    EXPECT_EQ(number ? KelmTrovaFeatureVerify(&token.connection, mode, number, &left)
                     : KelmTrovaFeatureIdentify(&token.connection, mode, &slot, &left),
              expected);
    EXPECT_EQ(left, expectedLeft);
    EXPECT_EQ(slot, expected == 0 ? matched : number);
  }

  void checkMemory() {
    kelm::test::Entries index(kSlotCount);
    ASSERT_EQ(KelmTrovaReadIndexFile(&token.connection, reinterpret_cast<std::uint8_t *>(index.data())), 0U);
    std::set<std::uint16_t> files;
    for (unsigned number = 1; number <= kSlotCount; ++number) {
      const ModelSlot &slot = slots[number];
      EXPECT_EQ(std::memcmp(&index[number - 1], &slot.entry, sizeof slot.entry), 0) << number;
      if (slot.entry.fid != 0 && !slot.fileGone) {
        files.insert(__builtin_bswap16(slot.entry.fid));
      }
    }
    EXPECT_EQ(token.templateFiles(), files);
    std::array<std::uint8_t, 0x80> bytes;
    ASSERT_GE(simulatorReadFile(token.connection.hDevice, 0x0020, bytes.data(), bytes.size()), 3);
    EXPECT_EQ(bytes[1] | bytes[2] << 8, counter);
    ASSERT_GE(simulatorReadFile(token.connection.hDevice, 0x0040, bytes.data(), bytes.size()), 0x6C);
    EXPECT_EQ(bytes[0x6A], blockRecorded ? 4 : 0);
  }

  void takeStep() {
    using Step = void (RandomWalk::*)();
    constexpr Step kSteps[] = {&RandomWalk::enroll,     &RandomWalk::enroll,     &RandomWalk::enroll,
                               &RandomWalk::erase,      &RandomWalk::erase,      &RandomWalk::match,
                               &RandomWalk::match,      &RandomWalk::match,      &RandomWalk::reopen,
                               &RandomWalk::takeFinger, &RandomWalk::takeFinger, &RandomWalk::loseFile,
                               &RandomWalk::unblock};
    (this->*kSteps[upTo(std::size(kSteps) - 1)])();
    checkMemory();
  }

  std::mt19937 random{GetParam()};
  kelm::test::SimulatedToken token{{kSlotCount, GetParam(), kMaxTries, nullptr}};
  // The model; the slots by their numbers.
  std::array<ModelSlot, kSlotCount + 1> slots;
  unsigned counter = GetParam();
  unsigned tries = kMaxTries;
  bool blockRecorded = false;
  std::optional<unsigned> live;
};

TEST_P(RandomWalk, TokenAndModelStayTogether) {
  for (int step = 0; step < 2000 && !HasFailure(); ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    takeStep();
  }
  // The walk passed the counter values that its start was chosen for.
  EXPECT_GE(counter, std::min(GetParam() + 6U, 0x800U));
}

// Beyond 0x01F8 would come the file of the master file; 0x07FF is the last value that gives a file.
INSTANTIATE_TEST_SUITE_P(FromCounter, RandomWalk, testing::Values<std::uint16_t>(0x002A, 0x01F6, 0x07FC));

}  // namespace
