// SPDX-License-Identifier: Apache-2.0
#include "devices/trace/words.h"

#include <cstdio>

namespace kelm::trace {
namespace {

constexpr std::size_t kHeader = 4, kDataStart = 5;

// What a name goes on with: nothing, P2, or the FID in P1 and P2 or in the data.
enum class Detail { kNone, kP2, kFidInHeader, kFidInData };

struct CommandWords {
  std::uint8_t cla, ins;
  int p1;  // -1 for any
  const char *name;
  Detail detail = Detail::kNone;
};

constexpr CommandWords kCommands[] = {
    {0x80, 0xFA, 0x00, "capture"},
    {0x80, 0xFA, 0x01, "self-test"},
    {0x80, 0xFA, 0x02, "device information"},
    {0x80, 0xFB, -1, "extract features into buffer", Detail::kP2},
    {0x80, 0xFC, -1, "enroll into file", Detail::kFidInHeader},
    {0x80, 0xFD, 0x26, "match without counting tries, slot", Detail::kP2},
    {0x80, 0xFD, -1, "match, slot", Detail::kP2},
    {0x80, 0xFE, 0x00, "set verify mode"},
    {0x80, 0xFE, 0x01, "get verify mode"},
    {0x80, 0xF9, 0x00, "get finger-cache state"},
    {0x80, 0xF9, 0x01, "clear finger cache"},
    {0x80, 0xF9, 0x02, "switch finger cache on"},
    {0x80, 0xF9, 0x03, "switch finger cache off"},
    {0x80, 0xF9, 0x04, "get slot count"},
    {0x80, 0xF9, 0x05, "get time-out"},
    {0x80, 0xF9, 0x06, "set time-out"},
    {0x80, 0xF9, 0x07, "get security level"},
    {0x80, 0xF9, 0x08, "set security level"},
    {0x80, 0xF9, 0x09, "get security state"},
    {0x80, 0xF9, 0x0A, "get image gain"},
    {0x80, 0xF9, 0x0B, "set image gain"},
    {0x80, 0xF7, -1, "image block"},
    {0x80, 0xE0, -1, "create file", Detail::kFidInHeader},
    {0x00, 0x20, -1, "verify PIN"},
    {0x00, 0x24, -1, "change PIN"},
    {0x00, 0x2C, -1, "unblock PIN"},
    {0x00, 0xA4, -1, "select file", Detail::kFidInData},
    {0x00, 0xB0, -1, "read binary"},
    {0x00, 0xD0, -1, "write binary"},
    {0x00, 0xD6, -1, "update binary"},
    {0x00, 0xE4, -1, "delete file", Detail::kFidInData},
    {0x00, 0xC0, -1, "get response"},
};

struct StatusWords {
  std::uint16_t status, mask;
  const char *words;  // %u takes what the mask leaves
};

constexpr StatusWords kStatuses[] = {
    {0x9000, 0xFFFF, "done"},
    {0x6100, 0xFFFF, "256 bytes or more wait"},
    {0x6100, 0xFF00, "%u bytes wait"},
    {0x63C0, 0xFFF0, "no match, %u tries left"},
    {0x6581, 0xFFFF, "memory failure"},
    {0x6700, 0xFFFF, "wrong length"},
    {0x6982, 0xFFFF, "security status not satisfied"},
    {0x6983, 0xFFFF, "blocked"},
    {0x6985, 0xFFFF, "conditions of use not satisfied"},
    {0x6986, 0xFFFF, "no file selected"},
    {0x6A80, 0xFFFF, "incorrect data"},
    {0x6A82, 0xFFFF, "file not found"},
    {0x6A84, 0xFFFF, "not enough memory"},
    {0x6A86, 0xFFFF, "wrong P1-P2"},
    {0x6A89, 0xFFFF, "file exists"},
    {0x6AFA, 0xFFFF, "self-test failed"},
    {0x6B00, 0xFFFF, "wrong P1-P2"},
    {0x6C00, 0xFF00, "wrong Le, %u is right"},
    {0x6D00, 0xFFFF, "instruction not supported"},
    {0x6E00, 0xFFFF, "class not supported"},
    {0x6F00, 0xFFFF, "no diagnosis"},
};

struct FileWords {
  unsigned fid;
  const char *name;
};

constexpr FileWords kFiles[] = {
    {0x0020, ", the FID counter"}, {0x0040, ", the block record"}, {0x0520, ", the template index"}};

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
    case Detail::kP2:
      return numbered(" %u", command[3]);
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

}  // namespace kelm::trace
