/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Lets the token's middleware, libkelmpkcs.so, verify the user's PIN. The loader has to find it: beside the libraries,
 * or where LD_LIBRARY_PATH says.
 */
#include <kelmtrova/simulator.h>
#include <kelmtrova/token.h>
#include <stdio.h>

int main(void) {
  const SimulatorPersonalisation personalisation = {.slots = 10, .pin = "2468"};
  const uint64_t device = simulatorOpenInMemory(&personalisation);
  static const char pin[] = "2468";
  uint8_t triesLeft = 0;

  /* What the arguments mean is the middleware's business: these are those of KelmSCardVerifyUserPin in
   * kelmtrova/middleware.h. */
  const uint64_t result =
      KelmSCardVerifyUserPinBio(device, (uintptr_t)pin, sizeof pin - 1, (uint64_t)(uintptr_t)&triesLeft);
  if (result == KELM_RESULT_OK) {
    puts("the PIN is right");
  } else if (result == KELM_RESULT_PIN_LIBRARY) {
    puts("no middleware");
  } else {
    printf("refused, result 0x%08llX, %d tries left\n", (unsigned long long)result, triesLeft);
  }
  simulatorClose(device);
  return 0;
}
