/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A program that uses both kelmtrova and PC/SC itself: lists the readers with PC/SC, asks the card in the first one for
 * its name with PC/SC's SCardTransmit, and then the same card with the library.
 *
 * Both libraries export SCardTransmit, g_rgSCardT0Pci and g_rgSCardT1Pci. Linked to both, one would call the other's.
 * So this program links to libkelmtrova only and opens the other: RTLD_DEEPBIND makes it find its own names first.
 * Neither can the two headers be included in one file; what is needed of winscard.h is declared here.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <kelmtrova/device_manager.h>
#include <kelmtrova/token.h>
#include <stdio.h>

/* Of winscard.h. */
enum { SYSTEM_SCOPE = 2, SHARED = 2, T0 = 1, T0_OR_T1 = 3, LEAVE_CARD = 0 };

static struct {
  long (*establishContext)(unsigned long scope, const void *, const void *, long *context);
  long (*listReaders)(long context, const char *groups, char *readers, unsigned long *length);
  long (*connect)(long context, const char *reader, unsigned long share, unsigned long protocols, long *card,
                  unsigned long *protocol);
  long (*transmit)(long card, const void *protocol, const uint8_t *command, unsigned long commandLength, void *,
                   uint8_t *answer, unsigned long *answerLength);
  long (*disconnect)(long card, unsigned long disposition);
  long (*releaseContext)(long context);
  const void *t0, *t1;
} pcsc;

/* 1 when all is there. */
static int loadPcsc(void) {
  void *library = dlopen("libpcsclite.so.1", RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  if (library == NULL) return 0;
  *(void **)&pcsc.establishContext = dlsym(library, "SCardEstablishContext");
  *(void **)&pcsc.listReaders = dlsym(library, "SCardListReaders");
  *(void **)&pcsc.connect = dlsym(library, "SCardConnect");
  *(void **)&pcsc.transmit = dlsym(library, "SCardTransmit");
  *(void **)&pcsc.disconnect = dlsym(library, "SCardDisconnect");
  *(void **)&pcsc.releaseContext = dlsym(library, "SCardReleaseContext");
  pcsc.t0 = dlsym(library, "g_rgSCardT0Pci");
  pcsc.t1 = dlsym(library, "g_rgSCardT1Pci");
  return pcsc.establishContext && pcsc.listReaders && pcsc.connect && pcsc.transmit && pcsc.disconnect &&
         pcsc.releaseContext && pcsc.t0 && pcsc.t1;
}

/* With PC/SC's own functions; the name of the first reader goes to `reader`. */
static void askWithPcsc(char *reader, unsigned long room) {
  static const uint8_t deviceInformation[] = {0x80, 0xFA, 0x02, 0x00, 0x2F};
  long context = 0, card = 0;
  unsigned long protocol = 0, length = room;
  if (pcsc.establishContext(SYSTEM_SCOPE, NULL, NULL, &context) != 0) {
    puts("PC/SC: the service does not run");
    return;
  }
  if (pcsc.listReaders(context, NULL, reader, &length) != 0) {
    puts("PC/SC: no reader");
    reader[0] = '\0';
  } else if (pcsc.connect(context, reader, SHARED, T0_OR_T1, &card, &protocol) != 0) {
    printf("PC/SC: %s, no card\n", reader);
  } else {
    uint8_t answer[258];
    length = sizeof answer;
    const long result = pcsc.transmit(card, protocol == T0 ? pcsc.t0 : pcsc.t1, deviceInformation,
                                      sizeof deviceInformation, NULL, answer, &length);
    printf("PC/SC: %s, result %ld, %lu bytes\n", reader, result, length);
    pcsc.disconnect(card, LEAVE_CARD);
  }
  pcsc.releaseContext(context);
}

int main(void) {
  char reader[2048] = "";
  if (loadPcsc()) {
    askWithPcsc(reader, sizeof reader);
  } else {
    puts("PC/SC: not installed");
  }
  char address[sizeof reader + 8];
  snprintf(address, sizeof address, "pcsc:%s", reader);
  const SCardConnection token = {.bState = KELM_CONNECTION_READY, .hDevice = deviceManagerOpen(address)};
  if (token.hDevice == 0) {
    printf("kelmtrova: %s\n", deviceManagerError());
    return 0;
  }
  printf("kelmtrova: %s, %s\n", reader, KelmIsTrova(&token) == 1 ? "a fingerprint token" : "another card");
  deviceManagerClose(token.hDevice);
  return 0;
}
