/* SPDX-License-Identifier: Apache-2.0 */
/* A device manager without the simulator's control functions, as a real one is: one token, behind the handle 7, that
 * knows the device information and the self-test only. */
#include <kelmtrova/device_manager.h>
#include <string.h>

int32_t Icc_tsi_apiKelmDev(uint64_t device, uint64_t commandLength, const uint8_t *command, uint64_t *answerLength,
                           uint8_t *answer) {
  const uint64_t room = *answerLength;
  *answerLength = 0;
  if (device != 7) return 0x6F00;
  if (commandLength != 5 || command[1] != 0xFA || command[2] == 0) return 0x6D00;
  if (command[4] > room) return 0x6700;
  *answerLength = command[4];
  memset(answer, 'k', command[4]);
  return 0x9000;
}
