// A random walk through the life of a token, against a model of it in plain variables.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "kelmtrova/token.h"
#include "platform/simulator.h"

namespace {

constexpr unsigned kSlotCount = 7;
constexpr unsigned kMaxTries = 4;
constexpr const char *kFingers[] = {"left thumb", "left index", "right thumb", "right index"};

struct ModelSlot {
  std::uint16_t fid = 0;
  bool enrolled = false;
  bool fileGone = false;
  std::optional<unsigned> finger;  // what the template file holds
  std::uint8_t tag = 0;
  std::array<std::uint8_t, 16> userData{};
};

struct Model {
  std::array<ModelSlot, kSlotCount + 1> slots;  // by slot number
  unsigned counter = 0;
  unsigned tries = kMaxTries;
  bool blockRecorded = false;
  bool asksForPin = false;
  bool pinVerified = false;
  std::optional<unsigned> live;

  bool refusesForPin() const { return asksForPin && !pinVerified; }
};

// In memory where the system has such a file system: each step is synchronised with the disk, which takes its time.
std::string scratchFolder() {
  const std::filesystem::path memory = "/dev/shm";
  const std::filesystem::path base =
      access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
  std::string name = (base / "kelmtrova.XXXXXX").string();
  EXPECT_NE(mkdtemp(name.data()), nullptr);
  return name;
}

class RandomWalk : public testing::TestWithParam<std::uint16_t> {
 protected:
  RandomWalk() : random(GetParam()), folder(scratchFolder()) {
    const SimulatorPersonalisation personalisation = {kSlotCount, GetParam(), kMaxTries, "1234"};
    EXPECT_EQ(simulatorCreate((folder / "token.db").c_str(), &personalisation), 0) << simulatorError();
    model.counter = GetParam();
    reopen();
  }
  ~RandomWalk() override {
    simulatorClose(connection.hDevice);
    std::filesystem::remove_all(folder);
  }

  unsigned upTo(unsigned most) { return static_cast<unsigned>(random() % (most + 1)); }

  void reopen() {
    simulatorClose(connection.hDevice);
    connection = {3, {}, simulatorOpen((folder / "token.db").c_str()), upTo(2)};
    ASSERT_NE(connection.hDevice, 0U) << simulatorError();
    model.live.reset();
    model.pinVerified = false;
  }

  void takeFinger() {
    const unsigned finger = upTo(std::size(kFingers) - 1);
    ASSERT_EQ(simulatorPlaceFinger(connection.hDevice, kFingers[finger], std::strlen(kFingers[finger])), 0);
    ASSERT_EQ(KelmTrovaCaptureImage(&connection), 0U);
    ASSERT_EQ(KelmTrovaFeatureExtract(&connection, 1), 0U);
    model.live = finger;
  }

  void changePin() {
    if (upTo(1)) {
      model.asksForPin = !model.asksForPin;
      ASSERT_EQ(simulatorRequirePin(connection.hDevice, model.asksForPin), 0);
    } else {
      constexpr std::uint8_t kVerify[] = {0x00, 0x20, 0x00, 0x00, 4, '1', '2', '3', '4'};
      std::array<std::uint8_t, 256> answer;
      std::uint64_t length = answer.size();
      std::array<std::uint8_t, sizeof kVerify> command;
      std::memcpy(command.data(), kVerify, sizeof kVerify);
      ASSERT_EQ(SCardAPDU(&connection, command.data(), command.size(), answer.data(), &length), 0x9000U);
      model.pinVerified = true;
    }
  }

  void loseFile() {
    ModelSlot &slot = model.slots[1 + upTo(kSlotCount - 1)];
    if (slot.fid == 0 || slot.fileGone || (slot.finger && model.refusesForPin())) return;
    ASSERT_EQ(SCardEraseEF(&connection, slot.fid), 1);
    slot.fileGone = true;
    slot.finger.reset();
  }

  void unblock() {
    ASSERT_EQ(simulatorUnblock(connection.hDevice), 0);
    model.tries = kMaxTries;
    model.blockRecorded = false;
  }

  // Into a slot that already has a file.
  std::uint64_t expectEnrolledAgain(ModelSlot &slot) {
    if (model.refusesForPin()) return 0x80006982;
    if (slot.fileGone) {
      slot.fileGone = false;
      return 0x80006A82;
    }
    if (!model.live) return 0x80006A10;
    slot.enrolled = true;
    slot.finger = model.live;
    return 0;
  }

  std::uint64_t expectEnrolled(ModelSlot &slot) {
    if (slot.fid) return expectEnrolledAgain(slot);
    const unsigned counter = model.counter == 0x1F8 ? 0x1F9 : model.counter;
    if (counter < 1 || counter > 0x7FF) return 0x80006A0F;
    model.counter = counter;
    if (model.refusesForPin()) return 0x80006982;
    ++model.counter;
    slot.fid = static_cast<std::uint16_t>(counter << 5);
    return expectEnrolledAgain(slot);
  }

  void enroll() {
    const unsigned number = upTo(kSlotCount + 1);
    TemplateIndexEntry record = {9, static_cast<std::uint8_t>(random()), 0x9999, {}};
    for (std::uint8_t &byte : record.userData) byte = static_cast<std::uint8_t>(random());
    std::uint64_t expected = 0x8000B002;
    if (number >= 1 && number <= kSlotCount) {
      ModelSlot &slot = model.slots[number];
      expected = expectEnrolled(slot);
      if (expected == 0) {
        slot.tag = record.tag;
        std::memcpy(slot.userData.data(), record.userData, sizeof record.userData);
      }
    }
    EXPECT_EQ(KelmTrovaFeatureEnroll(&connection, static_cast<std::uint8_t>(number), &record), expected);
  }

  void erase() {
    const unsigned number = upTo(kSlotCount + 1);
    std::uint64_t expected = 0x8000B002;
    if (number >= 1 && number <= kSlotCount) {
      ModelSlot &slot = model.slots[number];
      const bool refused = slot.fid && (slot.fileGone || (slot.finger && model.refusesForPin()));
      expected = refused ? 0x80009901 : 0;
      if (!refused) slot = {};
    }
    EXPECT_EQ(KelmTrovaDeleteFingerPrint(&connection, static_cast<std::uint8_t>(number)), expected);
  }

  // The status of the comparison with one slot.
  unsigned compare(const ModelSlot &slot) const {
    if (!slot.enrolled) return 0x6A12;
    if (slot.fileGone) return 0x6A13;
    if (!slot.finger) return 0x6A14;
    return slot.finger == model.live ? 0x9000 : 0x6A21;
  }

  // The status of the comparison with a slot, or with all (0); the slot that matched.
  unsigned compareAny(unsigned number, unsigned &matched) const {
    matched = number;
    if (number) return compare(model.slots[number]);
    unsigned verdict = 0x6A12;
    for (matched = 1; matched <= kSlotCount; ++matched) {
      const unsigned status = compare(model.slots[matched]);
      if (status == 0x9000) return status;
      if (status == 0x6A21) verdict = status;
    }
    return verdict;
  }

  // The result of a counted match; `tries` is what must come out, if anything.
  std::uint64_t expectMatch(unsigned number, std::uint64_t mismatch, unsigned &matched, unsigned &tries) {
    const auto blocked = [&] {
      tries = 0;
      model.blockRecorded = true;
      return 0x80006983;
    };
    if (number > kSlotCount) return 0x8000B002;
    if (model.tries == 0) return blocked();
    if (!model.live) return 0x80006A11;
    const unsigned status = compareAny(number, matched);
    if (status == 0x9000) {
      model.tries = kMaxTries;
      return 0;
    }
    if (status != 0x6A21) return 0x80000000 | status;
    if (--model.tries == 0) return blocked();
    tries = model.tries;
    return mismatch;
  }

  // Verification of a slot, or identification (0).
  void match() {
    const auto number = static_cast<std::uint8_t>(upTo(1) ? 0 : 1 + upTo(kSlotCount));
    const auto mode = static_cast<std::uint8_t>(upTo(1));
    unsigned matched = 0;
    unsigned expectedTries = 99;
    const std::uint64_t expected = expectMatch(number, number ? 0x80006A21 : 0x80006A2F, matched, expectedTries);
    std::uint8_t tries = 99;
    std::uint8_t slot = number;
    EXPECT_EQ(number ? KelmTrovaFeatureVerify(&connection, mode, number, &tries)
                     : KelmTrovaFeatureIdentify(&connection, mode, &slot, &tries),
              expected);
    EXPECT_EQ(tries, expectedTries);
    EXPECT_EQ(slot, expected == 0 ? matched : number);
  }

  void checkIndex() {
    std::array<TemplateIndexEntry, kSlotCount> index;
    ASSERT_EQ(KelmTrovaReadIndexFile(&connection, reinterpret_cast<std::uint8_t *>(index.data())), 0U);
    for (unsigned number = 1; number <= kSlotCount; ++number) {
      const ModelSlot &slot = model.slots[number];
      const TemplateIndexEntry &entry = index[number - 1];
      EXPECT_EQ(entry.enrolled, slot.enrolled);
      EXPECT_EQ(Exchange(entry.fid), slot.fid);
      EXPECT_EQ(entry.tag, slot.tag);
      EXPECT_EQ(std::memcmp(entry.userData, slot.userData.data(), sizeof entry.userData), 0);
    }
  }

  void checkMemory() {
    std::set<std::uint16_t> expected = {0x0020, 0x0040, 0x0520};
    for (const ModelSlot &slot : model.slots) {
      if (slot.fid && !slot.fileGone) expected.insert(slot.fid);
    }
    std::array<std::uint16_t, 32> fids;
    const int count = simulatorListFiles(connection.hDevice, fids.data(), fids.size());
    EXPECT_EQ(std::set<std::uint16_t>(fids.begin(), fids.begin() + count), expected);
    std::array<std::uint8_t, 0x80> bytes;
    ASSERT_GE(simulatorReadFile(connection.hDevice, 0x0020, bytes.data(), bytes.size()), 3);
    EXPECT_EQ(bytes[1] | bytes[2] << 8, model.counter);
    ASSERT_GE(simulatorReadFile(connection.hDevice, 0x0040, bytes.data(), bytes.size()), 0x6C);
    EXPECT_EQ(bytes[0x6A], model.blockRecorded ? 4 : 0);
  }

  void takeStep() {
    using Step = void (RandomWalk::*)();
    constexpr Step kSteps[] = {&RandomWalk::enroll,     &RandomWalk::enroll,    &RandomWalk::enroll,
                               &RandomWalk::erase,      &RandomWalk::erase,     &RandomWalk::match,
                               &RandomWalk::match,      &RandomWalk::match,     &RandomWalk::takeFinger,
                               &RandomWalk::takeFinger, &RandomWalk::reopen,    &RandomWalk::loseFile,
                               &RandomWalk::unblock,    &RandomWalk::changePin, &RandomWalk::checkIndex};
    (this->*kSteps[upTo(std::size(kSteps) - 1)])();
    checkMemory();
  }

  std::mt19937 random;
  std::filesystem::path folder;
  SCardConnection connection{};
  Model model;
};

TEST_P(RandomWalk, TokenAndModelStayTogether) {
  for (int step = 0; step < 2000 && !HasFailure(); ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    takeStep();
  }
  checkIndex();
  // The walk went past the counter values for whose sake it began where it did.
  EXPECT_GE(model.counter, std::min(GetParam() + 6U, 0x800U));
}

// Beyond 0x01F8 would come the file of the master file; 0x07FF is the last value that gives a file.
INSTANTIATE_TEST_SUITE_P(FromCounter, RandomWalk, testing::Values<std::uint16_t>(0x002A, 0x01F6, 0x07FC));

}  // namespace
