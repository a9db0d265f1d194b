/* SPDX-License-Identifier: Apache-2.0 */
/* A middleware whose results show the arguments that reached it. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>

#define ENTRY __attribute__((visibility("default"))) uint64_t

ENTRY KelmSCardAuth(uint64_t arg) { return arg; }

#ifndef WITHOUT_PIN_ENTRY
ENTRY KelmSCardVerifyUserPin(uint64_t a, uint64_t b, uint8_t c, uint64_t d) { return a + 3 * b + 5 * c + 7 * d; }
#endif

#ifdef LOOKS_IN_VAIN
__attribute__((constructor)) static void lookForSomethingOptional(void) {
  void *const volatile found = dlsym(RTLD_DEFAULT, "optionalExtra");
  (void)found;
}
#endif
