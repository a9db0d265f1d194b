/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/device_manager.h - the device manager, libkelmkmgr.so: the way from the library to a token.
 *
 * The library calls one entry, Icc_tsi_apiKelmDev, for every exchange. A maker's device manager has that entry too and
 * takes the place of this open one; it lacks everything else in this header. A program that has to run with either
 * looks the other functions up with dlsym(RTLD_DEFAULT, ...).
 *
 * A device is one opened token: an opaque number, never 0 and never given out twice, which is the hDevice of an
 * SCardConnection. Any thread may use any device: calls on one device wait for each other, calls on several run at
 * once. A device does not outlive fork().
 *
 * Addresses of tokens:
 *   pcsc:NAME     a reader of PC/SC by its name, by a part of the name that only one reader has (capital and small
 *                 letters are the same), or by its number in the list, from 0; `pcsc:` alone is the only reader
 *   sim:PATH      a simulated token in its store (kelmtrova/simulator.h); `sim:` alone is the default store
 *   PATH          the same as sim:PATH
 *
 * Readers are reached through the PC/SC library libpcsclite.so.1, which is loaded when the first reader is asked for;
 * without it all else works. Connections are shared, with T=0 or T=1 as the card offers. After another program has
 * reset the card, the next command connects anew and is then sent; what the token knew of its session (the selected
 * file, a verified PIN, captured features) is gone. No command is ever sent twice.
 *
 * One process, two libraries with the same names: libkelmtrova.so exports SCardTransmit, g_rgSCardT0Pci and
 * g_rgSCardT1Pci, and so does the PC/SC library, with other meanings. No order of linking makes both work. A program
 * that uses PC/SC itself links to one of the two only and opens the other with
 * dlopen(..., RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND), so that each finds its own names; what is opened so can no longer
 * be replaced by name (an own SCardTransmit or MyLock of the program is not called, and no trace is preloaded).
 * examples/both_libraries.c shows it. The device manager itself loads the PC/SC library out of everybody's sight and
 * needs none of this.
 */
#ifndef KELMTROVA_DEVICE_MANAGER_H
#define KELMTROVA_DEVICE_MANAGER_H

#include <stddef.h>
#include <stdint.h>

#include "kelmtrova/version.h"

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
 * code of the device manager's own; for those of this device manager see DeviceManagerCode.
 */
KELMTROVA_API int32_t Icc_tsi_apiKelmDev(uint64_t device, uint64_t commandLength, const uint8_t *command,
                                         uint64_t *answerLength, uint8_t *answer);

/*
 * What went wrong, as the result of Icc_tsi_apiKelmDev and of deviceManagerErrorCode. No token answers these: a status
 * word begins with 6 or 9. Where nothing else is said, the command did not reach the token.
 */
typedef enum DeviceManagerCode {
  DEVICE_MANAGER_OK = 0,
  DEVICE_MANAGER_NO_DEVICE = 0xED00,       /* no such open device, or a null pointer */
  DEVICE_MANAGER_ANSWER_TOO_LONG = 0xED01, /* longer than the area: it is lost, the command's work is done */
  DEVICE_MANAGER_NO_MEMORY = 0xED02,       /* memory exhausted */
  DEVICE_MANAGER_BAD_ADDRESS = 0xED03,     /* not an address of a token */
  DEVICE_MANAGER_NO_PCSC = 0xED04,         /* the PC/SC library is not installed, or not a usable one */
  DEVICE_MANAGER_NO_SERVICE = 0xED05,      /* the service pcscd does not run, or does not answer */
  DEVICE_MANAGER_NO_READER = 0xED06,       /* no such reader, or the reader was unplugged */
  DEVICE_MANAGER_SEVERAL_READERS = 0xED07, /* the address fits several readers */
  DEVICE_MANAGER_NO_CARD = 0xED08,         /* the reader holds no card */
  DEVICE_MANAGER_CARD_MUTE = 0xED09,       /* the card does not answer the reader, or speaks neither T=0 nor T=1 */
  DEVICE_MANAGER_NOT_ALLOWED = 0xED0A,     /* this user may not use the reader */
  DEVICE_MANAGER_BUSY = 0xED0B,            /* another program kept the token to itself for too long */
  DEVICE_MANAGER_CARD_REMOVED = 0xED0C,    /* the token was pulled out; it may have done the command's work. The
                                              device stays without a token: close it and open the address again */
  DEVICE_MANAGER_CARD_RESET = 0xED0D,      /* another program reset the token, and the command needs what it forgot
                                              (the selected file, an exclusive stretch) */
  DEVICE_MANAGER_NO_ANSWER = 0xED0E,       /* none, or a broken one, or none in time; the work may be done */
  DEVICE_MANAGER_STORE_MISSING = 0xED0F,   /* there is no such simulated token */
  DEVICE_MANAGER_STORE_UNUSABLE = 0xED10,  /* the store of a simulated token is damaged, of another kind or version,
                                              or may not be opened */
  DEVICE_MANAGER_NO_STRETCH = 0xED11,      /* an exclusive stretch was to end that had not begun */
  DEVICE_MANAGER_COMMAND_TOO_LONG = 0xED12 /* longer than the 261 bytes of a short APDU */
} DeviceManagerCode;

/* Words for a code of the list above, for example "the token was pulled out"; null for any other number, a status word
 * among them. The text is constant. */
KELMTROVA_API const char *deviceManagerCodeText(uint16_t code);
/* The last failure of this thread in this header's functions, Icc_tsi_apiKelmDev included: its code
 * (DEVICE_MANAGER_OK when the last call succeeded) ... */
KELMTROVA_API uint16_t deviceManagerErrorCode(void);
/* ... and in words, with the names and numbers at hand and what can be done; "" after a success. Valid until the next
 * call on the thread. */
KELMTROVA_API const char *deviceManagerError(void);

typedef enum DeviceManagerKind { DEVICE_MANAGER_READER = 1, DEVICE_MANAGER_SIMULATED = 2 } DeviceManagerKind;

/* One place of a token, as it is listed. The strings and the ATR are valid during the visit. */
typedef struct DeviceManagerToken {
  const char *address;     /* for deviceManagerOpen: "pcsc:" and the reader's whole name, "sim:" and the store's path */
  const char *description; /* for people: "reader, card present", "reader, no card", "simulated token" */
  DeviceManagerKind kind;
  int32_t cardPresent; /* 1 or 0; always 1 for a simulated token */
  const uint8_t *atr;  /* what the card said when it was powered; null for a simulated token */
  size_t atrLength;    /* 0 to 33 */
} DeviceManagerToken;

/* Called for each place; anything but 0 ends the list. */
typedef int (*DeviceManagerVisitor)(void *context, const DeviceManagerToken *token);

/*
 * Visits every reader in the order of PC/SC and then the simulated token in the default store, if there is one. No card
 * is connected to and nothing is sent; `context` is the visitor's. 0 when everything could be asked, also when there
 * was nothing to list; -1 when the readers could not be asked (DEVICE_MANAGER_NO_PCSC, DEVICE_MANAGER_NO_SERVICE): what
 * else there is was listed nonetheless.
 */
KELMTROVA_API int deviceManagerList(DeviceManagerVisitor visit, void *context);

/*
 * Opens the token at `address`; 0 on failure. A reader that another program has to itself is waited for, ten seconds at
 * the most. Close it with deviceManagerClose, which also takes devices of kelmtrova/simulator.h and ends a stretch that
 * is still open; closing what is not open does nothing.
 */
KELMTROVA_API uint64_t deviceManagerOpen(const char *address);
KELMTROVA_API void deviceManagerClose(uint64_t device);

/*
 * Begins and ends an exclusive stretch: until its end no other program and no other device of this one gets a command
 * to the token (a transaction of PC/SC; a lock beside the store of a simulated token). The stretch belongs to the
 * device, not to the thread. Beginnings count: as many ends belong to them. 0, or -1: DEVICE_MANAGER_BUSY when the
 * token did not become free within ten seconds.
 *
 * When a token is pulled out or reset within a stretch, what follows in the stretch fails and reaches no token; so does
 * a deviceManagerBegin within it. Its ends are still to be called.
 */
KELMTROVA_API int deviceManagerBegin(uint64_t device);
KELMTROVA_API int deviceManagerEnd(uint64_t device);

#ifdef __cplusplus
}
#endif

#endif
