/* SPDX-License-Identifier: Apache-2.0 */
/* Reads and changes what a token keeps: parameters, the finger cache, files; sends it an image. On a simulated token.
 */
#include <kelmtrova/simulator.h>
#include <kelmtrova/token.h>
#include <stdio.h>

/* What is told of a command that a token may refuse. */
static int tell(const char *what, uint64_t result) {
  if (result != KELM_RESULT_OK) printf("%s: refused, result 0x%08llX\n", what, (unsigned long long)result);
  return result == KELM_RESULT_OK;
}

static void readFiles(const SCardConnection *token) {
  uint8_t index[255 * sizeof(TemplateIndexEntry)], fid[2];
  uint16_t counter = 0;
  if (tell("template index", KelmTrovaReadIndexFile(token, index)))
    printf("slot 1: %s\n", index[0] ? "enrolled" : "free");
  if (tell("FID counter", token_get_current_fid(token, &counter))) printf("next template file: %04X\n", counter << 5);
  /* The same file, by its bytes. */
  if (SCardReadBin(token, KELM_FID_COUNTER, 1, fid, sizeof fid))
    printf("bytes of the counter: %02X %02X\n", fid[0], fid[1]);
}

int main(void) {
  const SimulatorPersonalisation personalisation = {.slots = 10};
  const SCardConnection token = {.bState = KELM_CONNECTION_READY, .hDevice = simulatorOpenInMemory(&personalisation)};
  static const uint8_t pixels[64 * 48];
  const TokenImage image = {.dwLines = 48, .dwLineLen = 64, .pbPixels = pixels};
  uint8_t before = 0, after = 0, cached = 0;

  if (tell("time-out", KelmTrovaGetTimeOut(&token, &before)) && tell("time-out", KelmTrovaSetTimeOut(&token, 20)) &&
      tell("time-out", KelmTrovaGetTimeOut(&token, &after))) {
    printf("time-out: %d, now %d\n", before, after);
  }
  if (tell("finger cache", KelmTrovaEnableFingerCache(&token, 1)) &&
      tell("finger cache", KelmTrovaGetFingerCacheState(&token, &cached))) {
    printf("finger cache: state %d\n", cached);
  }
  readFiles(&token);
  if (tell("image", KelmTrovaDownloadImage(&token, &image))) puts("image sent");
  simulatorClose(token.hDevice);
  return 0;
}
