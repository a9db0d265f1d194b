// SPDX-License-Identifier: Apache-2.0
// The bridge over a middleware that is whole, lacks an entry, leaves a loader's error behind, or is missing. The
// loader's entries are watched.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kelmtrova/token.h"

namespace {

std::string redirected;  // the file that libkelmpkcs.so stands for
int opened, closed, openFlags;

bool isMiddleware(const char *file) { return file != nullptr && std::strcmp(file, "libkelmpkcs.so") == 0; }

}  // namespace

extern "C" __attribute__((visibility("default"))) void *dlopen(const char *file, int flags) noexcept {
  static const auto own = reinterpret_cast<void *(*)(const char *, int)>(dlsym(RTLD_NEXT, "dlopen"));
  if (!isMiddleware(file)) {
    return own(file, flags);
  }
  openFlags = flags;
  void *const library = own(redirected.c_str(), flags);
  opened += library != nullptr ? 1 : 0;
  return library;
}

extern "C" __attribute__((visibility("default"))) int dlclose(void *library) noexcept {
  static const auto own = reinterpret_cast<int (*)(void *)>(dlsym(RTLD_NEXT, "dlclose"));
  ++closed;
  return own(library);
}

TEST(MiddlewareBridge, EveryPath) {
  const std::string message = "Failed load library libkelmpkcs.so\n";
  const std::string folder = KELM_BUILD_DIR "/tests/";
  const struct {
    std::string file;
    bool hasAuth, hasPin;
  } cases[] = {{folder + "middleware_whole.so", true, true},
               {folder + "middleware_without_pin.so", true, false},
               {folder + "middleware_looking_in_vain.so", false, false},
               {folder + "middleware_missing.so", false, false}};
  for (const auto &expected : cases) {
    redirected = expected.file;
    opened = closed = openFlags = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(KelmSCardAuthBio(0xFEDCBA9876543210), expected.hasAuth ? 0xFEDCBA9876543210 : 0x8000010A);
    EXPECT_EQ(KelmSCardAuthBio(0), expected.hasAuth ? 0U : 0x8000010A);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected.hasAuth ? "" : message + message);
    testing::internal::CaptureStdout();
    EXPECT_EQ(KelmSCardVerifyUserPinBio(1ULL << 40, 10, 0xFF, 1000),
              expected.hasPin ? (1ULL << 40) + 30 + 5 * 255 + 7000 : 0x8000010C);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected.hasPin ? "" : message);
    EXPECT_EQ(opened, expected.file == cases[3].file ? 0 : 3);
    EXPECT_EQ(closed, opened);
    EXPECT_EQ(openFlags, RTLD_NOW);
    EXPECT_EQ(dlopen(expected.file.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "left open";
  }
}
