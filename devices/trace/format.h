// SPDX-License-Identifier: Apache-2.0
// The forms of a trace: lines of text, or packets for Wireshark and tshark.
#ifndef KELMTROVA_DEVICES_TRACE_FORMAT_H
#define KELMTROVA_DEVICES_TRACE_FORMAT_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kelm::trace {

struct Record {
  std::uint64_t nanoseconds;  // since 1970
  std::uint64_t device;
  bool toCard;
  std::span<const std::uint8_t> apdu;  // an answer with its status word
  std::string_view words;              // the command's name or the status in words
};

class Format {
 public:
  virtual ~Format() = default;
  virtual std::string start() = 0;
  virtual std::string record(const Record &record) = 0;
};

// By the ending of the file's name.
std::unique_ptr<Format> formatFor(std::string_view file);

}  // namespace kelm::trace

#endif
