// SPDX-License-Identifier: Apache-2.0
// Takes out of an exchange what must not be in a trace. To know what a command reads or writes, it follows which file
// the token has selected; what it cannot know counts as private.
#ifndef KELMTROVA_DEVICES_TRACE_PRIVACY_H
#define KELMTROVA_DEVICES_TRACE_PRIVACY_H

#include <cstdint>
#include <map>
#include <optional>
#include <span>

namespace kelm::trace {

using Bytes = std::span<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// Stands for each byte taken out.
constexpr std::uint8_t kInstead = 0x2A;

// What is private of a run of bytes that lies at `offset` of a file.
struct Secret {
  enum Kind { kNothing, kUserData, kAll } kind = kNothing;
  std::uint32_t offset = 0;
};

// What is known of an exchange until its answer comes.
struct Begun {
  std::uint64_t device = 0;
  Secret answer;
  // The file that the command selects, if it succeeds.
  std::optional<std::uint16_t> selects;
  bool leavesSelection = true;
};

class Privacy {
 public:
  explicit Privacy(bool showUserData) : showUserData_(showUserData) {}

  Begun hideInCommand(std::uint64_t device, Bytes command);
  void hideInAnswer(const Begun &begun, Bytes answer, std::uint16_t status);

 private:
  // A device of which nothing is known yet has an unknown file selected.
  struct Known {
    std::optional<std::uint16_t> file;
    // What waits for GET RESPONSE.
    Secret waiting;
  };

  Secret contents(const Known &known, ByteView command) const;

  bool showUserData_;
  std::map<std::uint64_t, Known> devices_;
};

}  // namespace kelm::trace

#endif
