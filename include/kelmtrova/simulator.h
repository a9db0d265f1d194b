/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/simulator.h - control of the simulated token in libkelmkmgr.so, for tests, the demo and the program.
 *
 * The simulated token answers the commands that libkelmtrova sends through Icc_tsi_apiKelmDev. It simulates the
 * protocol and the token's bookkeeping, not biometrics: a finger is any run of bytes, the same bytes match, others do
 * not.
 *
 * A device is one opened token: an opaque number, never 0, that is also the handle given to Icc_tsi_apiKelmDev.
 * Functions that return int return 0 for success and -1 for failure; simulatorFailure() and simulatorError() then say
 * why. Calls on one device wait for each other, calls on several run at once. A device does not outlive fork().
 *
 * Besides the token's status words, Icc_tsi_apiKelmDev answers DEVICE_MANAGER_NO_DEVICE, _ANSWER_TOO_LONG or _NO_MEMORY
 * of kelmtrova/device_manager.h.
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

/* Why a call failed. */
typedef enum SimulatorFailure {
  SIMULATOR_OK = 0,
  SIMULATOR_BAD_ARGUMENT,    /* what was asked for cannot be */
  SIMULATOR_NO_MEMORY,       /* memory is exhausted */
  SIMULATOR_NO_DEVICE,       /* no open device has that number */
  SIMULATOR_NO_STORE,        /* nothing lies at that path */
  SIMULATOR_STORE_EXISTS,    /* something lies at that path already */
  SIMULATOR_NOT_A_STORE,     /* what lies there is no token's store, or no exported token */
  SIMULATOR_STORE_DAMAGED,   /* a store whose contents contradict themselves or their checksums */
  SIMULATOR_LATER_VERSION,   /* a store of a later version of this library */
  SIMULATOR_STORE_BUSY,      /* another process held the store for longer than a call waits */
  SIMULATOR_STORE_READ_ONLY, /* the store may be read, not written */
  SIMULATOR_NO_PERMISSION,   /* the system refuses access to the store or its folder */
  SIMULATOR_DISK_FULL,       /* no room for the store (disk, quota or limit on the size of files) */
  SIMULATOR_STORE_FAILED,    /* any other failure of the store, such as an I/O error */
  SIMULATOR_NO_FILE,         /* the token has no such file */
  SIMULATOR_PIN_WRONG,       /* the PIN is not the token's; a try was used up */
  SIMULATOR_PIN_BLOCKED,     /* no tries are left for the PIN */
  SIMULATOR_NO_READER,       /* no virtual reader answers at that address */
  SIMULATOR_READER_GONE,     /* the reader ended the connection, or stalled in the middle of a message */
  SIMULATOR_READER_NONSENSE  /* the reader sent what its protocol does not know */
} SimulatorFailure;

/* The last failure of this thread, as its kind and in words; valid until the next call on the thread. An exchange that
 * the token answers with 0x6581 leaves here why its store failed. */
SIMULATOR_API SimulatorFailure simulatorFailure(void);
SIMULATOR_API const char *simulatorError(void);

/* What personalisation puts on a new token. */
typedef struct SimulatorPersonalisation {
  uint8_t slots;            /* template slots, 1 to 255 */
  uint16_t firstFidCounter; /* first value of the FID counter, to 0x0800; 0 chooses the first safe one, 0x002A */
  uint8_t maxTries;         /* tries before matching is blocked, 1 to 15; 0 chooses 5 */
  const char *pin;          /* the user's PIN, 4 to 16 characters; null chooses "1234" */
} SimulatorPersonalisation;

/* Makes a token in a new SQLite file (mode 0600), and the folders on the way to it (mode 0700), and personalises it.
 * Fails when something lies at that path. Success means that the store was written, synchronised with the disk and
 * opened again; a failure leaves nothing behind. Any path is a path: neither ":memory:" nor "file:" is special. */
SIMULATOR_API int simulatorCreate(const char *store, const SimulatorPersonalisation *personalisation);
/* Opens the token in a store, which several devices and processes may have open; 0 on failure. All of it is checked.
 * A store of an earlier version is converted on the way, whole or not at all. One that may only be read opens, too: its
 * files and parameters can be read, and whatever has to write answers 0x6581. */
SIMULATOR_API uint64_t simulatorOpen(const char *store);
/* Makes, personalises and opens a token that lives in memory only; 0 on failure. */
SIMULATOR_API uint64_t simulatorOpenInMemory(const SimulatorPersonalisation *personalisation);
SIMULATOR_API void simulatorClose(uint64_t device);
/* The default place of the store, from the XDG directories: the length of the path, which is cut to fit with its final
 * zero. 0 when memory is exhausted. */
SIMULATOR_API size_t simulatorDefaultStore(char *path, size_t capacity);

/* Writes the whole token but what lies on its sensor to `file` (mode 0600; it holds the PIN), to be brought back with
 * simulatorImport. It is written beside its place, checked, synchronised and then renamed, so that a failure leaves
 * `file` as it was. An older exported token is replaced, anything else that lies there is not; the folder must exist.
 */
SIMULATOR_API int simulatorExport(uint64_t device, const char *file);
/* Makes a new store from an exported token, of which every byte that counts is checked; otherwise as simulatorCreate.
 */
SIMULATOR_API int simulatorImport(const char *file, const char *store);

/* Lays a finger on the sensor. It is kept in the store until it is removed or replaced, by any device or process that
 * has the token open. A finger without bytes can be captured, but has no features. */
SIMULATOR_API int simulatorPlaceFinger(uint64_t device, const void *finger, size_t length);
SIMULATOR_API int simulatorRemoveFinger(uint64_t device);

/* How the token stands. */
typedef struct SimulatorState {
  uint16_t fidCounter;   /* the next FID counter value; 0x0800 when all are used up */
  uint8_t slots;         /* 1 to 255 */
  uint8_t maxTries;      /* of matching, 1 to 15 */
  uint8_t triesLeft;     /* 0: matching is blocked */
  uint8_t blockRecorded; /* 1: the host's bit in the block record is set */
  uint8_t pinRequired;   /* 1: the token asks for its PIN */
  uint8_t pinVerified;   /* 1: on this device, since its last reset */
  uint8_t maxPinTries;
  uint8_t pinTriesLeft; /* 0: the PIN is blocked */
  uint8_t fingerLies;   /* 1: a finger lies on the sensor */
  uint8_t readOnly;     /* 1: the store may only be read */
} SimulatorState;

/* Reads the `state` past the token's commands: costs no try and is no exchange. */
SIMULATOR_API int simulatorGetState(uint64_t device, SimulatorState *state);

/* Makes the token ask for its PIN, or not any more (`required` 0); kept in the store. Commands that need it answer
 * 0x6982 until it was verified. */
SIMULATOR_API int simulatorRequirePin(uint64_t device, int required);
/* Replaces the PIN by `newPin`, of 4 to 16 characters. A wrong `oldPin` costs a try like any other verification; the
 * right one fills the tries again. Neither verifies the PIN for the commands that need it. */
SIMULATOR_API int simulatorChangePin(uint64_t device, const char *oldPin, const char *newPin);
/* Unblocks matching: the try counter is full again and the bit of the block record is cleared. The PIN's tries are full
 * again, too. */
SIMULATOR_API int simulatorUnblock(uint64_t device);

/*
 * Puts the token into the virtual reader of a PC/SC daemon that listens at `reader`, "HOST:PORT" ("[HOST]:PORT" for an
 * IPv6 address; null means 127.0.0.1:35963), as vsmartcard's vpcd does, and answers it until `stop`, a file descriptor
 * such as the reading end of a pipe, becomes readable or is closed at its other end (-1: for ever). Then the connection
 * is closed, for the reader the card is pulled out, and the result is 0.
 *
 * Fails when no reader answers within 5 seconds of looking up its name, when it ends the connection, takes more than 5
 * seconds over one message, or sends nonsense, and when the device is closed. Cutting the power and resetting begin a
 * new session of the token (and bring back power that a fault cut). The device stays usable by others meanwhile, in the
 * same session. `ready`, when not null, is called with `context` once, as soon as the reader has the token.
 */
SIMULATOR_API int simulatorServe(uint64_t device, const char *reader, int stop, void (*ready)(void *context),
                                 void *context);

/* What shall happen to exchanges; counted from the call of simulatorSetFault, the next exchange being number 1. */
typedef enum SimulatorFaultKind {
  SIMULATOR_FAULT_NONE = 0,
  SIMULATOR_FAULT_STATUS,       /* the exchange never reaches the token and is answered with `status` */
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

/* Called before (status -1) and after each exchange, with the `context` that came with the `trace`; null switches it
 * off. The answer excludes the status word. It may call the functions of this header. */
typedef void (*SimulatorTrace)(void *context, const uint8_t *command, size_t commandLength, const uint8_t *answer,
                               size_t answerLength, int32_t status);
SIMULATOR_API int simulatorSetTrace(uint64_t device, SimulatorTrace trace, void *context);

/* What a file on the token is. */
typedef enum SimulatorFileKind {
  SIMULATOR_FILE_COUNTER = 1, /* 0020, the FID counter */
  SIMULATOR_FILE_BLOCK,       /* 0040, the block record */
  SIMULATOR_FILE_INDEX,       /* 0520, the template index */
  SIMULATOR_FILE_TEMPLATE,    /* made by CREATE FILE with the type byte of template files */
  SIMULATOR_FILE_OTHER        /* made by simulatorWriteFile: somebody else's */
} SimulatorFileKind;

typedef struct SimulatorFile {
  uint16_t fid;
  uint16_t size;         /* bytes */
  uint8_t kind;          /* a SimulatorFileKind */
  uint8_t holdsTemplate; /* 1: a finger was enrolled into it */
} SimulatorFile;

/* A look into the token's memory, past its commands; it needs no power and is no exchange. What lists, reads and gets
 * fills at most `capacity` and returns the full count, or -1; a null area with capacity 0 only counts. Files come in
 * the order of their FIDs. */
SIMULATOR_API int simulatorListFiles(uint64_t device, uint16_t *fids, size_t capacity);
SIMULATOR_API int simulatorGetFiles(uint64_t device, SimulatorFile *files, size_t capacity);
SIMULATOR_API int simulatorReadFile(uint64_t device, uint16_t fid, uint8_t *bytes, size_t capacity);
/* Overwrites the first `length` bytes of a file, which must be that long; makes a file of that size when there is none.
 * The FID counter stays within 1 to 0x0800. */
SIMULATOR_API int simulatorWriteFile(uint64_t device, uint16_t fid, const uint8_t *bytes, size_t length);
/* The image last sent to the token, as far as it came: bytes per line (`lineLength`) and `lines`, both 0 when there is
 * none; the pixels fill at most `capacity`. Any pointer may be null. */
SIMULATOR_API int simulatorGetImage(uint64_t device, uint32_t *lineLength, uint32_t *lines, uint8_t *pixels,
                                    size_t capacity);

#ifdef __cplusplus
}
#endif

#endif
