// SPDX-License-Identifier: Apache-2.0
// User authentication and PIN check by the token middleware, which is loaded for each call.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

#include "kelmtrova/token.h"

namespace {

constexpr const char *kMiddleware = "libkelmpkcs.so";

// Opens the middleware and finds its entry. When either is missing, prints the message, closes what it opened and
// returns null.
template <typename Entry>
Entry *openEntry(const char *name, void *&library) {
  library = dlopen(kMiddleware, RTLD_NOW);
  if (library != nullptr && dlerror() == nullptr) {
    void *const entry = dlsym(library, name);
    if (dlerror() == nullptr && entry != nullptr) {
      return reinterpret_cast<Entry *>(entry);
    }
  }
  std::puts("Failed load library libkelmpkcs.so");
  if (library != nullptr) {
    dlclose(library);
  }
  return nullptr;
}

template <typename Entry, typename... Arguments>
std::uint64_t callMiddleware(const char *name, std::uint64_t failure, Arguments... arguments) {
  void *library = nullptr;
  Entry *const entry = openEntry<Entry>(name, library);
  if (entry == nullptr) {
    return failure;
  }
  const std::uint64_t result = entry(arguments...);
  dlclose(library);
  return result;
}

}  // namespace

std::uint64_t KelmSCardAuthBio(std::uint64_t arg) {
  using Auth = std::uint64_t(std::uint64_t);
  return callMiddleware<Auth>("KelmSCardAuth", KELM_RESULT_AUTH_LIBRARY, arg);
}

std::uint64_t KelmSCardVerifyUserPinBio(std::uint64_t a, std::uint64_t b, std::uint8_t c, std::uint64_t d) {
  using VerifyUserPin = std::uint64_t(std::uint64_t, std::uint64_t, std::uint8_t, std::uint64_t);
  return callMiddleware<VerifyUserPin>("KelmSCardVerifyUserPin", KELM_RESULT_PIN_LIBRARY, a, b, c, d);
}
