// SPDX-License-Identifier: Apache-2.0
// The PC/SC library, loaded when it is first needed. Its names are also names of libkelmtrova, so nothing here is
// linked to it: every function is looked up in the library's own handle.
#ifndef KELMTROVA_DEVICES_PCSC_LIBRARY_H
#define KELMTROVA_DEVICES_PCSC_LIBRARY_H

#include <winscard.h>

namespace kelm::devices {

struct PcscLibrary {
  decltype(&SCardEstablishContext) establishContext;
  decltype(&SCardReleaseContext) releaseContext;
  decltype(&SCardListReaders) listReaders;
  decltype(&SCardGetStatusChange) getStatusChange;
  decltype(&SCardConnect) connect;
  decltype(&SCardReconnect) reconnect;
  decltype(&SCardDisconnect) disconnect;
  decltype(&SCardBeginTransaction) beginTransaction;
  decltype(&SCardEndTransaction) endTransaction;
  decltype(&SCardTransmit) transmit;
};

// Throws the Failure NO_PCSC when there is none; asks again on the next call. Stays loaded.
const PcscLibrary &pcscLibrary();

}  // namespace kelm::devices

#endif
