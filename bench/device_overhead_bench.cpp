// SPDX-License-Identifier: Apache-2.0
// What the library adds to an exchange: a device manager that answers at once, called through a command and alone.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "bench/bench.h"
#include "kelmtrova/device_manager.h"
#include "kelmtrova/token.h"

extern "C" __attribute__((visibility("default"), noinline)) std::int32_t Icc_tsi_apiKelmDev(
    std::uint64_t /*device*/, std::uint64_t /*commandLength*/, const std::uint8_t *command, std::uint64_t *answerLength,
    std::uint8_t *answer) {
  *answerLength = command[1] == 0xB0 ? command[4] : 1;
  answer[0] = 10;
  return 0x9000;
}

namespace {

// The cheapest way into the kernel and back that carries data: every real exchange takes more than one.
void kernelRoundTrip() {
  static const int zero = open("/dev/zero", O_RDONLY);
  std::uint8_t bytes[47];
  if (read(zero, bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes)) {
    std::memset(bytes, 0, sizeof bytes);
  }
}

SCardConnection connection = {KELM_CONNECTION_READY, {}, 1, 1};

const kelm::bench::Registration kPairs([] {
  const std::string peer = "read of 47 bytes from /dev/zero";
  return std::vector<kelm::bench::Pair>{
      {"KelmTrovaSelfTest", peer, [] { KelmTrovaSelfTest(&connection); }, kernelRoundTrip, 1.0},
      {"KelmTrovaGetTimeOut", peer,
       [] {
         std::uint8_t value;
         KelmTrovaGetTimeOut(&connection, &value);
       },
       kernelRoundTrip, 1.0},
      {"KelmTrovaSetTimeOut", peer, [] { KelmTrovaSetTimeOut(&connection, 9); }, kernelRoundTrip, 1.0},
      {"KelmTrovaGetDeviceInfo", peer,
       [] {
         std::uint8_t info[KELM_DEVICE_INFO_ROOM];
         std::uint64_t length;
         KelmTrovaGetDeviceInfo(&connection, info, &length);
       },
       kernelRoundTrip, 1.0},
      // Four exchanges and one block of memory.
      {"SCardReadBin 400 bytes", peer,
       [] {
         std::uint8_t bytes[400];
         SCardReadBin(&connection, KELM_FID_TEMPLATE_INDEX, 0, bytes, sizeof bytes);
       },
       kernelRoundTrip, 4.0},
  };
});

}  // namespace
