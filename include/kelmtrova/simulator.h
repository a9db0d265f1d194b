/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/simulator.h - control of the simulated token in libkelmkmgr.so, for tests, the demo and the program.
 *
 * The simulated token answers the commands that libkelmtrova sends through Icc_tsi_apiKelmDev. It simulates the
 * protocol and the token's bookkeeping, not biometrics: a finger is any run of bytes, the same bytes match, others do
 * not.
 *
 * A device is one opened token: an opaque number, never 0, that is also the handle given to Icc_tsi_apiKelmDev.
 * Functions that return int answer 0 for success and -1 for failure; simulatorError() then says why. Calls on one
 * device wait for each other, calls on several run at once. A device does not outlive fork().
 *
 * To what no open device answers, and to a null command or length, Icc_tsi_apiKelmDev answers 0x6F00; 0x6F01 when the
 * answer is longer than the area (it is lost, the work is done); 0x6F02 when memory is exhausted.
 * docs/simulated-token.md lists what the token answers to each command.
 */
#ifndef KELMTROVA_SIMULATOR_H
#define KELMTROVA_SIMULATOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SIMULATOR_API __attribute__((visibility("default")))

/* What personalisation puts on a new token. */
typedef struct SimulatorPersonalisation {
  uint8_t slots;            /* template slots, 1 to 255 */
  uint16_t firstFidCounter; /* first value of the FID counter; 0 chooses the first safe one, 0x002A */
  uint8_t maxTries;         /* tries before matching is blocked, 1 to 15; 0 chooses 5 */
  const char *pin;          /* the user's PIN, 4 to 16 characters; null chooses "1234" */
} SimulatorPersonalisation;

/* Makes a token in a new SQLite file, and the folders on the way to it, and personalises it. Fails when the file
 * exists; makes the whole token or nothing. */
SIMULATOR_API int simulatorCreate(const char *store, const SimulatorPersonalisation *personalisation);
/* Opens the token in a store, which several devices and processes may have open; 0 on failure: nothing there, not the
 * store of a token, or a damaged one. */
SIMULATOR_API uint64_t simulatorOpen(const char *store);
/* Makes, personalises and opens a token that lives in memory only; 0 on failure. */
SIMULATOR_API uint64_t simulatorOpenInMemory(const SimulatorPersonalisation *personalisation);
SIMULATOR_API void simulatorClose(uint64_t device);
/* The last failure of this thread in words; valid until the next call on the thread. */
SIMULATOR_API const char *simulatorError(void);
/* The default place of the store, from the XDG directories: the length of the path, which is cut to fit with its final
 * zero. 0 when memory is exhausted. */
SIMULATOR_API size_t simulatorDefaultStore(char *path, size_t capacity);

/* Lays a finger on the sensor (it stays there until removed or replaced; it is not kept in the store). A finger without
 * bytes can be captured, but has no features. */
SIMULATOR_API int simulatorPlaceFinger(uint64_t device, const void *finger, size_t length);
SIMULATOR_API int simulatorRemoveFinger(uint64_t device);

/* Makes the token ask for its PIN (kept in the store): commands that need it answer 0x6982 until it was verified. */
SIMULATOR_API int simulatorRequirePin(uint64_t device, int required);
/* Unblocks matching: the try counter is full again and the bit of the block record is cleared. The PIN's tries are full
 * again, too. */
SIMULATOR_API int simulatorUnblock(uint64_t device);

/* What shall happen to exchanges; counted from the call of simulatorSetFault, the next exchange being number 1. */
typedef enum SimulatorFaultKind {
  SIMULATOR_FAULT_NONE = 0,
  SIMULATOR_FAULT_STATUS,       /* the exchange reaches the token not at all and answers `status` */
  SIMULATOR_FAULT_STATUS_AFTER, /* the token does its work, but the answer is `status` without data */
  SIMULATOR_FAULT_POWER_BEFORE, /* the power is cut before the exchange: it and all later ones answer `status` */
  SIMULATOR_FAULT_POWER_AFTER,  /* the power is cut right after the work of the exchange; its answer is lost */
  SIMULATOR_FAULT_MORE_DATA,    /* the answer is 61xx, its data and status wait for GET RESPONSE */
  SIMULATOR_FAULT_TOO_MUCH      /* after its work the token delivers its answer, filled up to 256 bytes (or to the
                                   capacity of the area), and claims `claimed` bytes with the status 0x9000 */
} SimulatorFaultKind;

typedef struct SimulatorFault {
  SimulatorFaultKind kind;
  uint32_t exchange; /* the number of the exchange that fails; 0 makes every exchange fail */
  uint16_t status;
  uint64_t claimed;
} SimulatorFault;

/* Takes the place of the fault set before; null means none. Power that was cut is back: a new power session begins. */
SIMULATOR_API int simulatorSetFault(uint64_t device, const SimulatorFault *fault);
/* Exchanges made on the device since it was opened. */
SIMULATOR_API uint64_t simulatorExchanges(uint64_t device);

/* Called before (status -1) and after each exchange; null switches it off. The answer excludes the status word. It may
 * call the functions of this header. */
typedef void (*SimulatorTrace)(void *context, const uint8_t *command, size_t commandLength, const uint8_t *answer,
                               size_t answerLength, int32_t status);
SIMULATOR_API int simulatorSetTrace(uint64_t device, SimulatorTrace trace, void *context);

/* A look into the token's memory, past its commands; it needs no power and is no exchange. What lists, reads and gets
 * fills at most `capacity` and returns the full count, or -1; a null area with capacity 0 only counts. */
SIMULATOR_API int simulatorListFiles(uint64_t device, uint16_t *fids, size_t capacity);
SIMULATOR_API int simulatorReadFile(uint64_t device, uint16_t fid, uint8_t *bytes, size_t capacity);
/* Overwrites the first `length` bytes of a file, which must be that long; makes a file of that size when there is none.
 */
SIMULATOR_API int simulatorWriteFile(uint64_t device, uint16_t fid, const uint8_t *bytes, size_t length);
/* The image last sent to the token, as far as it came: bytes per line and number of lines, both 0 when there is none;
 * the pixels fill at most `capacity`. Any pointer may be null. */
SIMULATOR_API int simulatorGetImage(uint64_t device, uint32_t *lineLength, uint32_t *lines, uint8_t *pixels,
                                    size_t capacity);

#ifdef __cplusplus
}
#endif

#endif
