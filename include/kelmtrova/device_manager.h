/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/device_manager.h - the device manager, libkelmkmgr.so: the way from the library to a token.
 *
 * The library calls its one entry, Icc_tsi_apiKelmDev, for every exchange. A maker's device manager has that entry too
 * and takes the place of the open one.
 */
#ifndef KELMTROVA_DEVICE_MANAGER_H
#define KELMTROVA_DEVICE_MANAGER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KELMTROVA_API
#define KELMTROVA_API __attribute__((visibility("default")))
#endif

/*
 * One command to the token behind `device` and its answer.
 *
 * `command` holds `commandLength` bytes of a short APDU. `*answerLength` is the room in `answer` on entry and the
 * number of data bytes, status word excluded, on return. The low 16 bits of the result are the token's status word or a
 * code of the device manager's own.
 */
KELMTROVA_API int32_t Icc_tsi_apiKelmDev(uint64_t device, uint64_t commandLength, const uint8_t *command,
                                         uint64_t *answerLength, uint8_t *answer);

#ifdef __cplusplus
}
#endif

#endif
