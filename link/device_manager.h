// The device manager's entry, imported from libkelmkmgr.so.
#ifndef KELMTROVA_LINK_DEVICE_MANAGER_H
#define KELMTROVA_LINK_DEVICE_MANAGER_H

#include <cstdint>

// One exchange with the token. `*answerLength` holds the room in `answer` on entry and the number of data bytes on
// return; the status word, or a code of the device manager's own, is the low half of the result.
extern "C" std::int32_t Icc_tsi_apiKelmDev(std::uint64_t device, std::uint64_t commandLength,
                                           const std::uint8_t *command, std::uint64_t *answerLength,
                                           std::uint8_t *answer);

#endif
