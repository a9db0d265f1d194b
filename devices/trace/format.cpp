// SPDX-License-Identifier: Apache-2.0
#include "devices/trace/format.h"

#include <time.h>

#include <cstdio>
#include <vector>

#include "devices/trace/privacy.h"

namespace kelm::trace {
namespace {

constexpr std::uint64_t kNanoseconds = 1000000000;

template <typename... Values>
std::string formatted(const char *format, Values... values) {
  char text[64];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

class Text : public Format {
 public:
  std::string start() override { return ""; }

  std::string record(const Record &record) override {
    const auto seconds = static_cast<time_t>(record.nanoseconds / kNanoseconds);
    tm when{};
    gmtime_r(&seconds, &when);
    std::string text;
    if (day_ != when.tm_yday || device_ != record.device) {
      text += formatted("# %04d-%02d-%02d, times in UTC", when.tm_year + 1900, when.tm_mon + 1, when.tm_mday);
      text += formatted(", device %llX\n", static_cast<unsigned long long>(record.device));
    }
    day_ = when.tm_yday;
    device_ = record.device;
    const auto micro = static_cast<unsigned>(record.nanoseconds % kNanoseconds / 1000);
    text +=
        formatted("%02d:%02d:%02d.%06u  %c ", when.tm_hour, when.tm_min, when.tm_sec, micro, record.toCard ? '>' : '<');
    text += hexadecimal(record);
    if (!record.words.empty()) text.append("  (").append(record.words).append(")");
    return text + "\n";
  }

 private:
  // The status word is written as one number.
  static std::string hexadecimal(const Record &record) {
    constexpr std::size_t kPerLine = 32;
    const std::size_t bytes = record.toCard ? record.apdu.size() : record.apdu.size() - 2;
    std::string text;
    for (std::size_t i = 0; i < record.apdu.size(); ++i) {
      if (i == bytes + 1) {
        text += formatted("%02X", record.apdu[i]);
        continue;
      }
      if (i != 0) text += i % kPerLine == 0 && i < bytes ? "\n                   " : " ";
      text += formatted("%02X", record.apdu[i]);
    }
    return text;
  }

  int day_ = -1;
  std::uint64_t device_ = 0;
};

// Numbers in the order of this machine, as the formats want it: the first number of a file says which that is.
class Block {
 public:
  template <typename Number>
  Block &add(Number number) {
    bytes_.append(reinterpret_cast<const char *>(&number), sizeof number);
    return *this;
  }
  Block &text(std::string_view text) {
    bytes_.append(text);
    return pad();
  }
  Block &pad() {
    bytes_.append((4 - bytes_.size() % 4) % 4, '\0');
    return *this;
  }
  const std::string &bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

// An APDU with what tells Wireshark how to read it: tags and lengths of two bytes, high first.
std::string packet(const Record &record) {
  using namespace std::string_view_literals;
  constexpr std::string_view kDissector = "\0\x0C\0\x08iso7816\0"sv;
  constexpr std::string_view kDirection = "\0\x23\0\x04\0\0\0"sv;
  constexpr std::string_view kEnd = "\0\0\0\0"sv;
  std::string bytes(kDissector);
  bytes.append(kDirection);
  bytes += record.toCard ? '\0' : '\1';
  bytes.append(kEnd);
  bytes.append(reinterpret_cast<const char *>(record.apdu.data()), record.apdu.size());
  return bytes;
}

constexpr std::uint16_t kUpperPdu = 252;

class Pcap : public Format {
 public:
  std::string start() override {
    constexpr std::uint32_t kNanosecondMagic = 0xA1B23C4D, kLongest = 65535;
    return Block()
        .add(kNanosecondMagic)
        .add<std::uint16_t>(2)
        .add<std::uint16_t>(4)
        .add<std::uint64_t>(0)
        .add(kLongest)
        .add<std::uint32_t>(kUpperPdu)
        .bytes();
  }

  std::string record(const Record &record) override {
    const std::string data = packet(record);
    const auto length = static_cast<std::uint32_t>(data.size());
    return Block()
               .add(static_cast<std::uint32_t>(record.nanoseconds / kNanoseconds))
               .add(static_cast<std::uint32_t>(record.nanoseconds % kNanoseconds))
               .add(length)
               .add(length)
               .bytes() +
           data;
  }
};

class PcapNg : public Format {
 public:
  std::string start() override {
    constexpr std::uint32_t kSection = 0x0A0D0D0A, kByteOrder = 0x1A2B3C4D, kInterface = 1;
    constexpr std::uint16_t kTimeResolution = 9, kNanosecondExponent = 9;
    const std::string section = block(
        kSection, Block().add(kByteOrder).add<std::uint16_t>(1).add<std::uint16_t>(0).add<std::int64_t>(-1).bytes());
    const std::string interface = block(kInterface, Block()
                                                        .add(kUpperPdu)
                                                        .add<std::uint16_t>(0)
                                                        .add<std::uint32_t>(0)
                                                        .add(kTimeResolution)
                                                        .add<std::uint16_t>(1)
                                                        .add(static_cast<std::uint8_t>(kNanosecondExponent))
                                                        .pad()
                                                        .add<std::uint32_t>(0)
                                                        .bytes());
    return section + interface;
  }

  std::string record(const Record &record) override {
    constexpr std::uint32_t kEnhancedPacket = 6;
    constexpr std::uint16_t kComment = 1;
    const std::string data = packet(record);
    const auto length = static_cast<std::uint32_t>(data.size());
    Block body;
    body.add<std::uint32_t>(0)
        .add(static_cast<std::uint32_t>(record.nanoseconds >> 32))
        .add(static_cast<std::uint32_t>(record.nanoseconds))
        .add(length)
        .add(length)
        .text(data);
    if (!record.words.empty())
      body.add(kComment).add(static_cast<std::uint16_t>(record.words.size())).text(record.words).add<std::uint32_t>(0);
    return block(kEnhancedPacket, body.bytes());
  }

 private:
  static std::string block(std::uint32_t type, const std::string &body) {
    const auto length = static_cast<std::uint32_t>(body.size() + 12);
    return Block().add(type).add(length).text(body).add(length).bytes();
  }
};

}  // namespace

std::unique_ptr<Format> formatFor(std::string_view file) {
  if (file.ends_with(".pcapng")) return std::make_unique<PcapNg>();
  if (file.ends_with(".pcap")) return std::make_unique<Pcap>();
  return std::make_unique<Text>();
}

}  // namespace kelm::trace
