/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Takes the place of the library's trace and lock hooks, and sends a command of its own. The linker has to export the
 * hooks to the library: cc -rdynamic own_hooks.c $(pkg-config --cflags --libs kelmtrova-simulator)
 */
#include <kelmtrova/simulator.h>
#include <kelmtrova/token.h>
#include <stdarg.h>
#include <stdio.h>

void MYTRACE(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
  putchar('\n');
}

/* A program with threads takes its lock here and gives it back in MyUnlock. */
uint64_t MyLock(const SCardConnection *handle) { return handle->hDevice; }
void MyUnlock(uint64_t token) { (void)token; }

int main(void) {
  const SimulatorPersonalisation personalisation = {.slots = 10};
  const SCardConnection token = {.bState = KELM_CONNECTION_READY, .hDevice = simulatorOpenInMemory(&personalisation)};
  KelmTrovaSelfTest(&token);

  uint8_t slotCount[] = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x04, 0x06, 0x01}, answer[256];
  uint64_t length = 0;
  const uint32_t status = SCardAPDU(&token, slotCount, sizeof slotCount, answer, &length);
  printf("status word %04X, %d slots\n", status, length == 1 ? answer[0] : 0);
  simulatorClose(token.hDevice);
  return 0;
}
