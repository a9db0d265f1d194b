// SPDX-License-Identifier: Apache-2.0
// Enrollment, the template index and deletion.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kelmtrova/token.h"
#include "link/exchange.h"
#include "token/command.h"

namespace kelm::token {
namespace {

using link::highByte;
using link::lowByte;
using link::Response;

constexpr std::uint16_t kEntryLength = sizeof(TemplateIndexEntry);
constexpr std::uint16_t kFirstCounter = 1;
constexpr std::uint16_t kLastCounter = 0x7FF;  // beyond it, FIDs would repeat
constexpr std::int32_t kDone = 1;              // of a file function

// File control parameters of a template file: type, size 904 (big-endian), access bytes.
constexpr std::uint8_t kTemplateFile[] = {0x28, 0x03, 0x88, 0xEF, 0xEF, 0xFF, 0xFF};

// Enrollment's own outcomes, next to the token's status words.
constexpr auto kCreateFailed = static_cast<std::uint16_t>(KELM_RESULT_CREATE_FILE);
constexpr auto kEraseFailed = static_cast<std::uint16_t>(KELM_RESULT_ERASE_FILE);
constexpr auto kEntryNotWritten = static_cast<std::uint16_t>(KELM_RESULT_INDEX_WRITE);
constexpr auto kSetupFailed = static_cast<std::uint16_t>(KELM_RESULT_ENROLL_SETUP);
constexpr auto kIndexNotRead = static_cast<std::uint16_t>(KELM_RESULT_INDEX_READ);

constexpr std::uint16_t kEnrollStatus[] = {kCreateFailed,           kEraseFailed,  kEntryNotWritten,
                                           KELM_SW_SECURITY_STATUS, kSetupFailed,  KELM_SW_ENROLL_6A10,
                                           KELM_SW_FILE_NOT_FOUND,  kIndexNotRead, KELM_SW_NOT_LOCKED};

struct WipeAndRelease {
  std::uint8_t slots;
  void operator()(TemplateIndexEntry *index) const {
    explicit_bzero(index, std::size_t{slots} * kEntryLength);
    std::free(index);
  }
};
using Index = std::unique_ptr<TemplateIndexEntry, WipeAndRelease>;

Index takeIndex(std::uint8_t slots) {
  const std::size_t length = std::size_t{slots} * kEntryLength;
  return Index(static_cast<TemplateIndexEntry *>(std::malloc(length)), WipeAndRelease{slots});
}

// Does the work of KelmTrovaReadIndexFile. `roomFor` is the slot count that the buffer was made for, 0 when the caller
// guarantees its size. The token is asked for the count again: when the answer differs, nothing is read.
std::uint64_t readIndex(const SCardConnection *handle, std::uint8_t *buffer, std::uint8_t roomFor) {
  MYTRACE("Enter KelmTrovaReadIndexFile");
  std::uint8_t slots = 0;
  const std::uint64_t counted = KelmTrovaGetMaxTmpltNum(handle, &slots);
  if (counted != KELM_RESULT_OK) {
    return counted;
  }
  if (roomFor != 0 && slots != roomFor) {
    return KELM_RESULT_INDEX_READ;
  }
  const auto length = static_cast<std::uint16_t>(slots * kEntryLength);
  return SCardReadBin(handle, KELM_FID_TEMPLATE_INDEX, 0, buffer, length) == kDone ? KELM_RESULT_OK
                                                                                   : KELM_RESULT_INDEX_READ;
}

bool writeEntry(const SCardConnection *handle, std::uint8_t slot, const TemplateIndexEntry &entry) {
  const auto *bytes = reinterpret_cast<const std::uint8_t *>(&entry);
  return SCardUpdateBin(handle, KELM_FID_TEMPLATE_INDEX, std::uint64_t{slot - 1U} * kEntryLength, bytes,
                        kEntryLength) == kDone;
}

bool createTemplateFile(const SCardConnection *handle, std::uint16_t fid) {
  return SCardCreateFile(handle, fid, kTemplateFile, sizeof kTemplateFile) == kDone;
}

struct Enrollment {
  const SCardConnection *handle;
  std::uint8_t slot;
  const TemplateIndexEntry *record;
  TemplateIndexEntry *entry;  // the slot's, in the index buffer
  std::uint16_t fid;          // the template file's
  bool isNew;                 // the file was created by this call
};

// Erases the template file after a failure: `reason`, or that it could not be erased.
std::uint16_t eraseFile(const Enrollment &enrollment, std::uint16_t reason) {
  return SCardEraseEF(enrollment.handle, enrollment.fid) == kDone ? reason : kEraseFailed;
}

// Finds the slot's template file or creates one: KELM_SW_SUCCESS, or why not.
std::uint16_t chooseFile(Enrollment &enrollment) {
  if (enrollment.entry->fid != 0) {
    enrollment.fid = link::swapBytes(enrollment.entry->fid);
    return KELM_SW_SUCCESS;
  }
  std::uint16_t counter = 0;
  if (token_get_current_fid(enrollment.handle, &counter) != KELM_RESULT_OK || counter < kFirstCounter ||
      counter > kLastCounter) {
    return kSetupFailed;
  }
  enrollment.fid = static_cast<std::uint16_t>(counter << KELM_FID_SHIFT);
  if (!createTemplateFile(enrollment.handle, enrollment.fid)) {
    return kCreateFailed;
  }
  enrollment.isNew = true;
  if (token_set_next_fid(enrollment.handle, static_cast<std::uint16_t>(counter + 1)) != KELM_RESULT_OK) {
    // The next enrollment would find the file in its way.
    return eraseFile(enrollment, kSetupFailed);
  }
  return KELM_SW_SUCCESS;
}

// Not inlined: its answer would take stack beside those of the file functions.
[[gnu::noinline]] std::uint16_t sendEnroll(const Enrollment &enrollment) {
  std::uint8_t command[kCommandRoom] = {KELM_CLA_TOKEN, KELM_INS_ENROLL, highByte(enrollment.fid),
                                        lowByte(enrollment.fid), 0x02};
  Response response;
  const std::uint16_t retV = link::exchange(enrollment.handle, command, link::kCommandHeaderLength, response);
  traceExit(KELM_EXIT_TRACE(KelmTrovaFeatureEnroll), retV, response);
  return retV;
}

// Writes the slot's entry: `retV` when that succeeds; otherwise erases the template file.
std::uint16_t keepEntry(const Enrollment &enrollment, bool enrolled, std::uint16_t retV) {
  TemplateIndexEntry &entry = *enrollment.entry;
  entry = {};
  entry.fid = link::toBigEndian(enrollment.fid);
  if (enrolled) {
    entry.enrolled = 1;
    entry.tag = enrollment.record->tag;
    std::copy_n(enrollment.record->userData, sizeof entry.userData, entry.userData);
  }
  if (writeEntry(enrollment.handle, enrollment.slot, entry)) {
    return retV;
  }
  return eraseFile(enrollment, kEntryNotWritten);
}

// Erases a new file and sets the counter back, after the token refused because it wants its PIN first.
std::uint16_t takeBack(const Enrollment &enrollment, std::uint16_t retV) {
  if (SCardEraseEF(enrollment.handle, enrollment.fid) != kDone) {
    return kEraseFailed;
  }
  token_set_next_fid(enrollment.handle, static_cast<std::uint16_t>(enrollment.fid >> KELM_FID_SHIFT));
  return retV;
}

// Under the lock: ENROLL, and what its status word asks for.
std::uint16_t enroll(const Enrollment &enrollment) {
  const std::uint16_t retV = sendEnroll(enrollment);
  if (retV == KELM_SW_SUCCESS) {
    return keepEntry(enrollment, true, retV);
  }
  if (enrollment.isNew) {
    return retV == KELM_SW_SECURITY_STATUS ? takeBack(enrollment, retV) : keepEntry(enrollment, false, retV);
  }
  if (retV == KELM_SW_FILE_NOT_FOUND && !createTemplateFile(enrollment.handle, enrollment.fid)) {
    return kCreateFailed;
  }
  return retV;
}

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::uint64_t KelmTrovaReadIndexFile(const SCardConnection *handle, std::uint8_t *buffer) {
  return readIndex(handle, buffer, 0);
}

std::uint64_t KelmTrovaFeatureEnroll(const SCardConnection *handle, std::uint8_t slot,
                                     const TemplateIndexEntry *record) {
  MYTRACE("Enter KelmTrovaFeatureEnroll");
  std::uint8_t slots = 0;
  if (KelmTrovaGetMaxTmpltNum(handle, &slots) != KELM_RESULT_OK) {
    return KELM_RESULT_ENROLL_SETUP;
  }
  if (slot == 0 || slot > slots || record == nullptr) {
    return KELM_RESULT_ARGUMENT;
  }
  const Index index = takeIndex(slots);
  if (!index) {
    return KELM_RESULT_MEMORY;
  }
  Enrollment enrollment = {handle, slot, record, index.get() + slot - 1, 0, false};
  const bool read = readIndex(handle, reinterpret_cast<std::uint8_t *>(index.get()), slots) == KELM_RESULT_OK;
  std::uint16_t retV = read ? chooseFile(enrollment) : kIndexNotRead;
  std::uint64_t lock = 0;
  if (retV == KELM_SW_SUCCESS) {
    lock = MyLock(handle);
    if (lock != 0) {
      retV = enroll(enrollment);
    } else {
      // No entry will name a new file.
      retV = enrollment.isNew ? eraseFile(enrollment, KELM_SW_NOT_LOCKED) : std::uint16_t{KELM_SW_NOT_LOCKED};
    }
  }
  MyUnlock(lock);
  return resultOf(retV, kEnrollStatus);
}

std::uint64_t KelmTrovaDeleteFingerPrint(const SCardConnection *handle, std::uint8_t slot) {
  MYTRACE("Enter KelmTrovaDeleteFingerPrint");
  std::uint8_t slots = 0;
  const std::uint64_t counted = KelmTrovaGetMaxTmpltNum(handle, &slots);
  if (counted != KELM_RESULT_OK) {
    return counted;
  }
  if (slot == 0 || slot > slots) {
    return KELM_RESULT_ARGUMENT;
  }
  const Index index = takeIndex(slots);
  if (!index) {
    return KELM_RESULT_MEMORY;
  }
  const std::uint64_t read = readIndex(handle, reinterpret_cast<std::uint8_t *>(index.get()), slots);
  if (read != KELM_RESULT_OK) {
    return read;
  }
  TemplateIndexEntry &entry = index.get()[slot - 1];
  if (entry.fid == 0) {
    return KELM_RESULT_OK;
  }
  if (SCardEraseEF(handle, kelm::link::swapBytes(entry.fid)) != kDone) {
    return KELM_RESULT_DELETE;
  }
  entry = {};
  return writeEntry(handle, slot, entry) ? KELM_RESULT_OK : KELM_RESULT_DELETE;
}
