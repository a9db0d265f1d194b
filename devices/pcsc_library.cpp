// SPDX-License-Identifier: Apache-2.0
#include "devices/pcsc_library.h"

#include <dlfcn.h>

#include <string>

#include "devices/failure.h"

namespace kelm::devices {
namespace {

constexpr const char *kName = "libpcsclite.so.1";
constexpr const char *kAdvice = " (Debian's package libpcsclite1 has it)";

template <typename Function>
void find(void *library, const char *name, Function &function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (!function) throw Failure(DEVICE_MANAGER_NO_PCSC, std::string(kName) + " lacks " + name);
}

PcscLibrary load() {
  void *library = dlopen(kName, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    const char *why = dlerror();
    throw Failure(DEVICE_MANAGER_NO_PCSC,
                  "the PC/SC library cannot be loaded: " + std::string(why ? why : kName) + kAdvice);
  }
  PcscLibrary found{};
  find(library, "SCardEstablishContext", found.establishContext);
  find(library, "SCardReleaseContext", found.releaseContext);
  find(library, "SCardListReaders", found.listReaders);
  find(library, "SCardGetStatusChange", found.getStatusChange);
  find(library, "SCardConnect", found.connect);
  find(library, "SCardReconnect", found.reconnect);
  find(library, "SCardDisconnect", found.disconnect);
  find(library, "SCardBeginTransaction", found.beginTransaction);
  find(library, "SCardEndTransaction", found.endTransaction);
  find(library, "SCardTransmit", found.transmit);
  return found;
}

}  // namespace

const PcscLibrary &pcscLibrary() {
  // A load that throws leaves this to the next call.
  static const PcscLibrary library = load();
  return library;
}

}  // namespace kelm::devices
