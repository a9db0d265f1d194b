/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/middleware.h - what our middleware, libkelmpkcs.so, means by its arguments and results.
 *
 * It sends VERIFY (ISO 7816-4) to a device of our device manager. Both entries answer 0 for success; otherwise
 * 0x80000000 plus the token's status word (0x63Cx: not verified, x tries left; 0x6983: the PIN is blocked; 0xED00: no
 * such device) or 0x8000B002 for a bad argument. What was verified holds until the device is closed or reset,
 * or loses power.
 */
#ifndef KELMTROVA_MIDDLEWARE_H
#define KELMTROVA_MIDDLEWARE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MIDDLEWARE_API __attribute__((visibility("default")))

/* Whether the user of a device has verified the PIN; costs no try. */
MIDDLEWARE_API uint64_t KelmSCardAuth(uint64_t device);

/*
 * Verifies the user's PIN. `pin` is the address of `length` characters (1 to 16), `triesLeft` that of one byte or 0.
 * The byte is written when the token refuses the PIN: the tries left, 0 when it is blocked.
 */
MIDDLEWARE_API uint64_t KelmSCardVerifyUserPin(uint64_t device, uint64_t pin, uint8_t length, uint64_t triesLeft);

#ifdef __cplusplus
}
#endif

#endif
