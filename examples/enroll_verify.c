/* SPDX-License-Identifier: Apache-2.0 */
/* Enrolls a finger and verifies it, on a simulated token that lives in memory. */
#include <kelmtrova/simulator.h>
#include <kelmtrova/token.h>
#include <stdio.h>

/* Makes the token take the finger's image and extract its features, into one of its buffers after the other. */
static uint64_t capture(const SCardConnection *token, uint8_t buffers) {
  uint64_t result = KELM_RESULT_OK;
  for (uint8_t buffer = 1; buffer <= buffers && result == KELM_RESULT_OK; ++buffer) {
    result = KelmTrovaCaptureImage(token);
    if (result == KELM_RESULT_OK) result = KelmTrovaFeatureExtract(token, buffer);
  }
  return result;
}

int main(void) {
  const SimulatorPersonalisation personalisation = {.slots = 10};
  /* With a real device manager, hDevice is the handle that it gave out, and the simulator's functions fall away. */
  SCardConnection token = {.bState = KELM_CONNECTION_READY, .hDevice = simulatorOpenInMemory(&personalisation)};
  if (KelmIsTrova(&token) != 1) {
    puts("no token");
    return 1;
  }
  simulatorPlaceFinger(token.hDevice, "thumb", 5);

  const TemplateIndexEntry record = {.tag = 7, .userData = "right thumb"};
  uint8_t triesLeft = 0;
  uint64_t result = capture(&token, 3);
  if (result == KELM_RESULT_OK) result = KelmTrovaFeatureEnroll(&token, 1, &record);
  if (result == KELM_RESULT_OK) result = capture(&token, 1);
  if (result == KELM_RESULT_OK) result = KelmTrovaFeatureVerify(&token, 0, 1, &triesLeft);

  printf("%s, result 0x%08llX\n", result == KELM_RESULT_OK ? "match" : "no match", (unsigned long long)result);
  simulatorClose(token.hDevice);
  return result != KELM_RESULT_OK;
}
