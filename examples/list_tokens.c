/* SPDX-License-Identifier: Apache-2.0 */
/* Lists where tokens can be: the readers of PC/SC, and the simulated token in the default store. */
#include <kelmtrova/device_manager.h>
#include <stdio.h>

static int show(void *count, const DeviceManagerToken *token) {
  ++*(int *)count;
  printf("%s (%s)\n", token->address, token->description);
  return 0;
}

int main(void) {
  int count = 0;
  if (deviceManagerList(show, &count) != 0) fprintf(stderr, "no readers: %s\n", deviceManagerError());
  printf("%d places\n", count);
  return 0;
}
