// SPDX-License-Identifier: Apache-2.0
#include "apdu/names.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "kelmtrova/token.h"

namespace kelm::apdu {
namespace {

using ByteView = std::span<const std::uint8_t>;

constexpr std::size_t kHeader = 4, kDataStart = 5;

// Of the commands about a PIN that this system does not send itself.
constexpr std::uint8_t kChangePin = 0x24, kUnblockPin = 0x2C;

// What a name goes on with: nothing, a buffer or slot in P2, or the FID in P1 and P2 or in the data.
enum class Detail { kNone, kBuffer, kSlot, kFidInHeader, kFidInData };

struct CommandWords {
  std::uint8_t cla, ins;
  int p1;  // -1 for any
  const char *name;
  Detail detail = Detail::kNone;
};

constexpr CommandWords kCommands[] = {
    {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x00, "capture"},
    {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x01, "self-test"},
    {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x02, "device information"},
    {KELM_CLA_TOKEN, KELM_INS_EXTRACT, -1, "extract features into buffer", Detail::kBuffer},
    {KELM_CLA_TOKEN, KELM_INS_ENROLL, -1, "enroll into file", Detail::kFidInHeader},
    {KELM_CLA_TOKEN, KELM_INS_MATCH, 0x26, "match without counting tries", Detail::kSlot},
    {KELM_CLA_TOKEN, KELM_INS_MATCH, -1, "match", Detail::kSlot},
    {KELM_CLA_TOKEN, KELM_INS_VERIFY_MODE, 0x00, "set verify mode"},
    {KELM_CLA_TOKEN, KELM_INS_VERIFY_MODE, 0x01, "get verify mode"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x00, "get finger-cache state"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x01, "clear finger cache"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x02, "switch finger cache on"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x03, "switch finger cache off"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x04, "get slot count"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x05, "get time-out"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x06, "set time-out"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x07, "get security level"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x08, "set security level"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x09, "get security state"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x0A, "get image gain"},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x0B, "set image gain"},
    {KELM_CLA_TOKEN, KELM_INS_DOWNLOAD, -1, "image block"},
    {KELM_CLA_TOKEN, KELM_INS_CREATE_FILE, -1, "create file", Detail::kFidInHeader},
    {KELM_CLA_ISO, KELM_INS_VERIFY, -1, "verify PIN"},
    {KELM_CLA_ISO, kChangePin, -1, "change PIN"},
    {KELM_CLA_ISO, kUnblockPin, -1, "unblock PIN"},
    {KELM_CLA_ISO, KELM_INS_SELECT, 0x04, "select by name"},
    {KELM_CLA_ISO, KELM_INS_SELECT, -1, "select file", Detail::kFidInData},
    {KELM_CLA_ISO, KELM_INS_READ_BINARY, -1, "read binary"},
    {KELM_CLA_ISO, KELM_INS_WRITE_BINARY, -1, "write binary"},
    {KELM_CLA_ISO, KELM_INS_UPDATE_BINARY, -1, "update binary"},
    {KELM_CLA_ISO, KELM_INS_DELETE_FILE, -1, "delete file", Detail::kFidInData},
    {KELM_CLA_ISO, KELM_INS_GET_RESPONSE, -1, "get response"},
};

struct StatusWords {
  std::uint16_t status, mask;
  const char *words;  // %u takes what the mask leaves
};

constexpr StatusWords kStatuses[] = {
    {KELM_SW_SUCCESS, 0xFFFF, "done"},
    {KELM_SW_MORE_DATA, 0xFFFF, "256 bytes or more wait"},
    {KELM_SW_MORE_DATA | 1, 0xFFFF, "1 byte waits"},
    {KELM_SW_MORE_DATA, 0xFF00, "%u bytes wait"},
    {KELM_SW_NO_MATCH, 0xFFFF, "no match, no tries left"},
    {KELM_SW_NO_MATCH | 1, 0xFFFF, "no match, 1 try left"},
    {KELM_SW_NO_MATCH, 0xFFF0, "no match, %u tries left"},
    {KELM_SW_MEMORY_FAILURE, 0xFFFF, "memory failure"},
    {KELM_SW_WRONG_LENGTH, 0xFFFF, "wrong length"},
    {0x6881, 0xFFFF, "logical channel not supported"},
    {0x6882, 0xFFFF, "secure messaging not supported"},
    {0x6884, 0xFFFF, "chaining not supported"},
    {0x6981, 0xFFFF, "not that kind of file"},
    {KELM_SW_SECURITY_STATUS, 0xFFFF, "security status not satisfied"},
    {KELM_SW_BLOCKED, 0xFFFF, "blocked"},
    {0x6985, 0xFFFF, "conditions of use not satisfied"},
    {0x6986, 0xFFFF, "no file selected"},
    {KELM_SW_VERIFY_MODE, 0xFFFF, "verify mode refused"},
    {KELM_SW_TEST_NO_MATCH, 0xFFFF, "no match"},
    {KELM_SW_INCORRECT_DATA, 0xFFFF, "incorrect data"},
    {KELM_SW_FILE_NOT_FOUND, 0xFFFF, "file not found"},
    {0x6A84, 0xFFFF, "not enough memory"},
    {0x6A86, 0xFFFF, "wrong P1-P2"},
    {0x6A89, 0xFFFF, "file exists"},
    {KELM_SW_SELF_TEST, 0xFFFF, "self-test failed"},
    {KELM_SW_WRONG_P1P2, 0xFFFF, "wrong P1-P2"},
    {0x6C00, 0xFFFF, "wrong Le, 256 is right"},
    {0x6C00, 0xFF00, "wrong Le, %u is right"},
    {0x6D00, 0xFFFF, "instruction not supported"},
    {0x6E00, 0xFFFF, "class not supported"},
    {0x6F00, 0xFFFF, "no diagnosis"},
};

struct FileWords {
  unsigned fid;
  const char *name;
};

constexpr FileWords kFiles[] = {{KELM_FID_COUNTER, ", the FID counter"},
                                {KELM_FID_BLOCK_RECORD, ", the block record"},
                                {KELM_FID_TEMPLATE_INDEX, ", the template index"}};

std::string numbered(const char *format, unsigned number) {
  char text[64];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

std::string fileName(std::uint8_t high, std::uint8_t low) {
  const unsigned fid = static_cast<unsigned>(high) << 8 | low;
  std::string name = numbered(" %04X", fid);
  for (const FileWords &entry : kFiles) {
    if (entry.fid == fid) name += entry.name;
  }
  return name;
}

std::string detail(Detail kind, ByteView command) {
  switch (kind) {
    case Detail::kBuffer:
      return numbered(" %u", command[3]);
    case Detail::kSlot:
      return command[3] == 0 ? ", all slots" : numbered(", slot %u", command[3]);
    case Detail::kFidInHeader:
      return fileName(command[2], command[3]);
    case Detail::kFidInData:
      return command.size() < kDataStart + 2 ? "" : fileName(command[kDataStart], command[kDataStart + 1]);
    default:
      return "";
  }
}

}  // namespace

std::string commandName(ByteView command) {
  if (command.size() < kHeader) return "too short for a command";
  for (const CommandWords &entry : kCommands) {
    if (entry.cla == command[0] && entry.ins == command[1] && (entry.p1 < 0 || entry.p1 == command[2]))
      return entry.name + detail(entry.detail, command);
  }
  return "unknown command";
}

std::string statusWords(std::uint16_t status) {
  for (const StatusWords &entry : kStatuses) {
    if ((status & entry.mask) == entry.status) return numbered(entry.words, status & ~unsigned{entry.mask});
  }
  return "";
}

bool carriesPin(std::uint8_t instruction) {
  // An odd instruction is the same command with its data in BER-TLV.
  constexpr std::uint8_t kAboutPins[] = {KELM_INS_VERIFY, kChangePin, kUnblockPin};
  return std::ranges::find(kAboutPins, instruction & 0xFE) != std::end(kAboutPins);
}

}  // namespace kelm::apdu
